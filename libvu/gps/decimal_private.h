// Numbers in the fields of a sentence: what strtod() reads in the "C" locale, whatever follows them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "libvu/core/c_locale_private.h"

namespace libvu {

// Up to 15 digits are a whole number that a double holds exactly, and so is the power of ten below them: one
// division rounds once, to the double nearest to the text. Anything else is left to the C library.
inline double numberOf(const char *text)
{
    static constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                              1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    constexpr size_t kExactDigits = 15;
    const auto digitOf = [](char c) { return static_cast<uint8_t>(c - '0'); };

    const bool negative = *text == '-';
    const char *at = text + negative;
    uint64_t digits = 0;
    const char *const first = at;
    for (; digitOf(*at) < 10; at++)
        digits = digits * 10 + digitOf(*at);
    auto count = static_cast<size_t>(at - first);
    size_t fraction = 0;
    if (*at == '.') {
        const char *const point = at++;
        for (; digitOf(*at) < 10; at++)
            digits = digits * 10 + digitOf(*at);
        fraction = static_cast<size_t>(at - point) - 1;
        count += fraction;
    }
    // After the digits an "e" or an "x" may continue the number. Without digits it may be "inf" or begin with
    // blanks.
    const char after = static_cast<char>(*at | 0x20);
    if (count == 0 || count > kExactDigits || after == 'e' || after == 'x')
        return strtod_l(text, nullptr, cLocale());
    const double value = static_cast<double>(digits) / kPowersOfTen[fraction];
    return negative ? -value : value;
}

// The text from character `offset` on, empty if it is shorter.
inline const char *textFrom(const char *text, size_t offset)
{
    for (; offset > 0 && *text; offset--)
        text++;
    return text;
}

// The number in the first `Count` characters, or in fewer if the text ends before.
template <size_t Count>
inline double numberInFirst(const char *text)
{
    char piece[Count + 1] = {};
    for (size_t i = 0; i < Count && text[i]; i++)
        piece[i] = text[i];
    return numberOf(piece);
}

} // namespace libvu
