// The source of a channel: the words of `vu source` that start it, and what speaks against them.
#pragma once

#include "vu/description/channel_reader.h"
#include "vu/description/object_reader.h"

namespace vu {

// `stanza`: that of the channel, completed.
Source readSource(ObjectReader &keys, const Reading &reading, const Channel &channel, const Json &stanza);
// Makes mistakes of what `vu source` would refuse.
void checkSource(ObjectReader &keys, const Reading &reading, const Channel &channel);
// The rate that the file of a source knows itself; empty where it knows none, or where it is read in a way of
// its own.
std::optional<double> knownSampleRate(const Json &channel, const Reading &reading);

} // namespace vu
