// A source of a description, tried without starting it.
#pragma once

#include <string>
#include <vector>

#include "vu/description/description.h"

namespace vu {

// What the source would refuse, a line each. `deep` opens its file too, as far as it needs that to answer;
// otherwise only the words are read.
std::vector<std::string> refusalsOf(const Source &source, bool deep);

} // namespace vu
