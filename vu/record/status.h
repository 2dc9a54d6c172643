// How a recording fares at this moment, in a few lines for people.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vu/description/description.h"
#include "vu/record/file/data_file.h"
#include "vu/record/live_channel.h"

namespace vu {

// "status: 12.3 s of 60 s, 1.2 MB in drive.krd, 16 of 17 sources are there, 3 events", and a line for what
// was lost so far, if anything was.
std::string statusText(const Description &test, const DataFile &file, const Events &events,
                       const std::vector<std::unique_ptr<LiveChannel>> &channels);

} // namespace vu
