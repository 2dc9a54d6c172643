// Reads arbitrary bytes as a data file. The mutator mends sizes, tags and checksums, or nothing would get
// past them. Besides the sanitizers' checks: every byte of the file is accounted for once, and what recovery
// makes of any file is whole and holds its blocks.
#include <cstring>
#include <vector>
#include <zlib.h>

#include "fuzz/target.h"
#include "libvu/core/wire_private.h"
#include "libvu/datafile/krd_format.h"
#include "vu/command.h"
#include "vu/krdfile/check.h"
#include "vu/krdfile/envelope.h"
#include "vu/krdfile/export/export_formats.h"
#include "vu/krdfile/rewrite.h"

using namespace vu::krd;

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t maxSize);

static void readChannel(const Channel &channel, const std::vector<Block> &blocks, int64_t ticksPerSecond)
{
    if (channel.periodic()) {
        const Extent extent = extentOf(channel, blocks, {});
        int64_t last = 0;
        uint64_t samples = 0;
        for (SampleCursor cursor(channel, blocks); !cursor.atEnd(); cursor.advance(cursor.runLeft())) {
            last = cursor.sample();
            samples += cursor.runLeft();
        }
        require(samples == extent.samples && last >= 0);
    } else if (channel.kind != Kind::kUnknown)
        forEachMessage(channel, blocks, [&](const Message &message) {
            require(channel.kind != Kind::kCan || canFrame(message.body).data.size() <= 8);
        });
    if (channel.periodic() || channel.kind == Kind::kFloat || channel.kind == Kind::kFloatNtp)
        envelopeOf(channel, blocks, ticksPerSecond, {}, 16);
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t maxSize, unsigned seed)
{
    size = LLVMFuzzerMutate(data, size, maxSize);
    if (seed % 8 == 0) // some stay damaged
        return size;
    for (size_t at = 0; size - at >= KRD_FRAMING_SIZE;) {
        const uint32_t wanted = loadBig32(data + at), left = static_cast<uint32_t>(size - at);
        const uint32_t block = wanted < KRD_FRAMING_SIZE || wanted > left ? left : wanted;
        uint8_t *trailer = data + at + block - KRD_TRAILER_SIZE;
        libvu::storeBig(data + at, block);
        std::memcpy(data + at + 8, KRD_TAG, 4);
        libvu::storeBig(trailer, static_cast<uint32_t>(crc32(0, data + at, block - KRD_TRAILER_SIZE)));
        libvu::storeBig(trailer + 4, block);
        at += block;
    }
    return size;
}

void fuzz(const uint8_t *data, size_t size)
{
    const Bytes file(data, size);
    try {
        glance(file, "fuzz");
    } catch (const vu::InputError &) {
    }
    try {
        const Recording recording = scan(file, "fuzz");
        uint64_t bytes = recording.damagedBytes + recording.unfinishedBytes + recording.rest.bytes;
        for (const Block &block : recording.blocks)
            bytes += block.size;
        require(bytes == size);
        check(recording);
        if (recording.catalogue)
            for (const Channel &channel : recording.catalogue->channels)
                readChannel(channel, recording.blocksOf(channel.group), recording.catalogue->ticksPerSecond);
        std::vector<uint8_t> whole;
        rewrite(recording, [&whole](Bytes more) { whole.insert(whole.end(), more.begin(), more.end()); });
        require(compareRewritten(recording, scan(whole, "again")).empty());
    } catch (const vu::InputError &) {
    }
}
