#include "vu/source/sim/waveform.h"

#include <cmath>
#include <fmt/format.h>
#include <numbers>
#include <utility>

#include "vu/command.h"
#include "vu/support/random.h"

namespace vu {

namespace {

constexpr std::pair<const char *, Waveform::Shape> kShapes[] = {{"sine", Waveform::Shape::Sine},
                                                                {"ramp", Waveform::Shape::Ramp},
                                                                {"square", Waveform::Shape::Square},
                                                                {"noise", Waveform::Shape::Noise},
                                                                {"counter", Waveform::Shape::Counter}};
constexpr uint64_t kCounterWrap = 1u << 24; // every number below is exact in 32 bits

} // namespace

double Waveform::at(uint64_t sample, double rate) const
{
    const double n = static_cast<double>(sample);
    const double turns = frequency * n / rate;
    const double phase = turns - std::floor(turns);
    switch (shape) {
    case Shape::Sine: return bias + amplitude * std::sin(2.0 * std::numbers::pi * phase);
    case Shape::Ramp: return bias + amplitude * phase;
    case Shape::Square: return bias + (phase < 0.5 ? amplitude : -amplitude);
    case Shape::Noise: return bias + amplitude * (2.0 * randomUnit(seed, sample) - 1.0);
    case Shape::Counter: return static_cast<double>(sample % kCounterWrap);
    }
    return 0.0;
}

const char *Waveform::help()
{
    return "Sample n (from 0) of a channel of R samples a second, in double precision and this order,\n"
           "narrowed to the type of the channel:\n"
           "  turns   = frequency * n / R\n"
           "  phase   = turns - floor(turns)\n"
           "  sine    = bias + amplitude * sin(2 * pi * phase)\n"
           "  ramp    = bias + amplitude * phase\n"
           "  square  = bias + (phase < 0.5 ? amplitude : -amplitude)\n"
           "  noise   = bias + amplitude * (2 * u(n) - 1)\n"
           "  counter = n modulo 2^24, whatever amplitude and bias say\n"
           "u(n), from 0 to 1, with 64-bit unsigned arithmetic:\n"
           "  z = seed + (n + 1) * 0x9E3779B97F4A7C15\n"
           "  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;  z = (z ^ (z >> 27)) * 0x94D049BB133111EB\n"
           "  u = ((z ^ (z >> 31)) >> 11) * 2^-53\n";
}

Waveform::Shape parseShape(const std::string &text)
{
    for (const auto &[name, shape] : kShapes)
        if (text == name)
            return shape;
    throw InputError(fmt::format("--signal: expected sine, ramp, square, noise or counter, got '{}'", text));
}

} // namespace vu
