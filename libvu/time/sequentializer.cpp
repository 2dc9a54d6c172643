#include "libvu/time/sequentializer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "libvu/core/deliver_private.h"
#include "libvu/core/frame_pool_private.h"
#include "libvu/core/owned_private.h"
#include "libvu/core/report.h"
#include "libvu/core/sample_type_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/time/sample_clock_private.h"
#include "libvu/time/sequentializer_private.h"

namespace {

constexpr double kHighestPipeRate = 1e6;
constexpr double kPoolSeconds = 5.0;
using libvu::kWholeNumbers;
using libvu::SampleType;

bool isUsablePipeRate(double rate)
{
    return rate > 0.0 && rate <= kHighestPipeRate;
}

// Any size but that of a double makes a stream of floats.
SampleType typeOf(const Sequentializer &seq)
{
    return libvu::sampleTypeOf(seq.element_size, SampleType::float32);
}

// Samples then lie as close as in an array, which most of this file relies on.
bool holdsPlainSamples(const Sequentializer &seq)
{
    return seq.element_size == libvu::sizeOf(typeOf(seq));
}

// Elements of the size that was asked for. One that is too small for a sample still gets the room of one,
// since the last sample is written whole.
Frame *makeFrame(const Sequentializer &seq)
{
    const uint32_t room = std::max(seq.element_size, libvu::sizeOf(typeOf(seq)));
    Frame *frame = frameCreate(static_cast<uint32_t>(seq.frame_samples), room, nullptr);
    if (frame)
        frame->element_size = seq.element_size;
    return frame;
}

// Puts up to `count` new frames on the pool. Each is made before the head is read: its report may bring
// frames back.
void growPool(Sequentializer &seq, int64_t count)
{
    for (int64_t made = 0; made < count; made++) {
        Frame *frame = makeFrame(seq);
        if (!frame)
            return;
        frame->pool = &seq.free_frames;
        libvu::pushFrame(seq.free_frames, frame);
    }
}

// Makes a frame of the pool the current one, or leaves none and reports it.
void takeFrame(Sequentializer &seq)
{
    if (!seq.free_frames)
        growPool(seq, libvu::saturated<int64_t>(seq.pipe_rate));
    Frame *frame = libvu::popFrame(seq.free_frames);
    if (!frame) {
        libvuError("Unable to add frames to sequentializer");
        libvuError("Unable to get frame for channel");
        return;
    }
    frame->parent = nullptr;
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

// The payload of a pool's frame follows its header; not asking `data` spares a cache line.
template <typename Sample>
Sample *tail(Frame *frame)
{
    return reinterpret_cast<Sample *>(frame + 1) + frame->length;
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
    libvu::RegisterClock clock(*seq.clock);
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

// One sample into a frame that it does not fill, with the clock stepped in place.
template <typename Sample>
void writeInPlace(Sequentializer &seq, SampleClock &clock, Frame *frame)
{
    libvu::stepWhole(clock, static_cast<int64_t>(clock.whole_ticks), clock.current_tick, clock.next_tick,
                     clock.remainder_accumulator);
    if (seq.expiry_tick < clock.current_tick)
        seq.value = seq.invalid_value;
    *tail<Sample>(frame) = static_cast<Sample>(seq.value);
    frame->length++;
    seq.sample_count++;
}

// One sample, whatever its size and wherever the clock is. The clock and the value move before a frame is
// taken, whose failure is reported. A sample without a frame is lost and still counted: later frames keep
// their true start.
template <typename Sample>
void writeOne(Sequentializer &seq)
{
    libvu::tick(*seq.clock);
    if (seq.expiry_tick < seq.clock->current_tick)
        seq.value = seq.invalid_value;
    if (!seq.current_frame)
        takeFrame(seq);
    Frame *const frame = seq.current_frame;
    if (frame) {
        libvu::storeHost(frameTail(frame), static_cast<Sample>(seq.value));
        frame->length++;
    }
    seq.sample_count++;
    if (frame && frame->length == frame->capacity)
        handOn(seq);
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

// Up to `limit` in whole numbers.
template <typename Sample>
[[gnu::noinline]] void advanceWhole(Sequentializer &seq, int64_t limit)
{
    while (seq.clock->current_tick < limit) {
        Frame *frame = seq.current_frame;
        if (!frame) {
            writeOne<Sample>(seq);
            continue;
        }
        const uint32_t written = fill<Sample>(seq, frame, limit);
        frame->length += written;
        seq.sample_count += written;
        if (frame->length == frame->capacity)
            handOn(seq);
    }
}

// Years ahead, or at periods of years, where a step is rounded to a double; and samples of odd sizes.
template <typename Sample>
[[gnu::noinline]] void advanceOneByOne(Sequentializer &seq, double target)
{
    while (target > static_cast<double>(seq.clock->current_tick))
        writeOne<Sample>(seq);
}

template <typename Sample>
void advanceBy(Sequentializer &seq, int64_t target)
{
    SampleClock &clock = *seq.clock;
    Frame *frame = seq.current_frame;
    if (!libvu::stepsInWholeNumbers(clock) || !holdsPlainSamples(seq))
        advanceOneByOne<Sample>(seq, static_cast<double>(target));
    // The usual call: a value about once a sample, and a frame that does not become full by it.
    else if (frame && target <= clock.next_tick && frame->length + 1 < frame->capacity)
        writeInPlace<Sample>(seq, clock, frame);
    else
        advanceWhole<Sample>(seq, target);
}

void advanceFar(Sequentializer &seq, double target)
{
    switch (typeOf(seq)) {
    case SampleType::float32: return advanceOneByOne<float>(seq, target);
    case SampleType::float64: return advanceOneByOne<double>(seq, target);
    }
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
    switch (typeOf(seq)) {
    case SampleType::float32: return advanceBy<float>(seq, target);
    case SampleType::float64: return advanceBy<double>(seq, target);
    }
}

void libvu::advance(Sequentializer &seq, double time)
{
    const StreamCheck check(seq);
    constexpr double kLastTick = 0x1p63; // the clock stops here: a later target would never be reached
    if (!std::isfinite(time))
        return;
    const double target = std::min(time - static_cast<double>(seq.half_period_ticks), kLastTick);
    const auto passed = saturated<int64_t>(target);
    if (target < 0.0 || target >= static_cast<double>(kWholeNumbers)) {
        advanceFar(seq, target);
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
