// Gathers what is wrong with a description, or worth knowing, and goes on: the user sees all of it at once.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "vu/description/finding.h"
#include "vu/description/located_json.h"

namespace vu {

class Findings {
public:
    explicit Findings(const LocatedJson &text) : text_(text) {}

    void mistake(const std::string &path, std::string_view what) { add(mistakes_, path, what); }
    void warning(const std::string &path, std::string_view what) { add(warnings_, path, what); }
    // One of what a warning only counts.
    void detail(const std::string &path, std::string_view what) { add(details_, path, what); }
    // Something that the description left out, and what is taken for it.
    void filledIn(const std::string &path, std::string_view what) { add(filled_in_, path, what); }
    // A mistake that the text has no place for, such as an option of the command line.
    void mistakeElsewhere(Finding mistake) { mistakes_.push_back(std::move(mistake)); }

    // The front of a line about that path.
    std::string place(const std::string &path) const { return text_.finding(path, "").place(); }
    size_t mistakes() const { return mistakes_.size(); }
    // Whether there is a mistake at that path or below it.
    bool isMistakeUnder(const std::string &path) const;

    const std::vector<Finding> &warnings() const { return warnings_; }
    const std::vector<Finding> &details() const { return details_; }
    const std::vector<Finding> &filledIn() const { return filled_in_; }
    // DescriptionError, if there is a mistake.
    void throwIfAny() const;

private:
    void add(std::vector<Finding> &list, const std::string &path, std::string_view what)
    {
        list.push_back(text_.finding(path, what));
    }

    const LocatedJson &text_;
    std::vector<Finding> mistakes_;
    std::vector<Finding> warnings_;
    std::vector<Finding> details_;
    std::vector<Finding> filled_in_;
};

} // namespace vu
