// Wire order to host order.
#include "libvu/proxy/kernels_private.h"
#include "libvu/proxy/proxy_node.h"

namespace {

constexpr size_t kValueOffset = 8; // of a message entry: its timestamp stands before

template <typename Word>
void swapSamples(void *target)
{
    auto *frame = static_cast<Frame *>(target);
    static const auto swap = vu::hasAvx2() ? vu::swapAvx2<Word> : vu::swapPlain<Word>;
    swap(frame->data, frame->length);
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
    vu::toHostInPlace<uint32_t>(static_cast<uint8_t *>(entry) + kValueOffset);
}

void proxyNode_swapDoubleValue(ProxyNode *, void *entry)
{
    vu::toHostInPlace<uint64_t>(static_cast<uint8_t *>(entry) + kValueOffset);
}

void proxyNode_swapNone(ProxyNode *, void *) {}
