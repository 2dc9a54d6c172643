#include "libvu/time/sequentializer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "libvu/core/deliver_private.h"
#include "libvu/core/owned_private.h"
#include "libvu/core/report.h"
#include "libvu/core/wire_private.h"
#include "libvu/time/sample_clock_private.h"
#include "libvu/time/sequentializer_private.h"

namespace {

constexpr double kHighestPipeRate = 1e6;
constexpr double kPoolSeconds = 5.0;
using libvu::kWholeNumbers;

bool isUsablePipeRate(double rate)
{
    return rate > 0.0 && rate <= kHighestPipeRate;
}

// Every other size makes a stream of floats: its frames hold these, whatever the caller said.
bool holdsDoubles(const Sequentializer &seq)
{
    return seq.element_size == sizeof(double);
}

// Puts up to `count` new frames on the pool; tells how many it got.
int64_t growPool(Sequentializer &seq, int64_t count)
{
    for (int64_t made = 0; made < count; made++) {
        Frame *frame = frameCreate(static_cast<uint32_t>(seq.frame_samples),
                                   holdsDoubles(seq) ? sizeof(double) : sizeof(float), nullptr);
        if (!frame)
            return made;
        // The head is read after the frame is made: a report of the making may have brought frames back.
        frame->pool = &seq.free_frames;
        frame->next = seq.free_frames;
        if (seq.free_frames)
            seq.free_frames->prev = frame;
        seq.free_frames = frame;
    }
    return count;
}

Frame *popPool(Sequentializer &seq)
{
    Frame *frame = seq.free_frames;
    seq.free_frames = frame->next;
    if (seq.free_frames)
        seq.free_frames->prev = nullptr;
    return frame;
}

// Makes a pool frame with room for samples the current one, or leaves none and reports it.
void takeFrame(Sequentializer &seq)
{
    if (!seq.free_frames)
        growPool(seq, libvu::saturated<int64_t>(seq.pipe_rate));
    if (!seq.free_frames) {
        libvuError("Unable to add frames to sequentializer");
        libvuError("Unable to get frame for channel");
        return;
    }
    Frame *frame = popPool(seq);
    frame->next = frame->prev = frame->parent = nullptr;
    frame->refcount = 1;
    frame->length = 0;
    frame->is_message = 0;
    frame->reserved = 0;
    frame->aux[0] = 0;
    libvu::stampStart(frame, seq.sample_count);
    seq.current_frame = frame;
}

void handOn(Sequentializer &seq)
{
    Frame *frame = seq.current_frame;
    if (!seq.pipes || !seq.pipes->first) {
        frame->length = 0; // nobody listens: the samples go, the frame and its start stay
        return;
    }
    seq.current_frame = nullptr;
    libvu::deliver(*seq.pipes, frame);
}

void expire(Sequentializer &seq)
{
    if (seq.expiry_tick < seq.clock->current_tick)
        seq.value = seq.invalid_value;
}

// The payload of a pool's frame lies behind its header; not asking `data` spares a cache line.
template <typename Sample>
Sample *tail(Frame *frame)
{
    return reinterpret_cast<Sample *>(frame + 1) + frame->length;
}

template <typename Sample>
void store(Frame *frame, double value)
{
    *tail<Sample>(frame) = static_cast<Sample>(value);
}

// Fills a run of samples at a period of whole ticks. `limit` is the first tick that need not be passed.
template <typename Sample>
uint32_t fillRun(Sequentializer &seq, Sample *out, uint32_t room, int64_t limit)
{
    SampleClock &clock = *seq.clock;
    const auto period = static_cast<int64_t>(clock.whole_ticks);
    const int64_t passed = (limit - clock.current_tick + period - 1) / period;
    const auto count = static_cast<uint32_t>(std::min<int64_t>(passed, room));
    const int64_t life =
        (seq.expiry_tick - clock.current_tick) / period; // toward zero: void already if negative
    const auto live = static_cast<uint32_t>(std::clamp<int64_t>(life, 0, count));
    std::fill_n(out, live, static_cast<Sample>(seq.value));
    if (live < count) {
        seq.value = seq.invalid_value;
        std::fill_n(out + live, count - live, static_cast<Sample>(seq.value));
    }
    clock.current_tick += count * period;
    clock.next_tick += count * period;
    return count;
}

// The same sample by sample, at any period.
template <typename Sample>
uint32_t fillSteps(Sequentializer &seq, Sample *out, uint32_t room, int64_t limit)
{
    libvu::WholeClock clock(*seq.clock);
    auto sample = static_cast<Sample>(seq.value);
    bool expired = false;
    uint32_t count = 0;
    while (clock.current < limit && count < room) {
        clock.tick();
        if (seq.expiry_tick < clock.current && !expired) {
            expired = true;
            sample = static_cast<Sample>(seq.invalid_value);
        }
        out[count++] = sample;
    }
    if (expired)
        seq.value = seq.invalid_value;
    return count;
}

// One step of a clock that WholeClock would serve too: in place, with most of its fields left alone.
template <typename Sample>
void stepOnce(Sequentializer &seq, SampleClock &clock, Frame *frame)
{
    const int64_t current = clock.next_tick;
    int64_t next = current + static_cast<int64_t>(clock.whole_ticks);
    if (clock.remainder_per_sample != 0.0) {
        clock.remainder_accumulator += clock.remainder_per_sample;
        if (clock.remainder_accumulator > clock.half_numerator) {
            next += 1;
            clock.remainder_accumulator -= clock.rate_numerator;
        }
    }
    clock.current_tick = current;
    clock.next_tick = next;
    if (seq.expiry_tick < current)
        seq.value = seq.invalid_value;
    store<Sample>(frame, seq.value);
    frame->length++;
    seq.sample_count++;
}

template <typename Sample>
uint32_t fill(Sequentializer &seq, Frame *frame, int64_t limit)
{
    const SampleClock &clock = *seq.clock;
    Sample *out = tail<Sample>(frame);
    const uint32_t room = frame->capacity - frame->length;
    constexpr int64_t kFewPeriods = 8; // below that two divisions cost more than they save
    const auto period = static_cast<int64_t>(clock.whole_ticks);
    const bool run = clock.remainder_per_sample == 0.0 && period > 0 &&
                     clock.next_tick - clock.current_tick == period &&
                     limit - clock.current_tick > period * kFewPeriods;
    // Only the difference to an expiry that lies in the whole numbers too is sure not to overflow.
    if (run && seq.expiry_tick > -kWholeNumbers)
        return fillRun(seq, out, room, limit);
    return fillSteps(seq, out, room, limit);
}

// A sample without a frame is lost and still counted, so that later frames keep their true start.
void loseSample(Sequentializer &seq)
{
    libvu::tick(*seq.clock);
    expire(seq);
    seq.sample_count++;
}

// Up to `limit` in whole numbers.
template <typename Sample>
[[gnu::noinline]] void advanceWhole(Sequentializer &seq, int64_t limit)
{
    while (seq.clock->current_tick < limit) {
        if (!seq.current_frame)
            takeFrame(seq);
        Frame *frame = seq.current_frame;
        if (!frame) {
            loseSample(seq);
            continue;
        }
        const uint32_t written = fill<Sample>(seq, frame, limit);
        frame->length += written;
        seq.sample_count += written;
        if (frame->length == frame->capacity)
            handOn(seq);
    }
}

// Years ahead, or at periods of years, where a step is rounded to a double.
template <typename Sample>
[[gnu::noinline]] void advanceFar(Sequentializer &seq, double target)
{
    while (target > static_cast<double>(seq.clock->current_tick)) {
        if (!seq.current_frame)
            takeFrame(seq);
        Frame *frame = seq.current_frame;
        loseSample(seq);
        if (!frame)
            continue;
        store<Sample>(frame, seq.value);
        if (++frame->length == frame->capacity)
            handOn(seq);
    }
}

template <typename Sample>
void advanceBy(Sequentializer &seq, int64_t target)
{
    SampleClock &clock = *seq.clock;
    Frame *frame = seq.current_frame;
    if (!libvu::WholeClock::steps(clock))
        advanceFar<Sample>(seq, static_cast<double>(target));
    // The usual call: a value about once a sample, and a frame that does not become full by it.
    else if (frame && target <= clock.next_tick && frame->length + 1 < frame->capacity)
        stepOnce<Sample>(seq, clock, frame);
    else
        advanceWhole<Sample>(seq, target);
}

} // namespace

