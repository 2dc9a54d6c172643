#include "vu/source/log_time.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

#include "vu/command.h"
#include "vu/source/serve/wire_writer.h"

namespace vu {

namespace {

constexpr int64_t kMostSeconds = 99'999'999'999; // what ticks hold, in whole digits

// Digits and nothing else, as many as kMostSeconds has at most.
std::optional<int64_t> number(std::string_view text)
{
    constexpr size_t kDigits = 11;
    if (text.empty() || text.size() > kDigits)
        return std::nullopt;
    int64_t value = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9')
            return std::nullopt;
        value = value * 10 + (digit - '0');
    }
    return value;
}

std::optional<int64_t> daysSince1970(std::string_view date)
{
    if (date.size() != 10 || date[4] != '-' || date[7] != '-')
        return std::nullopt;
    const auto year = number(date.substr(0, 4));
    const auto month = number(date.substr(5, 2));
    const auto day = number(date.substr(8, 2));
    if (!year || !month || !day || *year < 1970 || *month < 1 || *month > 12 || *day < 1 || *day > 31)
        return std::nullopt;
    // The year begins in March, so that the leap day is its last.
    const int64_t shifted = *month <= 2 ? *year - 1 : *year;
    const int64_t dayOfYear = (153 * ((*month + 9) % 12) + 2) / 5 + *day - 1;
    return shifted * 365 + shifted / 4 - shifted / 100 + shifted / 400 + dayOfYear - 719468;
}

// hh, mm and ss, `apart` characters from one to the next.
std::optional<int64_t> secondsOfDay(std::string_view text, size_t apart)
{
    const auto hours = number(text.substr(0, 2));
    const auto minutes = number(text.substr(apart, 2));
    const auto seconds = number(text.substr(2 * apart, 2));
    if (!hours || !minutes || !seconds || *hours > 23 || *minutes > 59 || *seconds > 60)
        return std::nullopt;
    return *hours * 3600 + *minutes * 60 + *seconds;
}

// The digits after a point, as ticks.
std::optional<int64_t> fraction(std::string_view digits)
{
    int64_t unit = kTicksPerSecond * 100; // in hundredths, since a tick is 2.5 times ten to the -8 seconds
    int64_t sum = 0;
    for (const char digit : digits) {
        if (digit < '0' || digit > '9')
            return std::nullopt;
        unit /= 10;
        sum += unit * (digit - '0');
    }
    return sum / 100;
}

std::optional<int64_t> together(std::optional<int64_t> seconds, std::string_view digits)
{
    const auto part = fraction(digits);
    if (!seconds || *seconds > kMostSeconds || !part)
        return std::nullopt;
    return *seconds * kTicksPerSecond + *part;
}

} // namespace

std::optional<int64_t> parseLogTime(std::string_view text)
{
    constexpr size_t kDate = 10;
    int64_t day = 0;
    const bool dated = text.size() > kDate && (text[kDate] == ' ' || text[kDate] == 'T');
    if (dated) {
        const auto days = daysSince1970(text.substr(0, kDate));
        if (!days)
            return std::nullopt;
        day = *days * 86400;
        text.remove_prefix(kDate + 1);
        if (text.ends_with('Z'))
            text.remove_suffix(1);
    }
    const size_t point = std::min(text.find('.'), text.size());
    const std::string_view whole = text.substr(0, point);
    const bool clock = whole.size() == 8 && whole[2] == ':' && whole[5] == ':';
    auto seconds = clock ? secondsOfDay(whole, 3) : dated ? std::nullopt : number(whole);
    if (seconds)
        seconds = *seconds + day;
    return together(seconds, text.substr(std::min(point + 1, text.size())));
}

void checkStep(int64_t ticks, double longestGap, const std::string &where)
{
    const double seconds = static_cast<double>(ticks) / kTicksPerSecond;
    if (std::abs(seconds) > longestGap)
        throw InputError(fmt::format("{}: the time steps {} by {:.0f} s, more than --longest-gap {:g}: what "
                                     "follows is not taken",
                                     where, seconds < 0.0 ? "back" : "forth", std::abs(seconds), longestGap));
}

std::optional<int64_t> parseTimeOfDay(std::string_view text)
{
    if (text.size() < 6 || (text.size() > 6 && text[6] != '.'))
        return std::nullopt;
    return together(secondsOfDay(text, 2), text.substr(std::min<size_t>(7, text.size())));
}

} // namespace vu
