// What a recording came to: the ledger of every channel, the account of its source, and what happened.
#pragma once

#include "vu/description/description.h"
#include "vu/record/file/data_file.h"
#include "vu/support/account.h"

namespace vu {

struct Outcome {
    const char *end;
    double seconds;
    uint64_t bytes;
};

// An ExitStatus: kDataMissing if anything that should be in the file is not.
int recordingStatus(const DataFile &file, const Events &events, const std::vector<Account> &accounts);
// On standard output, for people or as JSON.
void printSummary(const Description &test, const DataFile &file, const Events &events,
                  const std::vector<Account> &accounts, const Outcome &outcome, bool json);

} // namespace vu
