// Where a channel is served and found: "unix:PATH" or "tcp:HOST:PORT".
#pragma once

#include <cstdint>
#include <string>

namespace vu {

struct Address {
    enum class Family { Unix, Tcp } family = Family::Unix;
    std::string path; // of a unix socket
    std::string host; // name or number; an IPv6 number without its brackets
    uint16_t port = 0;

    std::string text() const; // the form that parseAddress() takes
};

// Throws InputError, which says what was expected.
Address parseAddress(const std::string &text);

} // namespace vu
