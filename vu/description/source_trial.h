// A source of a description, tried without starting it.
#pragma once

#include <string>
#include <vector>

#include "vu/description/description.h"

namespace vu {

struct SourceRefusal {
    std::string option; // without its dashes; empty: none in particular
    std::string text;
};

// What the source would refuse. `deep` opens its file too, as far as it needs that to answer; otherwise only
// the words are read.
std::vector<SourceRefusal> refusalsOf(const Source &source, bool deep);

// The kinds of sources that there are.
const std::vector<std::string> &sourceKinds();

// The options of a kind of source, without their dashes.
std::vector<std::string> optionsOf(const std::string &kind);

} // namespace vu
