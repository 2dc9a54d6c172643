#include "vu/source/can/candump_survey.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <vector>

#include "vu/source/can/candump_line.h"
#include "vu/source/text_lines.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

constexpr uint64_t kMostLines = 200'000;

// Steps from frame to frame look like times that count from 0, but for this: where times rise with every
// frame, steps fall as often as they rise.
class StepDetector {
public:
    void look(const CandumpLine &line)
    {
        if (!line.ticks || line.time.find_first_not_of("0123456789.") != std::string_view::npos)
            return;
        if (frames_++ == 0)
            beginsAtZero_ = line.time == "000.000000";
        else if (*line.ticks <= before_)
            ++notRising_;
        before_ = *line.ticks;
    }
    bool found() const { return beginsAtZero_ && notRising_ > 0 && notRising_ * 4 >= frames_ - 1; }

private:
    bool beginsAtZero_ = false;
    uint64_t frames_ = 0;
    uint64_t notRising_ = 0;
    int64_t before_ = 0;
};

std::string busesText(const CandumpSurvey &survey)
{
    std::vector<std::string> parts;
    for (const auto &[name, count] : survey.buses)
        parts.push_back(fmt::format("{} ({})", printable(name, 40), count));
    return fmt::format("{}{}", fmt::join(parts, ", "),
                       survey.complete ? "" : fmt::format(", in its first {} lines", kMostLines));
}

} // namespace

CandumpSurvey surveyCandump(const std::string &path)
{
    constexpr size_t kMostBuses = 64;
    CandumpSurvey survey;
    StepDetector steps;
    TextLines lines(path);
    std::string text;
    try {
        while (lines.next(text)) {
            if (lines.number() > kMostLines || survey.buses.size() > kMostBuses) {
                survey.complete = false;
                break;
            }
            const CandumpLine line = parseCandumpLine(text);
            if (!line.isFrame())
                continue;
            ++survey.buses[std::string(line.bus)];
            steps.look(line);
        }
    } catch (const InputError &) {
        survey.complete = false;
    }
    survey.differences = steps.found();
    return survey;
}

void checkCandump(const std::string &path, const std::string &bus)
{
    std::error_code ignored; // opening the file says it better
    if (!std::filesystem::is_regular_file(path, ignored) && std::filesystem::exists(path, ignored))
        return; // what is read from a pipe is gone
    const CandumpSurvey survey = surveyCandump(path);
    if (survey.differences)
        throw InputError(fmt::format("{}: its times are steps from frame to frame (candump -td), which give "
                                     "no time axis: expected a log of candump -L, -ta or -tz",
                                     path));
    if (bus.empty() && survey.buses.size() > 1)
        throw InputError(
            fmt::format("{}: it has the frames of several buses: expected one of them as bus (--bus): {}",
                        path, busesText(survey)));
    if (!bus.empty() && survey.complete && !survey.buses.empty() && !survey.buses.contains(bus))
        throw InputError(fmt::format("{}: no frame came on the bus '{}': expected one of {}", path,
                                     printable(bus, 40), busesText(survey)));
}

} // namespace vu
