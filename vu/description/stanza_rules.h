// What the library expects in the stanzas of channels and signals, so that a mistake can be named by its key
// before anything runs.
#pragma once

#include "vu/description/description.h"
#include "vu/description/mistakes.h"

namespace vu {

// Fills kind, width, rates and name of `channel` out of its stanza. Keys that the library does not know are
// told in `warnings`.
void readChannelStanza(Fields &stanza, Channel &channel, std::vector<std::string> &warnings);
// Checks a signal's stanza by the kind of its channel; returns its name.
std::string checkSignalStanza(Fields &stanza, ChannelKind kind);
// True for the kinds that signals can be cut out of.
bool carriesSignals(ChannelKind kind);

} // namespace vu
