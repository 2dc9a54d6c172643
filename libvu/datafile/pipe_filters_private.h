// What runs at a flush, before a block is sized: takes all frames out of the record's pipe and puts one
// converted frame in their place. Returns its bytes, or 0.0 with nothing left in the pipe.
#pragma once

#include "libvu/datafile/krd_buffer.h"

namespace libvu {

double sequential_float32_filter(KRDBuffer *record);
double sequential_float64_filter(KRDBuffer *record);
double message_float32_filter(KRDBuffer *record);
double message_float64_filter(KRDBuffer *record);

} // namespace libvu
