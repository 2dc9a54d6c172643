// Keeps a time that cannot be true from filling memory and disk.
//
// Streams that hold values write one sample for every period that time has passed. One garbled timestamp far
// ahead would fill hours, or never end. So a step of time costs what it makes the streams write, a channel
// has a limited credit for that, and what it cannot pay for is left out. Time that really passes and bytes
// that really come earn credit, so an honest source never runs out of it.
#pragma once

#include <cstdint>

namespace vu {

class TimeGuard {
public:
    // What may be written for steps of time that nothing has earned, in bytes.
    static constexpr double kCredit = 1 << 30;

    // `filledPerSecond`: bytes that the channel's streams write for a second of its time; 0: no streams,
    // every time is fine.
    explicit TimeGuard(double filledPerSecond) : filled_per_second_(filledPerSecond) {}

    enum class Verdict {
        kFine,
        kGap,    // fine, but much has to be written first: see accept()
        kAbsurd, // beyond the credit: see leaveOut()
    };
    // The next entry's time in ticks since the start of the test. A fine one is the furthest from then on.
    Verdict judge(int64_t ticks);
    // The streams have been brought to a time that was judged a gap.
    void accept(int64_t ticks);
    void earn(uint64_t bytes, double seconds);
    // Counts an entry that is left out for its time.
    void leaveOut(int64_t ticks);

    bool watches() const { return filled_per_second_ > 0.0; }
    double filledPerSecond() const { return filled_per_second_; }
    int64_t furthest() const { return furthest_; }
    uint64_t cut() const { return cut_; }          // records or entries left out so far
    double aheadSeconds() const { return ahead_; } // how far ahead the first of them was

private:
    double secondsAhead(int64_t ticks) const;

    double filled_per_second_;
    double credit_ = kCredit;
    int64_t furthest_ = 0; // ticks
    uint64_t cut_ = 0;
    double ahead_ = 0.0;
};

} // namespace vu
