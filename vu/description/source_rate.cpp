#include "vu/description/source_rate.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <fstream>
#include <memory>
#include <sndfile.h>
#include <vector>

namespace vu {

namespace {

constexpr size_t kMostHeadLines = 1000;
constexpr size_t kMostTimes = 1000;
constexpr double kEven = 0.01; // of a step: what its neighbours may differ by

std::optional<double> soundRate(const std::string &file)
{
    SF_INFO info{};
    const std::unique_ptr<SNDFILE, int (*)(SNDFILE *)> opened(sf_open(file.c_str(), SFM_READ, &info),
                                                              sf_close);
    return opened && info.samplerate > 0 ? std::optional<double>(info.samplerate) : std::nullopt;
}

std::string trimmed(std::string text)
{
    const auto isBlank = [](unsigned char c) { return std::isspace(c) || c == '"'; };
    text.erase(text.begin(), std::ranges::find_if_not(text, isBlank));
    while (!text.empty() && isBlank(static_cast<unsigned char>(text.back())))
        text.pop_back();
    return text;
}

std::vector<std::string> cellsOf(const std::string &line, char delimiter)
{
    std::vector<std::string> cells;
    for (size_t at = 0; at <= line.size();) {
        const size_t end = std::min(line.find(delimiter, at), line.size());
        cells.push_back(trimmed(line.substr(at, end - at)));
        at = end + 1;
    }
    return cells;
}

std::optional<double> numberIn(const std::string &cell)
{
    double number = 0.0;
    const auto [end, error] = std::from_chars(cell.data(), cell.data() + cell.size(), number);
    return error == std::errc() && end == cell.data() + cell.size() ? std::optional(number) : std::nullopt;
}

// Seconds of a unit of time in a heading; empty if it is the heading of something else.
std::optional<double> timeUnit(std::string heading)
{
    std::ranges::transform(heading, heading.begin(), [](unsigned char c) { return std::tolower(c); });
    const size_t bracket = heading.find_first_of("([/");
    const std::string name = trimmed(heading.substr(0, bracket));
    std::string unit = bracket == std::string::npos ? "s" : trimmed(heading.substr(bracket + 1));
    if (unit.ends_with(')') || unit.ends_with(']'))
        unit = trimmed(unit.substr(0, unit.size() - 1));
    if (name != "time" && name != "t" && name != "x_value")
        return std::nullopt;
    return unit == "s"    ? std::optional(1.0)
           : unit == "ms" ? std::optional(1e-3)
           : unit == "us" ? std::optional(1e-6)
                          : std::nullopt;
}

// Times that are rounded to their last digit differ a little; a rate is a round number more often than not.
double rounded(double rate)
{
    constexpr double kNear = 1e-4;
    return rate >= 1.0 && std::abs(rate - std::round(rate)) < kNear * rate ? std::round(rate) : rate;
}

// The rate of evenly spaced times.
std::optional<double> rateOf(const std::vector<double> &times)
{
    if (times.size() < 3)
        return std::nullopt;
    const double step = (times.back() - times.front()) / static_cast<double>(times.size() - 1);
    for (size_t i = 1; i < times.size(); i++)
        if (!(std::abs(times[i] - times[i - 1] - step) <= kEven * step))
            return std::nullopt;
    return step > 0.0 ? std::optional(rounded(1.0 / step)) : std::nullopt;
}

// The lines of the last head of a measurement file that has heads, each with a line at its end, are passed
// over; what its line "Delta_X" says is noted.
std::optional<double> passHeads(std::istream &in)
{
    const auto begin = in.tellg();
    std::optional<double> step;
    auto end = begin;
    std::string line;
    for (size_t i = 0; i < kMostHeadLines && std::getline(in, line); i++) {
        if (line.starts_with("***End_of_Header***"))
            end = in.tellg();
        const auto cells = cellsOf(line, '\t');
        if (cells.size() > 1 && cells[0] == "Delta_X")
            step = numberIn(cells[1]);
    }
    in.clear();
    in.seekg(end);
    return step && *step > 0.0 && end != begin ? std::optional(rounded(1.0 / *step)) : std::nullopt;
}

std::optional<double> tableRate(const std::string &file)
{
    std::ifstream in(file);
    if (const auto rate = passHeads(in))
        return rate;
    std::string line;
    while (std::getline(in, line) && trimmed(line).empty())
        ;
    const size_t found = line.find_first_of("\t;");
    const char delimiter = found == std::string::npos ? ',' : line[found];
    const auto headings = cellsOf(line, delimiter);
    const auto column = std::ranges::find_if(
        headings, [](const std::string &heading) { return timeUnit(heading).has_value(); });
    if (column == headings.end())
        return std::nullopt;
    const auto at = static_cast<size_t>(column - headings.begin());
    std::vector<double> times;
    while (times.size() < kMostTimes && std::getline(in, line)) {
        const auto cells = cellsOf(line, delimiter);
        const auto time = at < cells.size() ? numberIn(cells[at]) : std::nullopt;
        if (!time)
            break;
        times.push_back(*time * *timeUnit(*column));
    }
    return rateOf(times);
}

} // namespace

std::optional<double> sampleRateOf(const std::string &kind, const std::string &file)
{
    if (kind == "wav")
        return soundRate(file);
    if (kind == "csv")
        return tableRate(file);
    return std::nullopt;
}

} // namespace vu
