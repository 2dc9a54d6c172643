// Readers of periodic channels: bare samples at a fixed rate fill frames of a fixed length.
#include <algorithm>
#include <cstring>
#include <utility>

#include "libvu/core/deliver_private.h"
#include "libvu/core/framing_private.h"
#include "libvu/core/sample_type_private.h"
#include "libvu/proxy/byte_swap_private.h"

namespace {

std::span<const uint8_t> samplesIn(std::span<const uint8_t> body)
{
    return body.size() < libvu::kUnreadBytes ? std::span<const uint8_t>() : body.subspan(libvu::kUnreadBytes);
}

void dropFrame(ProxyNode &node)
{
    frameDelete(node.frame);
    node.frame = nullptr;
}

bool assureFrame(ProxyNode &node)
{
    if (node.frame)
        return true;
    node.frame = frameCreate(node.frame_length, node.element_size, nullptr);
    if (node.frame)
        libvu::stampStart(node.frame, node.sample_count);
    return node.frame != nullptr;
}

// Samples stay in wire order until their frame is full. `finish` then calibrates it and hands it on.
template <typename Finish>
libvu::Event fillFrames(ProxyNode &node, const uint8_t *source, size_t samples, Finish &&finish)
{
    while (samples > 0) {
        if (!assureFrame(node))
            return libvu::Event::leavesEarly;
        Frame *const frame = node.frame;
        const uint32_t room = frameAvailable(frame);
        const auto taken = static_cast<uint32_t>(std::min<size_t>(room, samples));
        const uint8_t *const from = source;
        node.sample_count += taken;
        source += size_t{taken} * node.record_size;
        samples -= taken;
        if (taken < room) {
            libvu::appendSamples(*frame, from, taken);
        } else {
            libvu::completeFrame(node, *frame, from, taken);
            finish(frame);
        }
    }
    return libvu::Event::goesOn;
}

// With many channels, the memory that an event writes to has left the cache since the last event. It is
// fetched while the system call reads from the socket.
void fetchAhead(const ProxyNode &node)
{
    __builtin_prefetch(&node.sample_count, 1);
    __builtin_prefetch(node.pipes.first, 1);
    if (!node.frame)
        return;
    const auto *tail = static_cast<const uint8_t *>(frameTail(node.frame));
    for (size_t line = 0; line < 8; line++)
        __builtin_prefetch(tail + line * 64, 1);
}

// Whether anybody listens is noted before the read, which may call back at the end of the connection.
// Delivery itself goes to the pipes that are there then.
template <typename Finish>
void readSamples(ProxyNode *node, Finish &&finish)
{
    const bool listening = node->pipes.first != nullptr;
    fetchAhead(*node);
    libvu::readRecords(node, [&](std::span<uint8_t> body) {
        const auto bytes = samplesIn(body);
        const size_t samples = bytes.size() / node->record_size;
        if (listening)
            return fillFrames(*node, bytes.data(), samples, finish);
        dropFrame(*node);
        node->sample_count += static_cast<int64_t>(samples);
        return libvu::Event::leavesEarly;
    });
}

void handOn(ProxyNode &node)
{
    libvu::deliver(node.pipes, std::exchange(node.frame, nullptr));
}

double firstSample(const Frame &frame)
{
    switch (libvu::sampleTypeOf(frame.element_size, libvu::SampleType::float64)) {
    case libvu::SampleType::float32: return static_cast<double>(libvu::loadHost<float>(frame.data));
    case libvu::SampleType::float64: return libvu::loadHost<double>(frame.data);
    }
    __builtin_unreachable();
}

} // namespace

void proxyNode_ProxyReaderSequentialNoScaling(ProxyNode *node)
{
    readSamples(node, [&](Frame *) { handOn(*node); });
}

// The kernel is looked up once an event: one that installs another takes effect with the next event.
void proxyNode_ProxyReaderSequentialScaling(ProxyNode *node)
{
    const auto apply = node->apply;
    readSamples(node, [&](Frame *frame) {
        if (apply)
            apply(node, frame);
        handOn(*node);
    });
}

// Every frame that becomes full in the same event as the first one takes its own first sample as the zero.
void proxyNode_ProxyReaderSequentialZeroing(ProxyNode *node)
{
    const auto apply = node->apply;
    readSamples(node, [&](Frame *frame) {
        node->scale = 1.0;
        node->offset = -firstSample(*frame);
        if (apply)
            apply(node, frame);
        handOn(*node);
        node->reader = proxyNode_ProxyReaderSequentialScaling;
    });
}
