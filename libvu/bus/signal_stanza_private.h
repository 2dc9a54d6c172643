// Stanza texts that all signals of a bus read alike.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "libvu/core/stanza_private.h"
#include "libvu/core/wire_private.h"

namespace libvu {

// Reads the keys that must be there, and remembers the first one that is missing or of another type.
class RequiredKeys {
public:
    explicit RequiredKeys(const Stanza &stanza) : stanza_(stanza) {}

    bool read(const char *key, const char *&text)
    {
        text = stanza_.text(key);
        return text || rememberMissing(key);
    }
    bool read(const char *key, double &number)
    {
        const auto value = stanza_.number(key);
        number = value.value_or(0.0);
        return value || rememberMissing(key);
    }
    const char *missing() const { return missing_; }

private:
    bool rememberMissing(const char *key)
    {
        missing_ = key;
        return false;
    }

    const Stanza &stanza_;
    const char *missing_ = nullptr;
};

// Bytes per output sample; 0 for a type that is neither float32 nor float64.
inline uint32_t elementSizeOf(const char *dataType)
{
    if (std::strstr(dataType, "float32"))
        return 4;
    return std::strstr(dataType, "float64") ? 8 : 0;
}

// A hexadecimal identifier or mask, cut to 32 bits, in the byte order of a record in memory.
inline uint32_t wireIdentifier(const char *text)
{
    return reversed(static_cast<uint32_t>(std::strtoul(text, nullptr, 16)));
}

} // namespace libvu
