// What there is to say of one place of a description.
#pragma once

#include <string>
#include <vector>

#include "vu/command.h"

namespace vu {

struct Finding {
    std::string file;
    int line = 0;    // 0: of the file as such
    std::string key; // such as "channels[2].stanza.name"; empty: the text as such
    std::string text;

    std::string place() const; // "FILE:LINE: KEY: "
    std::string toLine() const { return place() + text; }
};

std::string warningLine(const Finding &warning);

// A description with mistakes: its text has a line for each, and after them those of the warnings.
struct DescriptionError : InputError {
    DescriptionError(std::vector<Finding> mistakes, std::vector<Finding> warnings);

    std::vector<Finding> mistakes;
    std::vector<Finding> warnings;
};

} // namespace vu
