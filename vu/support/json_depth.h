// How deeply a JSON text is nested, before anybody parses it: a parser, and whoever frees what it made, may
// need stack for each level.
#pragma once

#include <cstddef>
#include <string_view>

namespace vu {

constexpr size_t kMostJsonLevels = 64;

// Whether brackets outside strings open more than `most` levels. No judgement on whether the text is JSON.
inline bool isNestedDeeper(std::string_view text, size_t most = kMostJsonLevels)
{
    size_t levels = 0;
    bool quoted = false;
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        if (quoted) {
            i += c == '\\';
            quoted = c != '"';
        } else if (c == '"') {
            quoted = true;
        } else if (c == '[' || c == '{') {
            if (++levels > most)
                return true;
        } else if ((c == ']' || c == '}') && levels > 0) {
            levels--;
        }
    }
    return false;
}

} // namespace vu
