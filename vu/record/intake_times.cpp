// Intake, the times: how they are checked, and how a gap is filled.
#include <algorithm>
#include <cstring>
#include <utility>

#include "vu/record/intake.h"
#include "vu/record/intake_wire.h"

namespace vu {

namespace {

constexpr double kFilledAtOnce = 256e3; // bytes of a gap between two rounds of the loop

} // namespace

int64_t Intake::ticksAt(const uint8_t *bytes) const
{
    const uint32_t first = loadWord(bytes, fraction_first_), second = loadWord(bytes + 4, fraction_first_);
    if (!layout_.ntp)
        return static_cast<int64_t>((uint64_t{first} << 32) | second);
    if (node_.start_time == 0)
        return 0; // the first entry begins the channel's time
    const uint32_t words[2] = {fraction_first_ ? second : first, fraction_first_ ? first : second};
    return static_cast<int64_t>(ntp_to_ts(words) - static_cast<double>(node_.start_time));
}

TimeGuard::Verdict Intake::judge(const uint8_t *time)
{
    const TimeGuard::Verdict verdict = guard_.judge(ticksAt(time));
    return verdict == TimeGuard::Verdict::kGap && ended_ ? TimeGuard::Verdict::kAbsurd : verdict;
}

// How many entries from `place` on have times that can be handed on as they are.
uint32_t Intake::fineEntries(uint32_t place, uint32_t count)
{
    uint32_t fine = 0;
    while (fine < count && judge(own_.buf + place + fine * layout_.entry) == TimeGuard::Verdict::kFine)
        fine++;
    return fine;
}

// One entry or message by itself: true if it is to be handed on, now or after a gap that begins here; else
// its `length` bytes are passed.
bool Intake::takeMessage(const uint8_t *time, uint32_t length)
{
    switch (judge(time)) {
    case TimeGuard::Verdict::kFine: return true;
    case TimeGuard::Verdict::kGap: beginGap(ticksAt(time)); return true;
    case TimeGuard::Verdict::kAbsurd: break;
    }
    guard_.leaveOut(ticksAt(time));
    pass(length);
    return false;
}

void Intake::noteSequence(const Head &head)
{
    if (head.length < kTime)
        return;
    const uint8_t *body = here() + head.size;
    const uint64_t ticks = uint64_t{loadWord(body)} << 32 | loadWord(body + 4);
    sequence_.record(static_cast<int64_t>(ticks), (head.length - kTime) / layout_.entry, steadySeconds());
}

void Intake::beginGap(int64_t ticks)
{
    handBatch();
    filling_ = true;
    gap_end_ = ticks;
    filled_to_ = static_cast<double>(guard_.furthest());
}

// Moves all streams of the channel on by what one round of the loop bears.
void Intake::fillPortion()
{
    const double end = static_cast<double>(gap_end_ - gap_margin_);
    filled_to_ += kFilledAtOnce / guard_.filledPerSecond() * kTicksPerSecond;
    const double to = std::min(filled_to_, end);
    for (Sequentializer *stream : streams_)
        sequentialize(stream, to);
    if (held_)
        fillHeld(static_cast<int64_t>(to));
    produced_ += static_cast<uint64_t>(kFilledAtOnce);
    if (filled_to_ < end)
        return;
    filling_ = false;
    guard_.accept(gap_end_);
    more_ = true;
}

// An entry without a value, which moves the channel's own stream on to its time.
void Intake::fillHeld(int64_t ticks)
{
    constexpr int64_t kTicks = VU_TICKS_PER_SECOND, kSecondsTo2000 = 946684800;
    uint8_t bytes[kLengthWord + 3 * kTime];
    std::memset(bytes, 0xFF, sizeof bytes); // no number, in either byte order
    storeWord(bytes, layout_.head + layout_.entry);
    uint8_t *time = bytes + kLengthWord + layout_.head;
    uint64_t both = static_cast<uint64_t>(ticks);
    if (layout_.ntp) {
        const int64_t absolute = ticks + node_.start_time;
        const auto seconds = static_cast<uint64_t>(absolute / kTicks - kSecondsTo2000);
        const auto part = static_cast<uint64_t>(absolute % kTicks);
        both = seconds << 32 | (part << 32) / kTicks;
    }
    storeWord(time, static_cast<uint32_t>(both >> 32));
    storeWord(time + 4, static_cast<uint32_t>(both));
    const int32_t pending = std::exchange(node_.rezero_pending, 0); // not for an entry that nobody sent
    hand(bytes, kLengthWord + layout_.head + layout_.entry);
    node_.rezero_pending = pending;
}

} // namespace vu
