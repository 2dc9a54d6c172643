#include "vu/support/texts.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>

namespace vu {

namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

// Characters, not bytes: units are UTF-8.
size_t width(const std::string &text)
{
    return static_cast<size_t>(std::ranges::count_if(text, [](char c) { return (c & 0xC0) != 0x80; }));
}

// Bytes of the UTF-8 character at the front that a terminal may print; 0: none.
size_t printableBytes(std::string_view text)
{
    const auto byte = [text](size_t i) { return i < text.size() ? static_cast<uint8_t>(text[i]) : 0u; };
    if (byte(0) < 0x80)
        return byte(0) >= 0x20 && byte(0) != 0x7F ? 1 : 0;
    const size_t length = byte(0) >= 0xF0 ? 4 : byte(0) >= 0xE0 ? 3 : 2;
    uint32_t code = byte(0) & (0xFFu >> (length + 1));
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
        code = code << 6 | (byte(i) & 0x3F);
    }
    constexpr uint32_t kSmallest[] = {0xA0, 0x800, 0x10000}; // from 0x80 to 0x9F: controls again
    const bool direction = (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    const bool separator = code == 0x2028 || code == 0x2029;
    if (byte(0) < 0xC2 || code < kSmallest[length - 2] || code > 0x10FFFF || surrogate || direction ||
        separator)
        return 0;
    return length;
}

// At most so many characters of a text; the last three are "..." where it was longer.
std::string cut(const std::string &text, size_t most)
{
    constexpr size_t kDots = 3;
    if (width(text) <= most)
        return text;
    size_t end = 0;
    for (size_t characters = 0; end < text.size(); ++end)
        if ((text[end] & 0xC0) != 0x80 && ++characters + kDots > most)
            break;
    return text.substr(0, end) + "...";
}

// Takes from the widest columns of text what a line has too much; numbers are never cut.
void fitColumns(std::vector<size_t> &widths, const std::vector<bool> &right, size_t widest)
{
    constexpr size_t kGap = 2, kNarrowest = 8;
    size_t total = 0;
    for (const size_t column : widths)
        total += column + kGap;
    for (total -= kGap; total > widest; --total) {
        size_t *most = nullptr;
        for (size_t column = 0; column < widths.size(); ++column)
            if (!right[column] && widths[column] > kNarrowest && (!most || widths[column] > *most))
                most = &widths[column];
        if (!most)
            return;
        --*most;
    }
}

} // namespace

std::string sizeText(double bytes)
{
    if (bytes < 999.5)
        return fmt::format("{:.0f} bytes", bytes);
    constexpr std::array units{"kB", "MB", "GB", "TB", "PB", "EB"};
    size_t unit = 0;
    for (bytes /= 1000; bytes >= 999.5 && unit + 1 < units.size(); bytes /= 1000)
        unit++;
    return fmt::format("{:.3g} {}", bytes, units[unit]);
}

std::string sizeText(uint64_t bytes)
{
    return sizeText(static_cast<double>(bytes));
}

std::string durationText(double seconds)
{
    if (!(seconds < 1e10))
        return "for ever";
    const auto whole = static_cast<int64_t>(std::llround(seconds));
    if (whole < 120)
        return fmt::format("{} s", whole);
    if (whole < 7200)
        return fmt::format("{} min {} s", whole / 60, whole % 60);
    if (whole < 172800)
        return fmt::format("{} h {} min", whole / 3600, whole % 3600 / 60);
    return fmt::format("{} days {} h", whole / 86400, whole % 86400 / 3600);
}

std::string printable(std::string_view text, size_t most)
{
    std::string shown;
    while (!text.empty()) {
        const size_t length = printableBytes(text);
        const std::string next = length > 0 ? std::string(text.substr(0, length))
                                            : fmt::format("\\x{:02x}", static_cast<uint8_t>(text[0]));
        if (shown.size() + next.size() > most)
            return shown + "...";
        shown += next;
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return shown;
}

std::string tableText(const std::vector<std::vector<std::string>> &rows, size_t widest)
{
    std::vector<size_t> widths(rows.front().size(), 0);
    std::vector<bool> right;
    for (const std::string &heading : rows.front())
        right.push_back(heading.starts_with('>'));
    const auto cell = [&](size_t row, size_t column) {
        return rows[row][column].substr(row == 0 && right[column] ? 1 : 0);
    };
    for (size_t row = 0; row < rows.size(); ++row) {
        for (size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], width(cell(row, column)));
    }
    fitColumns(widths, right, widest);
    std::string text;
    for (size_t row = 0; row < rows.size(); ++row) {
        std::string line;
        for (size_t column = 0; column < widths.size(); ++column) {
            const std::string shown = cut(cell(row, column), widths[column]);
            const std::string padding(widths[column] - width(shown), ' ');
            line += right[column] ? padding + shown : shown + padding;
            line += "  ";
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}

std::string neverText(const std::vector<std::string> &names, size_t signals, bool all)
{
    constexpr size_t kShown = 10, kLongestName = 100;
    if (names.empty())
        return {};
    std::string text = fmt::format("{} of {} signals never had a value: ", names.size(), signals);
    const size_t shown = all ? names.size() : std::min(names.size(), kShown);
    for (size_t i = 0; i < shown; ++i)
        text += (i > 0 ? ", " : "") + printable(names[i], kLongestName);
    return shown < names.size() ? text + fmt::format(" and {} more", names.size() - shown) : text;
}

std::string secondsText(int64_t ticks, int64_t ticksPerSecond)
{
    if (kNanosecondsPerSecond % ticksPerSecond != 0)
        return fmt::format("{}", static_cast<double>(ticks) / static_cast<double>(ticksPerSecond));
    const bool negative = ticks < 0;
    const uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(ticks) : static_cast<uint64_t>(ticks);
    const auto perSecond = static_cast<uint64_t>(ticksPerSecond);
    const uint64_t nanoseconds = magnitude % perSecond * (kNanosecondsPerSecond / perSecond);
    std::string text = fmt::format("{}{}.{:09}", negative ? "-" : "", magnitude / perSecond, nanoseconds);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.ends_with('.'))
        text.pop_back();
    return text;
}

} // namespace vu
