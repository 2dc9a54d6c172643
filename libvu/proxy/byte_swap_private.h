// A frame that gets its last samples turns from wire order to host order.
#pragma once

#include <cstring>

#include "libvu/proxy/proxy_node.h"

namespace vu {

// Behind the samples that the frame has, in wire order.
inline void appendSamples(Frame &frame, const uint8_t *source, uint32_t count)
{
    std::memcpy(frameTail(&frame), source, size_t{count} * frame.element_size);
    frame.length += count;
}

// appendSamples(), then the node's byte_swap: at once, where that is the library's own.
void completeFrame(ProxyNode &node, Frame &frame, const uint8_t *source, uint32_t count);

} // namespace vu
