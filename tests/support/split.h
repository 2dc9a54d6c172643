// A text into its pieces.
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace vu::test {

using Strings = std::vector<std::string>;

inline Strings split(const std::string &text, char at)
{
    Strings pieces;
    std::istringstream in(text);
    for (std::string piece; std::getline(in, piece, at);)
        pieces.push_back(piece);
    return pieces;
}

} // namespace vu::test
