#include "libvu/core/framing_private.h"
#include "libvu/proxy/proxy_node.h"

const char *libvu::brokenNodeRule(const ProxyNode &node)
{
    const Membuf &in = node.inbuf;
    if (in.size > in.capacity || (in.capacity > 0 && !in.buf))
        return "the bytes in use lie within the buffer";
    if (node.parse_pos > in.size || node.read_count > in.size)
        return "what is parsed or was read last lies within the bytes in use";
    if (node.read_count == 0 && node.parse_pos != 0)
        return "records before the parse position are gone once the last read is used up";
    if (node.clock.current_tick > node.clock.next_tick)
        return "the clock's next tick is no earlier than its current one";
    const Frame *frame = node.frame;
    if (!frame)
        return nullptr;
    if (frame->capacity != node.frame_length || frame->length >= frame->capacity)
        return "the frame in hand has the node's length and is not full";
    if (frame->refcount != 1)
        return "nobody else holds the frame in hand";
    if (frame->start + frame->length != node.sample_count)
        return "the frame in hand ends with the sample counted last";
    return nullptr;
}
