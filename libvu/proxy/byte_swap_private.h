// From wire order to host order, as a node's byte_swap has it: a frame of samples at once with its last ones,
// a message or an entry by itself.
#pragma once

#include <cstring>

#include "libvu/proxy/proxy_node.h"

namespace libvu {

// A stream channel's node has no byte_swap, and a host may give it a reader of another kind.
inline void toHost(ProxyNode *node, void *target)
{
    if (node->byte_swap)
        node->byte_swap(node, target);
}

// Behind the samples that the frame has, in wire order.
inline void appendSamples(Frame &frame, const uint8_t *source, uint32_t count)
{
    std::memcpy(frameTail(&frame), source, size_t{count} * frame.element_size);
    frame.length += count;
}

// appendSamples(), then the node's byte_swap: at once, where that is the library's own.
void completeFrame(ProxyNode &node, Frame &frame, const uint8_t *source, uint32_t count);

} // namespace libvu