Sequentializer *createSequentializer(uint32_t element_size, double pipe_rate, double sample_rate,
                                     double stale_seconds, double invalid_value)
{
    auto seq = libvu::makeZeroedAtLine<Sequentializer>();
    if (!seq) {
        libvuError("Unable to allocate memory for sequentializer object");
        return nullptr;
    }
    if (!isUsablePipeRate(pipe_rate)) {
        libvuError("Invalid pipe rate: %g", pipe_rate);
        return nullptr;
    }
    seq->clock = sampleClockCreate(sample_rate);
    if (!seq->clock)
        return nullptr;
    seq->pipe_rate = pipe_rate;
    seq->frame_samples = frameBufsize(sample_rate, pipe_rate);
    seq->element_size = element_size;
    seq->half_period_ticks =
        libvu::saturated<int64_t>(std::floor(seq->clock->ticks_per_second / sample_rate * 0.5));
    const double life = std::floor(stale_seconds * seq->clock->ticks_per_second);
    seq->stale_ticks = libvu::subtractSaturated(libvu::saturated<int64_t>(life), 1);
    seq->invalid_value = invalid_value;
    seq->value = invalid_value;
    growPool(*seq, libvu::saturated<int64_t>(pipe_rate * kPoolSeconds));
    return seq.release();
}

void libvu::advanceTo(Sequentializer &seq, int64_t target)
{
    if (holdsDoubles(seq))
        advanceBy<double>(seq, target);
    else
        advanceBy<float>(seq, target);
}

void libvu::advance(Sequentializer &seq, double time)
{
    constexpr double kLastTick = 0x1p63; // the clock stops here: a later target would never be reached
    if (!std::isfinite(time))
        return;
    const double target = std::min(time - static_cast<double>(seq.half_period_ticks), kLastTick);
    const auto passed = saturated<int64_t>(target);
    if (target < 0.0 || target >= static_cast<double>(kWholeNumbers)) {
        if (holdsDoubles(seq))
            advanceFar<double>(seq, target);
        else
            advanceFar<float>(seq, target);
    } else {
        const int64_t limit = passed + (static_cast<double>(passed) < target ? 1 : 0);
        if (seq.clock->current_tick < limit)
            advanceTo(seq, limit);
    }
    seq.last_target = passed;
}

void libvu::takeValue(Sequentializer &seq, double time, double value)
{
    advance(seq, time);
    seq.value = value;
    seq.expiry_tick = addSaturated(seq.clock->next_tick, seq.stale_ticks);
}

void sequentialize(Sequentializer *seq, double time)
{
    libvu::advance(*seq, time);
}

void sequentialize_value(Sequentializer *seq, double time, double value)
{
    libvu::takeValue(*seq, time, value);
}

void destroySequentializer(Sequentializer *seq)
{
    std::free(seq);
}
