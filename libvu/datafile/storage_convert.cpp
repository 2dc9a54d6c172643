#include "libvu/datafile/storage_convert.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "libvu/core/report.h"
#include "libvu/datafile/pipe_filters_private.h"
#include "libvu/datafile/storage_table_private.h"

namespace {

bool contains(const char *name, const char *piece)
{
    return std::strstr(name, piece) != nullptr;
}

// The first run of digits in a name, 0 without one.
uint32_t widthIn(const char *name)
{
    constexpr uint32_t kNoWidth = 1000000;
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    while (*name && !isDigit(*name))
        name++;
    uint32_t width = 0;
    for (; isDigit(*name); name++)
        width = std::min(width * 10 + static_cast<uint32_t>(*name - '0'), kNoWidth);
    return width;
}

// What frames to be converted hold: everything that depends on it, in one place.
enum class SourceType { float32, float64 };

struct SourceTraits {
    uint32_t other_width; // bits of the float that it can be converted to
    libvu::StorageGroup bare, message;
    double (*bare_filter)(KRDBuffer *record);
    double (*message_filter)(KRDBuffer *record);
};

// A source of any other width is read as 32-bit floats.
SourceType sourceNamed(const char *name)
{
    return widthIn(name) == 64 ? SourceType::float64 : SourceType::float32;
}

SourceTraits traitsOf(SourceType type)
{
    switch (type) {
    case SourceType::float32:
        return {64, libvu::kBare32, libvu::kMessage32, libvu::sequential_float32_filter,
                libvu::message_float32_filter};
    case SourceType::float64:
        return {32, libvu::kBare64, libvu::kMessage64, libvu::sequential_float64_filter,
                libvu::message_float64_filter};
    }
    __builtin_unreachable();
}

// The entry within a group of nine. A float of the source's own width has none and is stored as a signed
// integer.
std::optional<size_t> placeInGroup(const char *destination, const SourceTraits &source)
{
    const uint32_t width = widthIn(destination);
    if (width == source.other_width && contains(destination, "_float"))
        return 0;
    const size_t sign = contains(destination, "_uint") ? 0 : 1;
    switch (width) {
    case 8: return 1 + sign;
    case 16: return 3 + sign;
    case 32: return 5 + sign;
    case 64: return 7 + sign;
    default: return std::nullopt;
    }
}

bool meantForConversion(const char *source, const char *destination)
{
    if (contains(source, "sequential_") && contains(destination, "sequential_"))
        return true;
    return contains(source, "message_float") && contains(destination, "message_");
}

} // namespace

void KRDBuffer_set_storage_convert(KRDBuffer *record, const char *source, const char *destination,
                                   int32_t sequential, const char *encoding)
{
    if (!source || !destination || !meantForConversion(source, destination))
        return;
    const SourceTraits traits = traitsOf(sourceNamed(source));
    const bool bare = sequential || contains(source, "sequential_");
    const std::optional<size_t> place = placeInGroup(destination, traits);
    if (!place) {
        record->pipe_filter = nullptr;
        libvuSetError("No storage convertor to convert from '%s' to '%s'", source, destination);
        return;
    }
    bool runs = encoding && std::strcmp(encoding, "rle") == 0;
    if (runs && !bare) {
        logWarning("Run-length encoding is not for message channels: '%s' is stored plain", source);
        runs = false;
    }
    record->pipe_filter = bare ? traits.bare_filter : traits.message_filter;
    const size_t plain = (bare ? traits.bare : traits.message) + *place;
    record->convertor = &libvu::storage_convertors[runs ? plain + libvu::kRunsAfterPlain : plain];
    record->rle_extra = runs ? 2 : 0;
}
