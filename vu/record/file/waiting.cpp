#include "vu/record/file/waiting.h"

#include <chrono>

#include "vu/record/file/data_file.h"

namespace vu {

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kAllocation = 16; // bytes that the heap adds to each

uint64_t memoryOf(const Frame &frame)
{
    return sizeof(Frame) + kAllocation + uint64_t{frame.capacity} * frame.element_size;
}

} // namespace

uint64_t Waiting::look(const Pipe &pipe)
{
    for (const Frame *frame = pipe.newest; frame && frame != newest_; frame = frame->next)
        bytes_ += memoryOf(*frame);
    newest_ = pipe.newest;
    return bytes_;
}

void Waiting::emptied()
{
    newest_ = nullptr;
    bytes_ = 0;
}

void DataFile::beginFlush(Events &events)
{
    due_ = 0;
    lookAfter(events);
}

// Counts what waits. Beyond the budget of all tracks nothing waits any longer.
void DataFile::lookAtWaiting(Events &events)
{
    uint64_t all = 0;
    full_ = false;
    for (Stored &stored : tracks_) {
        if (!stored.record)
            continue;
        const uint64_t bytes = stored.waiting.look(*stored.record->pipe);
        all += bytes;
        full_ = full_ || bytes >= limits_.track;
    }
    for (size_t i = 0; all > limits_.budget && i < tracks_.size(); i++) {
        Stored &stored = tracks_[next_full_++ % tracks_.size()];
        all -= stored.waiting.bytes();
        if (stored.record)
            flushNoted(stored, false, events);
    }
}

bool DataFile::flushPortion(double seconds, Events &events)
{
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    for (size_t i = 0; full_ && i < tracks_.size(); i++) {
        Stored &stored = tracks_[next_full_++ % tracks_.size()];
        if (!stored.record || stored.waiting.bytes() < limits_.track)
            continue;
        flushNoted(stored, false, events);
        if (Clock::now() >= end)
            return true;
    }
    full_ = false;
    for (; due_ < tracks_.size(); due_++) {
        Stored &stored = tracks_[due_];
        if (!stored.record || !stored.record->pipe->oldest)
            continue;
        if (Clock::now() >= end)
            return true;
        flushNoted(stored, false, events);
    }
    return false;
}

} // namespace vu
