// The frame of every fuzz target: it defines fuzz(), and requires there what has to hold.
#pragma once

#include <cstdint>
#include <cstdlib>

void fuzz(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz(data, size);
    return 0;
}

inline void require(bool holds)
{
    if (!holds)
        std::abort();
}
