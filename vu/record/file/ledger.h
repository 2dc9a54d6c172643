// What became of every element of a track: received = stored + discarded, by cause.
#pragma once

#include <array>
#include <cstdint>
#include <utility>

namespace vu {

struct Ledger {
    uint64_t received = 0; // samples or messages, as they came
    uint64_t stored = 0;
    uint64_t nobody_listening = 0; // the description does not want them stored
    uint64_t limit = 0;            // beyond the limit of the description
    uint64_t disk_full = 0;
    uint64_t conversion = 0; // refused by the conversion to the stored type
    uint64_t unfinished = 0; // no frame could be had for them
    bool never = false;      // a signal that never had a value: what was received are samples without one

    // What should be in the file and is not.
    uint64_t lost() const { return disk_full + conversion + unfinished; }
    uint64_t discarded() const { return nobody_listening + limit + lost(); }
    bool closes() const { return received == stored + discarded(); }
    std::array<std::pair<const char *, uint64_t>, 5> causes() const
    {
        return {{{"nobody_listening", nobody_listening},
                 {"limit", limit},
                 {"disk_full", disk_full},
                 {"conversion", conversion},
                 {"unfinished", unfinished}}};
    }
};

} // namespace vu
