// What a record without a message does to a CAN signal, whichever way the record came.
#pragma once

#include "libvu/core/callbacks.h"
#include "libvu/time/sequentializer_private.h"

namespace libvu {

// A pending zero is served by the invalid value, which reads 0.0 from then on.
template <typename Signal>
inline void advanceSilent(Signal &signal, Moment time)
{
    Sequentializer *seq = signal.sequentializer;
    if (signal.rezero_pending && libvuRezeroCallback) {
        signal.rezero_offset = seq->invalid_value;
        seq->invalid_value = 0.0;
        libvuRezeroCallback(signal.name, signal.rezero_offset);
        signal.rezero_pending = 0;
    }
    advance(*seq, time);
}

} // namespace libvu
