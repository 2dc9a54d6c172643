// What a data file says of itself: the catalogue in its first block, the closing block at its end. The
// recorder fills these records, and only the functions here know their JSON. Keys that nobody here knows are
// kept in `rest` and written again.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "vu/krdfile/bytes.h"
#include "vu/support/account.h"

namespace vu::krd {

using OrderedJson = nlohmann::ordered_json;

// A block whose checksum is right and whose text is not what the format says.
struct FormatError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class Kind { kSequential, kRaw, kText, kCan, kFloat, kFloatNtp, kUnknown };
enum class Element {
    kFloat32,
    kFloat64,
    kInt8,
    kUint8,
    kInt16,
    kUint16,
    kInt32,
    kUint32,
    kInt64,
    kUint64,
    kCan,
    kBytes,
    kUnknown
};

// What the library made of a value before it was stored: value x scale + offset - zero.
struct Calibration {
    double scale = 1.0;
    double offset = 0.0;
    double zero = 0.0;
    OrderedJson rest;
};

struct Channel {
    uint32_t group = 0;
    std::string name;
    std::string kindName; // as the file has it, and the next two
    std::string elementName;
    std::string encodingName;
    Kind kind = Kind::kUnknown; // kUnknown: of a later version; its blocks can be copied, not read
    Element element = Element::kUnknown;
    bool runLength = false;
    double sampleRate = 0.0;  // Hz; 0 for message channels
    uint32_t elementSize = 0; // bytes of one element; 0 where elements differ in length
    double scale = 1.0;       // value = stored x scale + offset
    double offset = 0.0;
    std::string unit;
    int32_t blockType = 0;
    bool hasPosition = true;
    std::string parent;            // the channel it was decoded from, or empty
    std::optional<double> invalid; // the stored value that stands for "no value"
    std::optional<Calibration> calibration;
    OrderedJson values; // texts by value, as a value table has them; or null
    std::string comment;
    OrderedJson rest;

    bool periodic() const { return kind == Kind::kSequential; }
    bool identity() const { return scale == 1.0 && offset == 0.0; }
    // Bytes of position and auxiliary field before the samples of a block.
    uint32_t leadingBytes() const;
    // Bytes of one stored value; 0 if the element is no number.
    uint32_t valueSize() const;
};

struct Recorder {
    std::string program;
    std::string version;
    std::string host;
    OrderedJson rest;
};

// The file that a split recording was continued from.
struct Follows {
    std::string id;
    uint64_t part = 0;
    OrderedJson rest;
};

struct Catalogue {
    std::string id; // of this file, a UUID; empty in files of the first recorders, like the next two
    std::optional<Recorder> recorder;
    std::optional<Follows> follows;
    std::string test;
    std::string startTime; // local time, as the test was given it
    std::string startUtc;  // the same instant, ISO 8601 with nanoseconds and "Z"; may be empty
    int64_t ticksPerSecond = 0;
    std::vector<Channel> channels;
    OrderedJson attachments; // what blocks follow the catalogue, or null
    OrderedJson rest;

    const Channel *byGroup(uint32_t group) const;
};

struct LedgerEntry {
    uint32_t group = 0; // 0: the channel is not stored
    std::string name;
    uint64_t received = 0; // elements, and so the next two
    uint64_t stored = 0;
    std::map<std::string, uint64_t> discarded; // by cause
    bool never = false;                        // a signal that never had a value
    OrderedJson rest;

    uint64_t discardedSum() const;
};

struct SourceAccount : Account {
    OrderedJson rest;
};

struct Closing {
    std::string end; // why the recording ended
    double seconds = 0.0;
    std::vector<LedgerEntry> ledger;
    std::vector<SourceAccount> accounts;
    OrderedJson events = OrderedJson::array();
    uint64_t eventsLeftOut = 0;        // for want of room
    std::vector<uint64_t> indexBlocks; // file offsets
    OrderedJson catalogue;             // a second copy, or null
    OrderedJson rest;

    const LedgerEntry *byGroup(uint32_t group) const;
    // A full disk leaves index entries for blocks that were never written.
    bool diskWasFull() const;
};

// All throw FormatError.
Catalogue parseCatalogue(Bytes payload);
Catalogue catalogueFromJson(const OrderedJson &json);
Closing parseClosing(Bytes payload);
OrderedJson toJson(const Channel &channel);
OrderedJson toJson(const Catalogue &catalogue);
OrderedJson toJson(const Closing &closing);
OrderedJson toJson(const LedgerEntry &entry);

// The JSON of a block; `what` names it in the FormatError.
OrderedJson parseJson(Bytes payload, const char *what);
// `json` and the keys that were kept for it.
OrderedJson withRest(OrderedJson json, const OrderedJson &rest);
// The bytes of a block: one line, in which bytes that are no UTF-8 are replaced.
std::string toText(const OrderedJson &json);

} // namespace vu::krd
