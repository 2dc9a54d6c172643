// The plainest loop that turns values into periodic samples: one at a time, the clock in floating point. What
// the library's streams are measured against, in the same run.
#pragma once

#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

namespace vu::bench {

constexpr double kTicks = 40'000'000.0;

struct PlainStream {
    PlainStream(double samplesPerSecond, uint32_t bytes, size_t samples, double stale)
        : elementSize(bytes), frame(samples * bytes), frameSamples(static_cast<uint32_t>(samples)),
          numerator(samplesPerSecond), whole(std::floor(kTicks / numerator)),
          remainder(kTicks - numerator * whole), half(numerator * 0.5), rate(numerator),
          staleTicks(static_cast<int64_t>(std::floor(stale * kTicks)) - 1),
          halfPeriod(static_cast<int64_t>(std::floor(kTicks / numerator * 0.5)))
    {
        next = static_cast<int64_t>(whole);
    }

    [[gnu::noinline]] void tick()
    {
        accumulator += remainder;
        current = next;
        next = static_cast<int64_t>(static_cast<double>(next) + whole);
        if (accumulator > half) {
            next += 1;
            accumulator -= numerator;
        }
    }

    [[gnu::noinline]] void advance(double time)
    {
        const double target = time - static_cast<double>(halfPeriod);
        while (target >= 0 && target > static_cast<double>(current)) {
            tick();
            if (expiry < current)
                value = invalid;
            char *tail = frame.data() + size_t{elementSize} * length;
            if (elementSize == 8) {
                std::memcpy(tail, &value, 8);
            } else {
                const auto narrow = static_cast<float>(value);
                std::memcpy(tail, &narrow, 4);
            }
            count++;
            if (++length == frameSamples) {
                length = 0;
                benchmark::ClobberMemory();
            }
        }
        lastTarget = static_cast<int64_t>(target);
    }

    [[gnu::noinline]] void take(double time, double newValue)
    {
        advance(time);
        value = newValue;
        expiry = next + staleTicks;
    }

    double pipeRate = 1;
    uint32_t elementSize, length = 0;
    std::vector<char> frame;
    uint32_t frameSamples;
    int64_t current = 0, next;
    double numerator, denominator = 1, whole, remainder, accumulator = 0, ticksPerSecond = kTicks, half, rate;
    double value = -1, invalid = -1;
    int64_t lastTarget = 0, staleTicks, expiry = 0, count = 0, halfPeriod;
};

// Processor time: what other processes take in between is not counted.
inline double processorSeconds()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <typename Work>
double secondsOf(Work work)
{
    const double begin = processorSeconds();
    work();
    return processorSeconds() - begin;
}

// Runs the library's work and the plain one in turn, so that both see the same noise. The benchmark's time is
// the library's; `x_plain` says how many times faster than the plain form it is.
template <typename Prepare, typename Ours, typename Plain>
void compare(benchmark::State &state, Prepare prepare, Ours ours, Plain plain)
{
    double oursTotal = 0, plainTotal = 0;
    for (auto _ : state) {
        prepare();
        plainTotal += secondsOf(plain);
        prepare();
        const double seconds = secondsOf(ours);
        oursTotal += seconds;
        state.SetIterationTime(seconds);
    }
    state.counters["x_plain"] = plainTotal / oursTotal;
}

} // namespace vu::bench
