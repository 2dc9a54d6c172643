#include "vu/description/findings.h"

#include <algorithm>
#include <fmt/format.h>

namespace vu {

namespace {

std::string textOf(const std::vector<Finding> &mistakes, const std::vector<Finding> &warnings)
{
    std::string text;
    for (const Finding &mistake : mistakes)
        text += (text.empty() ? "" : "\n") + mistake.toLine();
    for (const Finding &warning : warnings)
        text += "\n" + warningLine(warning);
    return text;
}

} // namespace

std::string Finding::place() const
{
    std::string front = line > 0 ? fmt::format("{}:{}: ", file, line) : file + ": ";
    if (!key.empty())
        front += key + ": ";
    return front;
}

std::string warningLine(const Finding &warning)
{
    return warning.toLine() + " (warning)";
}

DescriptionError::DescriptionError(std::vector<Finding> theMistakes, std::vector<Finding> theWarnings)
    : InputError(textOf(theMistakes, theWarnings)), mistakes(std::move(theMistakes)),
      warnings(std::move(theWarnings))
{
}

bool Findings::isMistakeUnder(const std::string &path) const
{
    return std::ranges::any_of(mistakes_, [&](const Finding &mistake) {
        return mistake.key.starts_with(path) &&
               (mistake.key.size() == path.size() || mistake.key[path.size()] == '.' ||
                mistake.key[path.size()] == '[');
    });
}

void Findings::throwIfAny() const
{
    if (!mistakes_.empty())
        throw DescriptionError(mistakes_, warnings_);
}

} // namespace vu
