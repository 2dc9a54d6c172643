#include "vu/krdfile/rewrite.h"

#include <algorithm>
#include <fmt/format.h>
#include <zlib.h>

#include "libvu/core/wire_format.h"
#include "libvu/datafile/krd_format.h"
#include "vu/krdfile/check.h"
#include "vu/krdfile/mend.h"

namespace vu::krd {

namespace {

constexpr size_t kEntriesPerIndexBlock = 4096;

// Channels that nothing is known of, one for each group that has blocks.
Catalogue inventedCatalogue(const Recording &damaged)
{
    const auto ledger = ledgerByGroup(damaged.closing);
    Catalogue catalogue;
    catalogue.ticksPerSecond = VU_TICKS_PER_SECOND;
    for (const auto &[group, blocks] : damaged.groups) {
        if (group < KRD_GROUP_FIRST_CHANNEL)
            continue;
        Channel channel;
        channel.group = group;
        const auto line = ledger.find(group);
        channel.name = line == ledger.end() ? fmt::format("group_{}", group) : line->second->name;
        channel.kindName = channel.elementName = "unknown";
        channel.encodingName = "plain";
        catalogue.channels.push_back(std::move(channel));
    }
    return catalogue;
}

// What is discarded and stored, added up; nothing beyond 2^64.
std::optional<uint64_t> receivedOf(const LedgerEntry &entry)
{
    uint64_t sum = entry.stored;
    for (const auto &[cause, count] : entry.discarded)
        if (__builtin_add_overflow(sum, count, &sum))
            return std::nullopt;
    return sum;
}

// The ledger of what is left: what the old one called stored and nobody can find is discarded by damage. If
// the old one is lost too, only the gaps between sample numbers show what is missing.
LedgerEntry ledgerOf(const ChannelCheck &found, const LedgerEntry *old)
{
    LedgerEntry entry = old ? *old : LedgerEntry();
    entry.group = found.group;
    entry.name = found.name;
    entry.stored = found.elements;
    if (!receivedOf(entry)) // sums that no 64 bits hold are no account of anything
        entry.discarded.clear();
    uint64_t lost = old && old->stored > found.elements ? old->stored - found.elements : 0;
    const uint64_t explained = receivedOf(entry).value_or(0) - entry.stored;
    if (found.gaps > explained)
        lost = std::max(lost, found.gaps - explained);
    if (lost > 0) {
        const LedgerEntry before = entry;
        entry.discarded["damage"] += lost;
        if (!receivedOf(entry))
            entry = before;
    }
    entry.received = receivedOf(entry).value_or(0);
    return entry;
}

class Rewriter {
public:
    Rewriter(const Recording &damaged, const ByteSink &sink)
        : mended_(mend(damaged)), damaged_(mended_.recording), sink_(sink), window_(*damaged.file),
          invented_(!damaged.catalogue)
    {
        if (invented_)
            damaged_.catalogue = inventedCatalogue(damaged);
    }

    void run();

private:
    void catalogueBlock();
    void indexBlocks();
    void closingBlock();
    void put(uint32_t group, const std::string &payload);
    void copy(Bytes bytes)
    {
        sink_(bytes);
        offset_ += bytes.size();
    }

    void copy(const Block &block)
    {
        forEachPiece(window_, block.offset, block.size, [this](Bytes piece) { copy(piece); });
    }

