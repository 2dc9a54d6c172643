// What a test will bring: bytes per second, and how long the disk lasts.
#pragma once

#include "vu/description/description.h"

namespace vu {

struct Forecast {
    double bytes_per_second = 0.0; // of everything periodic, with the blocks around it
    size_t stored_tracks = 0;
    size_t irregular_tracks = 0; // message channels: how much they bring nobody knows before
    double free_bytes = 0.0;     // on the disk of the data file

    double secondsToFull() const { return free_bytes / bytes_per_second; } // infinite without a rate
};

Forecast forecast(const Description &test);

} // namespace vu
