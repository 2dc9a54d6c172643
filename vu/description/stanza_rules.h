// What the library expects in the stanzas of channels and signals, so that a mistake can be named by its key
// before anything runs.
#pragma once

#include "vu/description/description.h"
#include "vu/description/object_reader.h"

namespace vu {

// Fills kind, type of values, rates and name of `channel` out of its stanza.
void readChannelStanza(ObjectReader &stanza, Channel &channel);
// Checks a signal's stanza by the kind of its channel; returns its name.
std::string checkSignalStanza(ObjectReader &stanza, ChannelKind kind);
// True for the kinds that signals are decoded from.
bool carriesSignals(ChannelKind kind);
// Whether a text is a local time such as 2026-03-15T10:15:30.25, on a day that exists.
bool isLocalTime(const std::string &text);
// A name in the data file, and of what is exported from it: no control characters, and short enough.
void checkName(Findings &findings, const std::string &path, const std::string &name);

// A file name has at most 255 bytes; the rest is for what is appended to a name, such as ".candump".
constexpr size_t kLongestName = 240;

} // namespace vu
