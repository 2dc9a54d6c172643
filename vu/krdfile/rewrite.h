// A complete file out of what is left of one: its complete blocks as they were, with a new index and closing
// block.
#pragma once

#include <functional>
#include <string>

#include "vu/krdfile/recording.h"

namespace vu::krd {

// Takes the bytes of the new file, in order.
using ByteSink = std::function<void(Bytes)>;

// Of blocks that contradict each other some are left out, as mend() has it. Without a catalogue the channels
// get names after their groups and an unknown kind: their blocks are kept, and reading them waits for a
// catalogue.
void rewrite(const Recording &damaged, const ByteSink &sink);

// Compares a rewritten file with the one it was made of: an empty text, or what is wrong with it.
std::string compareRewritten(const Recording &damaged, const Recording &rewritten);

} // namespace vu::krd
