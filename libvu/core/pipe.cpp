#include "libvu/core/pipe.h"

#include <cstdlib>
#include <utility>

#include "libvu/core/deliver_private.h"
#include "libvu/core/owned_private.h"
#include "libvu/core/report.h"

namespace {

Pipe *newPipe()
{
    Pipe *pipe = libvu::makeZeroed<Pipe>().release();
    if (!pipe)
        libvuError("Can not allocate memory for pipe");
    return pipe;
}

// A consumer may have lengthened a frame since it came in: the count stops at 0.
void discount(Pipe *pipe, const Frame *frame)
{
    pipe->queued -= frame->length;
    if (pipe->queued < 0)
        pipe->queued = 0;
}

bool holds(const Pipe *pipe, const Frame *wanted)
{
    const Frame *frame = pipe->newest;
    while (frame && frame != wanted)
        frame = frame->next;
    return frame != nullptr;
}

void unlink(Pipe *pipe, Frame *frame)
{
    (frame->prev ? frame->prev->next : pipe->newest) = frame->next;
    (frame->next ? frame->next->prev : pipe->oldest) = frame->prev;
}

// The pipe that each delivery under way is serving. A callback that gets the report of a missing clone may
// detach it: its place then goes to the pipe before, which has been served already. Nobody delivers frames
// within so many callbacks.
class ServedPipes {
public:
    void push(Pipe *pipe) { places_[depth_++ % kDeepest] = pipe; }
    Pipe *pop() { return std::exchange(places_[--depth_ % kDeepest], nullptr); }
    void forget(const Pipe *detached)
    {
        for (Pipe *&place : places_)
            if (place == detached)
                place = detached->prev;
    }

private:
    static constexpr unsigned kDeepest = 8;
    Pipe *places_[kDeepest] = {};
    unsigned depth_ = 0;
};
ServedPipes servedPipes;

} // namespace

PipeList *pipeNewPipeList(void)
{
    return libvu::makeZeroed<PipeList>().release();
}

Pipe *pipeAttachPipe(PipeList *list)
{
    if (!list) {
        libvuError("Pipe list not given");
        return nullptr;
    }
    Pipe *pipe = newPipe();
    if (!pipe) {
        libvuError("Unable to create new pipe");
        return nullptr;
    }
    Pipe *last = list->first;
    while (last && last->next)
        last = last->next;
    pipe->prev = last;
    (last ? last->next : list->first) = pipe;
    return pipe;
}

void pipeDetachPipe(PipeList *list, Pipe *pipe)
{
    if (!list) {
        libvuError("Pipe list not given");
        return;
    }
    if (!pipe) {
        libvuError("Pipe not given");
        return;
    }
    servedPipes.forget(pipe);
    if (list->first == pipe)
        list->first = pipe->next;
    if (pipe->prev)
        pipe->prev->next = pipe->next;
    if (pipe->next)
        pipe->next->prev = pipe->prev;
    pipeFlushFrames(pipe);
    std::free(pipe);
}

void pipeAddFrame(Pipe *pipe, Frame *frame)
{
    if (!pipe) {
        libvuError("Pipe list not given");
        return;
    }
    if (!frame) {
        libvuError("Frame not given");
        return;
    }
    frame->next = pipe->newest;
    frame->prev = nullptr;
    if (pipe->newest)
        pipe->newest->prev = frame;
    else
        pipe->oldest = frame;
    pipe->newest = frame;
    pipe->queued += frame->length;
}

Frame *pipeGetFrame(Pipe *pipe)
{
    if (!pipe) {
        libvuError("Pipe not given");
        return nullptr;
    }
    Frame *frame = pipe->oldest;
    if (!frame)
        return nullptr;
    unlink(pipe, frame);
    discount(pipe, frame);
    return frame;
}

void pipeFlushFrames(Pipe *pipe)
{
    if (!pipe) {
        libvuError("Pipe not given");
        return;
    }
    while (Frame *frame = pipeGetFrame(pipe))
        frameDelete(frame);
}

void pipeRemoveFrame(Pipe *pipe, Frame *frame)
{
    if (!pipe || !frame) {
        libvuError("Paramters 'pipe' and 'frame' must not be NULL");
        return;
    }
    if (!holds(pipe, frame))
        return;
    unlink(pipe, frame);
    discount(pipe, frame);
    frameDelete(frame);
}

int32_t pipeHasFrames(const Pipe *pipe)
{
    if (!pipe) {
        libvuError("Pipe not given");
        return 0;
    }
    return pipe->newest ? 1 : 0;
}

namespace libvu {

namespace {

// Hands a clone to `pipe` and returns the pipe that comes next.
Pipe *deliverClone(const PipeList &list, Pipe *pipe, Frame *frame)
{
    servedPipes.push(pipe);
    pipeAddFrame(pipe, frameClone(frame)); // without a clone it reports that too, and leaves the pipe alone
    const Pipe *const served = servedPipes.pop();
    return served ? served->next : list.first;
}

} // namespace

void deliver(const PipeList &list, Frame *frame)
{
    Pipe *pipe = list.first;
    if (!pipe) {
        frameDelete(frame);
        return;
    }
    if (!pipe->next) {
        pipeAddFrame(pipe, frame);
        return;
    }
    // One reference more until all are served: a callback may detach the first pipe, which deletes its frame.
    // It is one of the root, where a clone's references are counted too, and clones of it are what the others
    // get.
    Frame *root = frame->parent ? frame->parent : frame;
    root->refcount = static_cast<int16_t>(root->refcount + 1);
    pipeAddFrame(pipe, frame);
    pipe = pipe->next;
    while (pipe)
        pipe = deliverClone(list, pipe, root);
    frameDelete(root);
}

} // namespace libvu
