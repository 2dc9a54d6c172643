// The making of a CanSignalNode, which CAN signals and stream signals share.
#pragma once

#include "libvu/bus/can_signal.h"
#include "libvu/bus/signal_stanza_private.h"

namespace libvu {

// What a kind of signal reads between the stanza's `offset` and `pipe_rate`. False after a report of its own,
// or with a key missing in `required`.
using ReadOwnKeys = bool (*)(const Stanza &stanza, RequiredKeys &required, CanSignalNode &node);

// A copy of `text` in memory of its own. False, with null in its place, if there is none and the caller
// survives that.
using CopyText = bool (*)(const char *text, char *&copy);

// A node with its Sequentializer from a stanza; null after a report.
CanSignalNode *makeSignal(const char *json, ReadOwnKeys readOwnKeys, CopyText copyText);

} // namespace libvu
