// Samples, messages and entries into host order, by the node's byte_swap. A frame of samples is swapped once,
// when its last samples arrive.
#pragma once

#include <cstring>

#include "libvu/proxy/proxy_node.h"

namespace libvu {

// The node of a stream channel has no byte_swap, but its host may have given it a reader of another kind.
inline void toHost(ProxyNode *node, void *target)
{
    if (node->byte_swap)
        node->byte_swap(node, target);
}

// Adds samples to the frame as they came, in wire order.
inline void appendSamples(Frame &frame, const uint8_t *source, uint32_t count)
{
    std::memcpy(frameTail(&frame), source, size_t{count} * frame.element_size);
    frame.length += count;
}

// appendSamples() and then the node's byte_swap, in one pass over the samples where that is the library's
// own.
void completeFrame(ProxyNode &node, Frame &frame, const uint8_t *source, uint32_t count);

} // namespace libvu
