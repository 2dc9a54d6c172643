// How much of a long search a build can afford: all of it in a release, a part under sanitizers.
#pragma once

#include <cstdint>

namespace vu::test {

constexpr int64_t effort(int64_t release, int64_t sanitized)
{
    return VU_SANITIZED ? sanitized : release;
}

} // namespace vu::test
