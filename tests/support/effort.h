// How much of a long search a build can afford: all of it in a release, a part under sanitizers.
#pragma once

#include <cstdint>

namespace vu::test {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

constexpr int64_t effort(int64_t release, int64_t sanitized)
{
    return kSanitized ? sanitized : release;
}

} // namespace vu::test
