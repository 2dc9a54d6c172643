// What a DBC file says of its messages and signals outside their own statements, and its way to them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "vu/dbc/dbc.h"

namespace vu::dbc {

struct SignalKey {
    uint32_t id;        // as the file writes it, with the mark of 29 bits
    std::string signal; // empty: the message itself
    auto operator<=>(const SignalKey &) const = default;
};

struct Extras {
    std::map<SignalKey, Signal::Number> numbers;
    std::map<SignalKey, Selection> selections;
    std::map<SignalKey, std::string>
        longNames; // names are cut at 32 characters, attributes have them complete
    std::map<SignalKey, std::string> comments;
    std::map<SignalKey, std::vector<ValueText>> values;
};

// `ids` are those of `messages`, as the file writes them. Names of messages are unique afterwards.
void attach(std::vector<Message> &messages, const std::vector<uint32_t> &ids, const Extras &extras);

} // namespace vu::dbc
