// Zeroes asked for while a test runs, by a line `zero CHANNEL` on standard input.
#pragma once

#include <ev.h>
#include <string>
#include <vector>

#include "vu/record/file/track.h"

namespace vu {

// Asks for a zero of one track. Returns what is wrong, or an empty text.
std::string requestZero(const std::vector<Track> &tracks, const std::string &name);

// Reads such lines while it lives; what cannot be done is said on standard error.
class ZeroLines {
public:
    explicit ZeroLines(const std::vector<Track> &tracks);
    ~ZeroLines();
    ZeroLines(const ZeroLines &) = delete;
    ZeroLines &operator=(const ZeroLines &) = delete;

private:
    static void onReadable(struct ev_loop *loop, ev_io *watcher, int events);
    void take(const std::string &line) const;

    const std::vector<Track> &tracks_;
    ev_io input_;
    std::string rest_; // a line that has not ended yet
};

} // namespace vu
