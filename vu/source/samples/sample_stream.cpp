#include "vu/source/samples/sample_stream.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

#include "vu/command.h"

namespace vu {

namespace {

// A record holds about ten milliseconds, so that a recorder sees the data soon and few system calls are made.
constexpr double kRecordsPerSecond = 100.0;
constexpr double kMaxRecordSamples = 16384;

template <class T>
class SampleProducer : public Producer {
public:
    SampleProducer(const ServeOptions &options, std::unique_ptr<SampleReader> reader)
        : reader_(std::move(reader)), rate_(options.sampleRate),
          block_(static_cast<size_t>(std::clamp(rate_ / kRecordsPerSecond, 1.0, kMaxRecordSamples)))
    {
        if (options.duration > 0.0)
            left_ = static_cast<uint64_t>(std::min(std::floor(options.duration * rate_), 9e18));
    }

    bool next(WireWriter &wire, int64_t &dueTicks) override
    {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(block_.size(), left_));
        const size_t count = take(std::span(block_).first(wanted));
        account_.made(count);
        if (count > 0) {
            wire.beginRecord();
            wire.big(ticksOf(sent_)); // by this a recorder sees that records are missing
            wire.samples(std::span<const T>(block_).first(count));
            wire.endRecord();
        }
        sent_ += count;
        left_ -= count;
        dueTicks = ticksOf(sent_);
        if (count == 0)
            account_.leaveOut("truncated", reader_->missing());
        return count > 0 && left_ > 0; // after a part of a block its reader reports the end, or what is wrong
    }

private:
    size_t take(std::span<T> to)
    {
        try {
            return reader_->read(to);
        } catch (const InputError &) {
            account_.leaveOut("unreadable");
            throw;
        }
    }

    int64_t ticksOf(uint64_t sample) const
    {
        return static_cast<int64_t>(
            std::min(std::round(static_cast<double>(sample) / rate_ * kTicksPerSecond), 9e18));
    }

    std::unique_ptr<SampleReader> reader_;
    double rate_;
    std::vector<T> block_;
    uint64_t sent_ = 0;
    uint64_t left_ = UINT64_MAX;
};

} // namespace

int serveSamples(const ServeOptions &options, std::unique_ptr<SampleReader> reader)
{
    if (!(options.sampleRate > 0.0) || !(options.sampleRate <= 1e9))
        throw InputError(fmt::format(
            "--sample-rate: expected samples per second, above 0 and up to 1e9, got {}", options.sampleRate));
    ServeOptions serving = options;
    serving.duration = 0.0; // counted in samples, by the producer
    if (options.dataType.find("sequential_float32") != std::string::npos) {
        SampleProducer<float> producer(options, std::move(reader));
        return serve(serving, producer);
    }
    if (options.dataType.find("sequential_float64") != std::string::npos) {
        SampleProducer<double> producer(options, std::move(reader));
        return serve(serving, producer);
    }
    throw InputError(fmt::format("--data-type: expected sequential_float32 or sequential_float64, got '{}'",
                                 options.dataType));
}

} // namespace vu