    Mended mended_;
    Recording &damaged_; // the mended one, with a catalogue, whatever it was found with
    const ByteSink &sink_;
    Window window_;
    BlockReader reader_;
    bool invented_;
    uint64_t offset_ = 0; // in the new file
    std::vector<std::pair<uint64_t, uint32_t>> entries_;
    std::vector<uint64_t> index_blocks_; // of the new file
    Closing closing_;
};

void appendBig(std::string &to, uint64_t value, int bytes)
{
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        to += static_cast<char>(value >> shift & 0xFF);
}

Bytes asBytes(const std::string &text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

void Rewriter::put(uint32_t group, const std::string &payload)
{
    std::string block;
    appendBig(block, payload.size() + KRD_FRAMING_SIZE, 4);
    appendBig(block, group, 4);
    block += KRD_TAG;
    block += payload;
    const uLong checksum = crc32_z(crc32_z(0, nullptr, 0), asBytes(block).data(), block.size());
    appendBig(block, checksum, 4);
    appendBig(block, payload.size() + KRD_FRAMING_SIZE, 4);
    copy(asBytes(block));
}

void Rewriter::catalogueBlock()
{
    if (invented_ || damaged_.catalogueIsCopy)
        put(KRD_GROUP_CATALOGUE, toText(toJson(*damaged_.catalogue)));
    else
        copy(damaged_.blocks.front());
}

void Rewriter::indexBlocks()
{
    for (size_t from = 0; from < entries_.size(); from += kEntriesPerIndexBlock) {
        std::string payload;
        for (size_t i = from; i < std::min(from + kEntriesPerIndexBlock, entries_.size()); ++i) {
            appendBig(payload, entries_[i].first, 8);
            appendBig(payload, entries_[i].second, 4);
        }
        index_blocks_.push_back(offset_);
        put(KRD_GROUP_INDEX, payload);
    }
}

void Rewriter::closingBlock()
{
    const auto &old = damaged_.closing;
    const auto ledger = ledgerByGroup(old);
    if (old) {
        closing_ = *old;
        closing_.ledger.clear();
    } else {
        closing_.end = "unknown";
    }
    closing_.indexBlocks = index_blocks_;
    for (const ChannelCheck &channel : check(damaged_).channels) {
        const auto line = ledger.find(channel.group);
        const LedgerEntry *entry = line == ledger.end() ? nullptr : line->second;
        // The elements of invented channels cannot be counted: what the old ledger says of them is kept.
        closing_.ledger.push_back(invented_ && entry ? *entry : ledgerOf(channel, entry));
    }
    if (old) // what was not stored is in no block
        std::ranges::copy_if(old->ledger, std::back_inserter(closing_.ledger),
                             [](const LedgerEntry &entry) { return entry.group == 0; });
    closing_.events.push_back(
        {{"time", closing_.seconds},
         {"kind", "recovered"},
         {"channel", ""},
         {"text",
          fmt::format("{} bytes were damaged in {} places, {} of an unfinished block, {} blocks left out",
                      damaged_.damagedBytes, damaged_.damage.size(), damaged_.unfinishedBytes,
                      mended_.left_out)}});
    put(KRD_GROUP_CATALOGUE, toText(toJson(closing_)));
}

void Rewriter::run()
{
    catalogueBlock();
    for (const Block &block : damaged_.blocks) {
        if (block.group >= KRD_GROUP_FIRST_CHANNEL)
            entries_.emplace_back(offset_, block.group);
        else if (block.group != KRD_GROUP_CATALOGUE ||
                 headKind(reader_.payload(block)) != HeadKind::kAttachment)
            continue; // written anew
        copy(block);
    }
    indexBlocks();
    closingBlock();
}

} // namespace

void rewrite(const Recording &damaged, const ByteSink &sink)
{
    Rewriter(damaged, sink).run();
}

std::string compareRewritten(const Recording &damaged, const Recording &rewritten)
{
    if (rewritten.damagedBytes + rewritten.unfinishedBytes + rewritten.rest.bytes > 0 || !rewritten.closing ||
        !rewritten.catalogue)
        return "the new file is not complete";
    const auto ofChannels = [](const Recording &recording) {
        std::vector<Block> blocks;
        std::ranges::copy_if(recording.blocks, std::back_inserter(blocks),
                             [](const Block &block) { return block.group >= KRD_GROUP_FIRST_CHANNEL; });
        return blocks;
    };
    if (!std::ranges::equal(ofChannels(mend(damaged).recording), ofChannels(rewritten), sameBytes))
        return "the new file does not hold the blocks of the old one";
    return {};
}

} // namespace vu::krd
