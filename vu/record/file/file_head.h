// What a recording says of itself, as the records of the data file: filled here, written by `krdfile`.
#pragma once

#include "vu/krdfile/catalogue.h"
#include "vu/record/file/data_file.h"

namespace vu {

krd::Catalogue catalogueOf(const Description &test, const std::vector<DataFile::Stored> &tracks);
krd::LedgerEntry ledgerEntryOf(const DataFile::Stored &stored);
// Without events.
krd::Closing closingOf(const DataFile &file, const char *end, double seconds);

// The parts that the closing block and the summary share. Events are in the order of their time.
Json ledgerJson(const DataFile &file);
// At most `most` of them, the first and the last ones.
Json eventsJson(const Events &events, size_t most = SIZE_MAX);

// A test's start, local time, as ISO 8601 in UTC with nanoseconds; empty if it is no time.
std::string utcOf(const std::string &local);

} // namespace vu
