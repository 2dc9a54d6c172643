// DBC files: the messages and signals of a CAN bus, and the stanzas that make the library decode them.
//
// Reading and translating are apart. A Database holds what the file says, also where the library could not
// decode it; toStanzas() makes a stanza of every signal that can be decoded and names each of the others.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vu::dbc {

struct ValueRange {
    uint32_t first = 0;
    uint32_t last = 0; // included
};

// When a multiplexed signal is there: the selector field of its message holds one of `values`.
struct Selection {
    std::string selector; // empty: the one selector of the message
    std::vector<ValueRange> values;
};

struct Signal {
    enum class Number { kInteger, kFloat32, kFloat64 };

    std::string name;
    std::string unit;    // UTF-8
    uint32_t start = 0;  // Intel: lowest bit; Motorola: highest bit, bit 7 of byte 0 being number 7
    uint32_t length = 0; // bits
    bool motorola = false;
    bool isSigned = false;
    Number number = Number::kInteger;
    double scale = 1.0;
    double offset = 0.0;
    bool isSelector = false;
    std::optional<Selection> selection; // multiplexed signals only
};

struct Message {
    std::string name;
    uint32_t id = 0; // without the bit that marks 29-bit identifiers
    bool extended = false;
    uint32_t length = 0; // bytes
    std::vector<Signal> signals;

    const Signal *find(std::string_view signal) const;
};

struct Database {
    std::vector<Message> messages;
};

// Reads the text of a DBC file. Throws InputError with "FILE:LINE: what was expected"; `fileName` is used for
// that alone. A text that is not UTF-8 is taken as Latin-1.
Database parse(std::string_view text, const std::string &fileName);
// The same, of a file. A file that can not be read is an InputError too.
Database read(const std::filesystem::path &file);

enum class Match {
    kExact, // all 32 bits of the identifier
    kPgn,   // J1939, NMEA 2000: 29-bit identifiers without priority and source address
};
// "exact" or "pgn"; nothing for another word.
std::optional<Match> matchFromName(std::string_view name);

struct StanzaOptions {
    std::string dataType = "float64"; // "float32" or "float64"
    double sampleRate = 100.0;        // Hz
    double pipeRate = 10.0;           // Hz
    double stale = 1.0;               // seconds after which a value is no longer held
    double invalid = -1.0;            // what a sample without a value reads
    Match match = Match::kExact;
    std::vector<std::string> select; // globs over MESSAGE.SIGNAL or MESSAGE; none: every signal
};

struct SignalStanza {
    std::string name; // MESSAGE.SIGNAL; with several selector values MESSAGE.SIGNAL.mVALUE, one stanza each
    std::string unit;
    std::string json; // as can_set_add_signal() takes it
};

struct Stanzas {
    std::vector<SignalStanza> signals;
    std::vector<std::string>
        warnings; // each names a signal that is left out and why, or a glob without a match
};

Stanzas toStanzas(const Database &database, const StanzaOptions &options);

} // namespace vu::dbc
