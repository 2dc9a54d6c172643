// The signals of a channel: stanzas written out, a DBC file, or a list of a receiver's channels.
#pragma once

#include <filesystem>

#include "vu/description/description.h"
#include "vu/description/mistakes.h"

namespace vu {

// Reads the keys "signals", "dbc" and "gps" of a channel and fills `channel.signals`.
void readSignals(Fields &keys, const std::filesystem::path &folder, Channel &channel,
                 std::vector<std::string> &warnings);

} // namespace vu
