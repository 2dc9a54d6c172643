// Known waveforms: the value of each sample follows from its number, so that whoever receives one can compute
// what it must be.
#pragma once

#include <cstdint>
#include <string>

namespace vu {

struct Waveform {
    enum class Shape { Sine, Ramp, Square, Noise, Counter } shape = Shape::Sine;
    double frequency = 1.0; // Hz
    double amplitude = 1.0;
    double bias = 0.0; // added to every value
    uint64_t seed = 1;

    double at(uint64_t sample, double rate) const; // `rate`: samples per second
    static const char *help();                     // the formulas
};

// "sine", "ramp", "square", "noise" or "counter". Throws InputError.
Waveform::Shape parseShape(const std::string &text);

} // namespace vu
