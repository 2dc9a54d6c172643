// The JSON parts that the closing block and the summary share.
#pragma once

#include "vu/description/located_json.h"
#include "vu/record/file/data_file.h"

namespace vu {

// An entry a stored track; with `all` also for those that the description does not want stored, as group -1.
Json ledgerJson(const DataFile &file, bool all);
Json eventsJson(const Events &events);

} // namespace vu
