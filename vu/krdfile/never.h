// Signals of a recording that never had a value: a wrong identifier, a sensor that is not connected, a
// receiver of another kind.
#pragma once

#include <string>
#include <vector>

#include "vu/krdfile/recording.h"

namespace vu::krd {

// Their names, as the ledger of the closing block has them.
std::vector<std::string> neverNames(const Recording &recording);
// "3 of 40 signals never had a value: A, B, C", with the first ten names or all; empty if each had one.
std::string neverText(const Recording &recording, bool all);

} // namespace vu::krd
