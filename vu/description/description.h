// A test as it is described: channels with their sources, how they are stored, what is watched.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "vu/description/finding.h"
#include "vu/description/located_json.h"
#include "vu/support/value_type.h"

namespace vu {

// How a channel or signal goes into the file.
struct Store {
    bool wanted = true;
    std::string element; // "int16", "float64" and so on; empty: as it comes
    bool run_length = false;
    double scale = 1.0; // stored = (value - offset) / scale
    double offset = 0.0;
    int64_t limit = -1; // samples; below 0: none
    std::string path;   // where the description says so
};

// The process that produces a channel, started by `vu run`: `vu source KIND INPUT --options`.
struct Source {
    std::string kind;
    std::vector<std::string> arguments; // after the kind
};

// One signal of a channel, with the stanza that the library takes.
struct Signal {
    std::string path;
    std::string where; // the path with file and line, for messages
    std::string name;
    std::string stanza;
    std::string unit;
    Store store;
    bool text = false; // texts with times; everything else is a stream of numbers
    ValueType values = ValueType::kFloat64;
    double sample_rate = 0.0;                                // Hz
    double pipe_rate = 10.0;                                 // frames per second, at least 1
    std::optional<double> invalid;                           // what a sample without a value reads
    std::string comment;                                     // from a DBC file, like the next
    std::vector<std::pair<double, std::string>> value_texts; // of its value table, by physical value
};

// What a channel's data type and connector make of it.
enum class ChannelKind { kSequential, kFloats, kHeldFloats, kBytes, kNmea, kCan, kXcp, kStream };

struct Channel {
    std::string path;
    std::string where; // the path with file and line, for messages
    std::string name;
    std::string address; // "unix:PATH" or "tcp:HOST:PORT"
    ChannelKind kind = ChannelKind::kSequential;
    ValueType values = ValueType::kFloat32;
    bool ntp = false;    // absolute times
    bool little = false; // of a module stream: its samples are little-endian
    bool prerun_zero = false;
    double sample_rate = 0.0;       // Hz; 0: irregular
    double pipe_rate = 10.0;        // frames per second
    double signal_pipe_rate = 10.0; // the same for its signals: at least 1
    std::optional<double> invalid;  // of held values: what a sample without one reads
    std::string unit;
    std::string stanza;
    Store store;
    std::optional<Source> source;
    std::vector<Signal> signals;
};

struct WatchedChannel {
    std::string path;
    std::string channel;
    uint8_t mode = 1; // 1: both limits, 2: upper, 3: lower
    double lower = 0.0;
    double upper = 0.0;
    bool report = true;
};

struct Monitor {
    std::string path;
    std::string name;
    double rate = 1.0; // windows per second
    Store store;
    std::vector<WatchedChannel> channels;
};

struct Description {
    std::string name;
    std::string start_time;      // local time; the moment of loading if the description says "now" or nothing
    std::string start_utc;       // the same instant, for the file; empty: from `start_time`
    double duration = 0.0;       // seconds; 0: until the sources end
    std::filesystem::path file;  // the data file
    double flush_interval = 0.2; // seconds
    double sync_interval = 1.0;  // seconds; 0: only at the end
    double connect_timeout = 10.0; // seconds
    std::vector<Channel> channels;
    std::vector<Monitor> monitors;
    std::vector<Finding> warnings;
    std::vector<Finding> details;   // every line of what a warning only counts
    std::vector<Finding> filled_in; // what the description left out, and what is taken for it
};

// Who starts the sources. Those that this command is to start are tried while it reads: what they would
// refuse is a mistake of the description.
enum class Sources { kElsewhere, kHere };

class Findings;

struct ReadOptions {
    Sources sources = Sources::kElsewhere;
    std::string output;      // the data file in place of the one in the description; empty: none
    double seconds = 0.0;    // the duration likewise; 0: none
    bool try_output = false; // what keeps the data file from being made is a mistake
    bool replace = false;    // an existing data file is none
    // Called for every channel that is sound so far: adds what else speaks against it.
    std::function<void(const Channel &, Findings &)> try_channel;
};

// Reads a description. Paths in it are relative to its folder. Throws DescriptionError with every mistake in
// it: "FILE:LINE: channels[2].stanza.sample_rate: expected a number above 0".
Description readDescription(const std::filesystem::path &file, const ReadOptions &options = {});
// The same of a text; `file` gives its name and folder.
Description parseDescription(std::string_view text, const std::filesystem::path &file,
                             const ReadOptions &options = {});

} // namespace vu
