#include "libvu/core/frame.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "libvu/core/frame_pool_private.h"
#include "libvu/core/report.h"

namespace {

constexpr size_t kCloneSize = offsetof(Frame, aux_inline);

void retire(Frame *root)
{
    // A host that has given its message frame no `aux` of its own leaves it inside the frame, which free()
    // does not take.
    if (root->is_message && root->aux && root->aux != root->aux_inline)
        std::free(root->aux);
    if (root->pool)
        libvu::pushFrame(*root->pool, root);
    else
        std::free(root);
}

// The new count. It stays stored below 0 too, so that every further deletion is reported as well.
int dropReference(Frame *frame)
{
    frame->refcount = static_cast<int16_t>(frame->refcount - 1);
    return frame->refcount;
}

} // namespace

Frame *frameCreate(uint32_t capacity, uint32_t element_size, void *external)
{
    const size_t payload = external ? 0 : size_t{capacity} * element_size;
    // The product of two 32-bit sizes stays 88 bytes short of overflowing.
    auto *frame = static_cast<Frame *>(std::malloc(sizeof(Frame) + payload));
    if (!frame) {
        libvuError("Can not allocate memory for frame");
        return nullptr;
    }
    *frame = Frame{};
    frame->refcount = 1;
    frame->element_size = element_size;
    frame->capacity = capacity;
    frame->data = external ? external : frame + 1;
    frame->aux = frame->aux_inline;
    return frame;
}

Frame *frameCreateMessage(void *external, uint32_t capacity)
{
    Frame *frame = frameCreate(capacity, 1, external);
    if (frame)
        frame->is_message = 1;
    return frame;
}

Frame *frameClone(Frame *frame)
{
    if (!frame) {
        libvuError("Unable to clone frame:  argument required");
        return nullptr;
    }
    Frame *root = frame;
    while (root->parent)
        root = root->parent;
    auto *clone = static_cast<Frame *>(std::malloc(kCloneSize));
    if (!clone) {
        libvuError("Can not allocate memory for clone");
        return nullptr;
    }
    std::memcpy(static_cast<void *>(clone), root, kCloneSize);
    clone->parent = root;
    clone->refcount = 1;
    root->refcount = static_cast<int16_t>(root->refcount + 1);
    return clone;
}

void frameDelete(Frame *frame)
{
    if (!frame)
        return;
    const int references = dropReference(frame);
    if (!frame->parent) {
        if (references < 0)
            libvuError("Root frame deleted too many times");
        else if (references == 0)
            retire(frame);
        return;
    }
    if (references < 0) {
        libvuError("Cloned frame deleted too many times");
        return;
    }
    frameDelete(frame->parent);
    if (references == 0)
        std::free(frame);
}

int32_t frameBufsize(double sample_rate, double pipe_rate)
{
    const double elements = std::floor(sample_rate / pipe_rate);
    if (!std::isfinite(elements) || elements < 1.0)
        return 1;
    constexpr int32_t kMost = std::numeric_limits<int32_t>::max();
    return elements >= kMost ? kMost : static_cast<int32_t>(elements);
}

uint32_t frameLength(const Frame *frame)
{
    return frame->length;
}

uint32_t frameAvailable(const Frame *frame)
{
    return frame->capacity - frame->length;
}

void *frameTail(const Frame *frame)
{
    auto *const payload = static_cast<uint8_t *>(frame->data);
    return payload + size_t{frame->element_size} * frame->length;
}
