// Wire order to host order.
#include "libvu/proxy/byte_swap_private.h"
#include "libvu/proxy/kernels_private.h"
#include "libvu/proxy/proxy_node.h"

namespace {

template <typename Word>
void swap(uint8_t *to, const uint8_t *from, size_t count)
{
    static const auto kernel =
        libvu::fastest(libvu::swapPlain<Word>, libvu::swapAvx2<Word>, libvu::swapAvx512<Word>);
    kernel(to, from, count);
}

template <typename Word>
void swapSamples(void *target)
{
    const auto *frame = static_cast<const Frame *>(target);
    auto *const data = static_cast<uint8_t *>(frame->data);
    swap<Word>(data, data, frame->length);
}

// Swaps the samples in place that the frame holds already, and the new ones while they are copied.
template <typename Word>
void completeSwapped(Frame &frame, const uint8_t *source, uint32_t count)
{
    swapSamples<Word>(&frame);
    swap<Word>(static_cast<uint8_t *>(frameTail(&frame)), source, count);
    frame.length += count;
}

} // namespace

void proxyNode_swapFloatSamples(ProxyNode *, void *frame)
{
    swapSamples<uint32_t>(frame);
}

void proxyNode_swapDoubleSamples(ProxyNode *, void *frame)
{
    swapSamples<uint64_t>(frame);
}

void proxyNode_swapFloatValue(ProxyNode *, void *entry)
{
    libvu::toHostInPlace<uint32_t>(static_cast<uint8_t *>(entry) + libvu::kTimeBytes);
}

void proxyNode_swapDoubleValue(ProxyNode *, void *entry)
{
    libvu::toHostInPlace<uint64_t>(static_cast<uint8_t *>(entry) + libvu::kTimeBytes);
}

void proxyNode_swapNone(ProxyNode *, void *) {}

void libvu::completeFrame(ProxyNode &node, Frame &frame, const uint8_t *source, uint32_t count)
{
    if (node.byte_swap == proxyNode_swapFloatSamples && frame.element_size == sizeof(uint32_t)) {
        completeSwapped<uint32_t>(frame, source, count);
        return;
    }
    if (node.byte_swap == proxyNode_swapDoubleSamples && frame.element_size == sizeof(uint64_t)) {
        completeSwapped<uint64_t>(frame, source, count);
        return;
    }
    appendSamples(frame, source, count);
    toHost(&node, &frame);
}
