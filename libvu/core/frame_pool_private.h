// A pool of frames: a free list through `next` and `prev`, whose head its owner keeps.
#pragma once

#include "libvu/core/frame.h"

namespace libvu {

// The payload stays as it is: whoever takes the frame out again only resets its header.
inline void pushFrame(Frame *&head, Frame *frame)
{
    frame->prev = nullptr;
    frame->next = head;
    if (head)
        head->prev = frame;
    head = frame;
}

// The frame put in last, unlinked; null if the pool is empty.
inline Frame *popFrame(Frame *&head)
{
    Frame *frame = head;
    if (!frame)
        return nullptr;
    head = frame->next;
    if (head)
        head->prev = nullptr;
    frame->next = frame->prev = nullptr;
    return frame;
}

} // namespace libvu
