// The types of samples in the frames of periodic channels and streams. Whoever depends on one switches over
// all of them without a default, so that the compiler names the places that a new type has to reach.
#pragma once

#include <cstdint>

namespace libvu {

enum class SampleType { float32, float64 };

constexpr uint32_t sizeOf(SampleType type)
{
    switch (type) {
    case SampleType::float32: return sizeof(float);
    case SampleType::float64: return sizeof(double);
    }
    __builtin_unreachable();
}

// A record's element size decides. A host may have written any number there; `otherwise` is what it then
// means.
constexpr SampleType sampleTypeOf(uint32_t elementSize, SampleType otherwise)
{
    for (const SampleType type : {SampleType::float32, SampleType::float64})
        if (elementSize == sizeOf(type))
            return type;
    return otherwise;
}

} // namespace libvu
