// DBC files: the messages and signals of a CAN bus, and the stanzas that make the library decode them.
//
// Reading and translating are apart. A Database holds what the file says, also where the library could not
// decode it; toStanzas() makes a stanza of every signal that can be decoded and names each of the others.
// Files are taken as they are: a statement that cannot be read costs that statement and a warning.
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

// One line of a value table.
struct ValueText {
    double value = 0.0; // in the file the raw value, in a SignalStanza the physical one
    std::string text;   // UTF-8
};

// Something that was left out.
struct Warning {
    std::string kind;  // the same for all of one kind, in the plural: "signals left out, they have no bits"
    std::string place; // "MESSAGE.SIGNAL" or "FILE:LINE: what was expected"
    std::string text;  // all there is to say of this one
};
// One line for each kind: the text of a single one, else how many there are and where the first of them are.
std::vector<std::string> summarised(const std::vector<Warning> &warnings);

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
    std::vector<ValueText> values;
    std::string comment;
};

struct Message {
    std::string name; // unique: of two messages that share one, the later is NAME@1F0, its identifier in hex
    uint32_t id = 0;  // without the bit that marks 29-bit identifiers
    bool extended = false;
    uint32_t length = 0; // bytes
    std::string comment;
    std::vector<Signal> signals;
};

struct Database {
    std::vector<Message> messages;
    std::vector<Warning> warnings; // statements that could not be read
};

// Reads the text of a DBC file; one that is no UTF-8 is taken as Windows-1252. Throws InputError where
// nothing comes of it: an empty text, one without a message, or one of which 1000 statements cannot be read.
// `fileName` is used in messages alone.
Database parse(std::string_view text, const std::string &fileName);
// The same, of a file, which may be compressed with gzip. One that cannot be read is an InputError too.
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
    std::string name; // MESSAGE.SIGNAL; one that several selector values carry is MESSAGE.SIGNAL.mVALUE
    std::string unit;
    std::string json; // as can_set_add_signal() takes it
    std::string comment;
    std::vector<ValueText> values;
};

struct Stanzas {
    std::vector<SignalStanza> signals;
    std::vector<Warning> warnings; // those of the database, signals left out, globs without a match
};

Stanzas toStanzas(const Database &database, const StanzaOptions &options);

} // namespace vu::dbc
