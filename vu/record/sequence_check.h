// Finds out what a periodic channel lacks. Its samples have no times: the n-th one belongs to the n-th
// instant, so a source that drops one moves everything after it.
//
// A source may put the time of a record's first sample into the eight bytes in front of the samples. They are
// believed once two records agree with the sample count between them; a step from then on, or before, is a
// gap. Of a source that runs at the speed of time, the count is compared with the clock as well.
#pragma once

#include <cstdint>

namespace vu {

class SequenceCheck {
public:
    explicit SequenceCheck(double sampleRate) : rate_(sampleRate) {}

    // A record: the time that it has, in ticks (0: none, unless it is the first), how many samples it has,
    // and the seconds on the recorder's clock.
    void record(int64_t ticks, uint64_t samples, double now);

    double rate() const { return rate_; } // Hz
    uint64_t gaps() const { return trusted_ ? gaps_ : 0; }
    uint64_t missing() const { return trusted_ ? missing_ : 0; } // samples
    // Records whose time lies before the end of the ones in front of them.
    uint64_t overlaps() const { return trusted_ ? overlaps_ : 0; }
    // The count has left rate x time by more than a second and 1 % for a while.
    bool isOffRate() const { return off_rate_; }
    double measuredRate() const { return measured_rate_; } // Hz, at the moment that was noticed

private:
    void compareTimes(int64_t ticks);
    void compareRate(uint64_t samples, double now);

    double rate_;
    uint64_t count_ = 0;    // samples before the next record
    double difference_ = 0; // ticks beyond those that the count makes, at the last record that had a time
    bool told_ = false;     // a record has had a time
    bool trusted_ = false;
    uint64_t gaps_ = 0, missing_ = 0, overlaps_ = 0;
    uint64_t first_samples_ = 0; // of the first record: its arrival begins the clock
    double first_arrival_ = 0.0;
    double off_since_ = -1.0;
    bool off_rate_ = false;
    double measured_rate_ = 0.0;
};

} // namespace vu
