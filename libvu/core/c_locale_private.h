// Numbers in stanzas, sentences, times and reports have a decimal point, whatever the host's locale says.
#pragma once

#include <clocale>
#include <locale.h>

namespace libvu {

inline locale_t cLocale()
{
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
}

// The "C" locale on this thread for as long as the object lives.
class CLocaleScope {
public:
    CLocaleScope() : before_(uselocale(cLocale())) {}
    ~CLocaleScope() { uselocale(before_); }
    CLocaleScope(const CLocaleScope &) = delete;
    CLocaleScope &operator=(const CLocaleScope &) = delete;

private:
    locale_t before_;
};

} // namespace libvu
