// The making of a CanSignalNode, which CAN signals and stream signals share.
#pragma once

#include "libvu/bus/can_signal.h"
#include "libvu/bus/signal_stanza_private.h"

namespace libvu {

// What a kind of signal reads between the stanza's `offset` and `pipe_rate`. False after a report of its own,
// or with a key missing in `required`.
using ReadOwnKeys = bool (*)(const Stanza &stanza, RequiredKeys &required, CanSignalNode &node);

// A node with its stream from a stanza; null after a report.
CanSignalNode *makeSignal(const char *json, ReadOwnKeys readOwnKeys);

} // namespace libvu
