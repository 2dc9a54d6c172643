// Arbitrary bytes on a channel's connection, in pieces of arbitrary size. The first byte picks the width, the
// second the pieces. Besides the sanitizers' checks: the channel counts and delivers the samples that a plain
// walk over the bytes finds.
#include <algorithm>
#include <vector>

#include "fuzz/host.h"
#include "libvu/core/wire_private.h"

using Samples = std::vector<uint8_t>;

// The bytes of the samples in host order.
static Samples walk(std::span<const uint8_t> bytes, size_t width)
{
    Samples samples;
    if (bytes.size() < 2 || bytes[0] + bytes[1] != 0xFE + 0xED || (bytes[0] != 0xFE && bytes[0] != 0xED))
        return samples;
    const size_t reversed = bytes[0] == 0xFE ? width - 1 : 0;
    for (libvu::WireReader wire(bytes.subspan(2)); wire.remaining() >= 4;) {
        const uint32_t length = wire.u32be();
        const auto body = wire.bytes(length);
        for (size_t at = 8; wire.ok() && at + width <= length; at += width)
            for (size_t i = 0; i < width; i++)
                samples.push_back(body[at + (i ^ reversed)]); // widths are powers of two
    }
    return samples;
}

void fuzz(const uint8_t *data, size_t size)
{
    if (size < 2)
        return;
    std::span<const uint8_t> bytes(data + 2, std::min<size_t>(size - 2, 50'000));
    FuzzNode node(R"({"name":"f","connector":"c","sample_rate":70,"data_type":"sequential_float)" +
                  std::string(data[0] % 2 ? "64\"}" : "32\"}"));
    Pipe *const pipe = node.listen();
    const auto expected = walk(bytes, node->element_size);
    // The marker comes in one piece, or the walk would have to know the pieces.
    for (size_t piece = 2; !bytes.empty(); piece = 1 + (piece * data[1]) % 4093) {
        const auto now = bytes.first(std::min(piece, bytes.size()));
        bytes = bytes.subspan(now.size());
        require(send(node.far, now.data(), now.size(), 0) == ssize_t(now.size()));
        for (size_t events = 0; events < 2 * now.size() + 2; events++)
            node->reader(node.node);
    }
    Samples got;
    while (Frame *frame = pipeGetFrame(pipe)) {
        const auto *samples = static_cast<const uint8_t *>(frame->data);
        got.insert(got.end(), samples, samples + size_t{frame->length} * frame->element_size);
        frameDelete(frame);
    }
    // What waits for the rest of its frame is still as the wire brought it.
    const size_t waiting = node->frame ? node->frame->length * node->element_size : 0;
    require(size_t(node->sample_count) * node->element_size == expected.size() &&
            got.size() + waiting == expected.size() && std::equal(got.begin(), got.end(), expected.begin()));
}
