// Words on standard error. Where they cannot be written, a full disk under a log for instance, they are lost
// and nothing else: a recording does not end for that, and the library's callbacks must not throw.
#pragma once

#include <cstdio>
#include <fmt/format.h>

namespace vu {

template <typename... Args>
void say(fmt::format_string<Args...> format, Args &&...args)
{
    const std::string text = fmt::format(format, std::forward<Args>(args)...);
    std::fwrite(text.data(), 1, text.size(), stderr);
}

} // namespace vu
