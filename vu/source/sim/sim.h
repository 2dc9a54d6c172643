// Simulated channels: what is asked of them, and the producer of each family of channel kinds.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vu/source/producer.h"
#include "vu/source/serve/serve.h"
#include "vu/source/sim/waveform.h"

namespace vu {

struct SimOptions {
    Waveform waveform;
    double rate = 0.0;   // messages, fixes or stream samples a second
    double jitter = 0.0; // seconds
    std::string startTime;
    size_t size = 32; // bytes of a raw message
    std::vector<std::string> canIds{"100"};
    std::vector<std::string> xcpTypes{"FLOAT32_IEEE"};
    std::string xcpByteOrder = "little";
    std::string receiver = "garmin";
    std::string utc = "2026-03-15T12:00:00";
    double latency = 0.1;   // seconds from a fix to its sentences
    std::string lostPulses; // "FROM:TO", seconds of source time
    std::vector<std::string> names{"sig0"};
    std::vector<uint32_t> numbers; // of the stream's signals; counted from 16 where none is given
    double gather = 0.05;          // seconds of samples in a record of the stream
    std::vector<double> fill{10.0};
    uint64_t noValueEvery = 0;

    int64_t startTicks = 0; // since 1970-01-01; `startTime`, read
};

// The local time "2026-03-15T10:15:30.5" in ticks since 1970-01-01; the present second for an empty text.
// Throws InputError.
int64_t parseStartTime(const std::string &text);

// A simulation goes on in steps of ten milliseconds, and sends what happened in each when it is over.
class SteppedProducer : public Producer {
public:
    explicit SteppedProducer(double durationSeconds);
    bool next(WireWriter &wire, int64_t &dueTicks) final;

protected:
    // Writes what happens from `begin` on and before `end`.
    virtual void step(WireWriter &wire, int64_t begin, int64_t end) = 0;
    virtual void close(WireWriter &) {}

private:
    int64_t now_ = 0;
    int64_t end_;
};

// Message n of a channel: when it comes, and which of them come before a time.
class MessageTimes {
public:
    MessageTimes(double rate, double jitter, uint64_t seed) : rate_(rate), jitter_(jitter), seed_(seed) {}
    int64_t nominal(uint64_t n) const; // ticks
    int64_t at(uint64_t n) const;      // with its jitter, never below 0
    double rate() const { return rate_; }

private:
    double rate_;
    double jitter_;
    uint64_t seed_;
};

// All throw InputError for options that they cannot serve.
std::unique_ptr<Producer> simulateFloats(const SimOptions &sim, const ServeOptions &serving);
std::unique_ptr<Producer> simulateRaw(const SimOptions &sim, const ServeOptions &serving);
std::unique_ptr<Producer> simulateCan(const SimOptions &sim, const ServeOptions &serving);
std::unique_ptr<Producer> simulateXcp(const SimOptions &sim, const ServeOptions &serving);
std::unique_ptr<Producer> simulateGps(const SimOptions &sim, const ServeOptions &serving);
std::unique_ptr<Producer> simulateStream(const SimOptions &sim, const ServeOptions &serving);

} // namespace vu
