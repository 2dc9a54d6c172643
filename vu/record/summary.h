// What a recording came to: the ledger of every channel and what happened.
#pragma once

#include "vu/description/description.h"
#include "vu/record/file/data_file.h"

namespace vu {

struct Outcome {
    const char *end;
    double seconds;
    uint64_t bytes;
};

// An ExitStatus: kDataMissing if anything that should be in the file is not.
int recordingStatus(const DataFile &file, const Events &events);
// On standard output, for people or as JSON.
void printSummary(const Description &test, const DataFile &file, const Events &events, const Outcome &outcome,
                  bool json);

} // namespace vu
