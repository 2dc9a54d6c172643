// The signals of a channel: stanzas written out, a DBC file, or a list of a receiver's channels.
#pragma once

#include <filesystem>

#include "vu/description/description.h"
#include "vu/description/object_reader.h"

namespace vu {

// Reads the keys "signals", "dbc" and "gps" of a channel and fills `channel.signals`.
void readSignals(ObjectReader &keys, const std::filesystem::path &folder, Channel &channel);

// Completes the stanza of a stream that holds values where it does not say what a sample without a value
// reads, and how long a value is held.
void fillHeldStream(Json &stanza, const std::string &path, ValueType values, const Store &store,
                    Findings &findings);

} // namespace vu
