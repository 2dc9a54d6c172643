#include "libvu/monitor/range_scan_private.h"

#include <cmath>
#include <limits>

#include "libvu/core/isa_private.h"
#include "libvu/core/wire_private.h"

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// The limit in the samples' own width, rounded towards `inside`: comparing samples with it gives the same
// result as comparing them, widened, with `limit`.
template <typename Sample>
Sample narrowed(double limit, double inside)
{
    const auto near = static_cast<Sample>(limit);
    const auto widened = static_cast<double>(near);
    const bool outside = inside > 0 ? widened < limit : widened > limit;
    return outside ? std::nextafter(near, static_cast<Sample>(inside)) : near;
}

template <typename Sample>
VU_INLINE_KERNEL bool anyOutsideLoop(const uint8_t *data, uint32_t count, Sample lower, Sample upper)
{
    unsigned found = 0;
    for (size_t i = 0; i < count; i++) {
        const auto value = libvu::loadHost<Sample>(data + i * sizeof(Sample));
        found |= static_cast<unsigned>(value > upper) | static_cast<unsigned>(value < lower);
    }
    return found != 0;
}

template <typename Sample>
bool anyOutsidePlain(const uint8_t *data, uint32_t count, Sample lower, Sample upper)
{
    return anyOutsideLoop(data, count, lower, upper);
}

template <typename Sample>
VU_AVX2 bool anyOutsideAvx2(const uint8_t *data, uint32_t count, Sample lower, Sample upper)
{
    return anyOutsideLoop(data, count, lower, upper);
}

template <typename Sample>
VU_AVX512 bool anyOutsideAvx512(const uint8_t *data, uint32_t count, Sample lower, Sample upper)
{
    return anyOutsideLoop(data, count, lower, upper);
}

template <typename Sample>
libvu::Excursions scan(const uint8_t *data, uint32_t count, const libvu::Range &range)
{
    libvu::Excursions found;
    for (uint32_t i = 0; i < count; i++) {
        const auto value = static_cast<double>(libvu::loadHost<Sample>(data + i * sizeof(Sample)));
        const bool over = value > range.upper;
        const bool under = value < range.lower;
        if (!over && !under)
            continue;
        if (!found.over && !found.under)
            found.first = i;
        found.last = i;
        if (over && (!found.over || (range.showsExtreme && value > found.overValue)))
            found.overValue = value;
        if (under && (!found.under || (range.showsExtreme && value < found.underValue)))
            found.underValue = value;
        found.over |= over;
        found.under |= under;
    }
    return found;
}

// As a rule every sample is in range, which takes no more than one look at each.
template <typename Sample>
libvu::Excursions find(const Frame &frame, const libvu::Range &range)
{
    static auto *const anyOutside =
        libvu::fastest(anyOutsidePlain<Sample>, anyOutsideAvx2<Sample>, anyOutsideAvx512<Sample>);
    const auto *data = static_cast<const uint8_t *>(frame.data);
    const auto lower = narrowed<Sample>(range.lower, kInfinity);
    const auto upper = narrowed<Sample>(range.upper, -kInfinity);
    if (!anyOutside(data, frame.length, lower, upper))
        return {};
    return scan<Sample>(data, frame.length, range);
}

} // namespace

namespace libvu {

Excursions findExcursions(const Frame &frame, SampleType type, const Range &range)
{
    switch (type) {
    case SampleType::float32: return find<float>(frame, range);
    case SampleType::float64: return find<double>(frame, range);
    }
    __builtin_unreachable();
}

} // namespace libvu
