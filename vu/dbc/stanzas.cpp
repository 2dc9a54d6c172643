// A Database into the stanzas of CAN signals. What one signal needs beyond the library's means is said here.
#include <cmath>
#include <fmt/format.h>
#include <fnmatch.h>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "vu/dbc/dbc.h"

namespace vu::dbc {

namespace {

using Json = nlohmann::ordered_json;

constexpr uint64_t kWordBits = 64;
constexpr uint32_t kFrameBytes = 8;
constexpr uint32_t kMaxStandardId = 0x7FF;
constexpr uint32_t kMaxExtendedId = 0x1FFFFFFF;
constexpr uint32_t kExactMask = 0xFFFFFFFF;
constexpr uint32_t kPgnMask =
    0x03FFFF00; // data page and parameter group, with the destination if there is one
constexpr uint64_t kMaxSelectorValues = 64; // stanzas for one signal

// Bits from the top of the 64-bit word down to the field, in 64 bits since a file can hold any number.
uint64_t fieldEnd(const Signal &signal)
{
    const uint64_t start = signal.start;
    const uint64_t first = signal.motorola ? start / 8 * 8 + 7 - start % 8 : start;
    return first + signal.length;
}

// Why a signal is left out: in the plural what all of its kind have in common, and what is said of it alone.
struct Problem {
    const char *kind = nullptr; // null: none
    std::string text;
};

Problem fieldProblem(const Signal &signal)
{
    if (signal.length == 0)
        return {"they have no bits", "it has no bits"};
    if (fieldEnd(signal) > kWordBits)
        return {"their fields reach beyond 8 bytes",
                fmt::format("its field of {} bits at {} reaches beyond {} bytes", signal.length, signal.start,
                            kFrameBytes)};
    const uint32_t wanted = signal.number == Signal::Number::kFloat64   ? 64
                            : signal.number == Signal::Number::kFloat32 ? 32
                                                                        : signal.length;
    if (signal.length != wanted)
        return {"floats of another length than 32 or 64 bits",
                fmt::format("a float of {} bits cannot have a length of {}", wanted, signal.length)};
    return {};
}

Problem messageProblem(const Message &message)
{
    if (message.length > kFrameBytes)
        return {"their messages are longer than 8 bytes",
                fmt::format("its message has {} bytes, and a frame has {}", message.length, kFrameBytes)};
    if (message.id > (message.extended ? kMaxExtendedId : kMaxStandardId))
        return {"identifiers of too many bits",
                fmt::format("identifier {} does not fit {} bits", message.id, message.extended ? 29 : 11)};
    return {};
}

// What a message's signals have to do with each other, gathered once.
class Siblings {
public:
    explicit Siblings(const Message &message)
    {
        for (const Signal &signal : message.signals) {
            const auto add = [&signal](Found &found) {
                found.first = found.count++ == 0 ? &signal : found.first;
                found.last = &signal;
            };
            add(byName_[signal.name]);
            if (signal.isSelector)
                add(selectors_);
        }
    }

    bool shareName(const Signal &signal) const { return byName_.at(signal.name).count > 1; }
    // The selector of a multiplexed signal, or null with the reason.
    const Signal *selectorOf(const Signal &signal, Problem &problem) const;

private:
    struct Found {
        const Signal *first = nullptr;
        const Signal *last = nullptr;
        size_t count = 0;
    };
    std::map<std::string_view, Found> byName_;
    Found selectors_;
};

const Signal *Siblings::selectorOf(const Signal &signal, Problem &problem) const
{
    const std::string &named = signal.selection->selector;
    Found found = selectors_;
    if (!named.empty()) {
        const auto place = byName_.find(named);
        found = place == byName_.end() ? Found{} : place->second;
    } else if (signal.isSelector) { // of another level: not its own
        found.first = found.first == &signal ? found.last : found.first;
        --found.count;
    }
    const Signal *selector = found.first;
    if (found.count != 1)
        problem = {
            "multiplexed, and their messages have no one selector",
            fmt::format("it is multiplexed, and {} signals of its message can be its selector", found.count)};
    else if (selector->selection)
        problem = {
            "nested multiplexing",
            fmt::format("nested multiplexing: its selector '{}' is multiplexed itself", selector->name)};
    else if (selector->number != Signal::Number::kInteger || fieldProblem(*selector).kind)
        problem = {
            "their selectors are no integers within 8 bytes",
            fmt::format("its selector '{}' is no integer within {} bytes", selector->name, kFrameBytes)};
    return problem.kind ? nullptr : selector;
}

const char *format(const Signal &signal)
{
    static const char *const kFormats[3][2] = {{"ULSB", "UMSB"}, {"SLSB", "SMSB"}, {"FLSB", "FMSB"}};
    const int kind = signal.number != Signal::Number::kInteger ? 2 : signal.isSigned ? 1 : 0;
    return kFormats[kind][signal.motorola];
}

class Translator {
public:
    explicit Translator(const StanzaOptions &options)
        : options_(options), matched_(options.select.size(), false)
    {
    }

    void add(const Message &message);
    Stanzas finish(const std::vector<Warning> &ofDatabase);

private:
    bool selected(const Message &message, const std::string &name);
    void addMultiplexed(const Message &message, const Signal &signal, const Siblings &siblings,
                        const std::string &name);
    Json stanza(const Message &message, const Signal &signal) const;
    void emit(const std::string &name, const Signal &signal, Json json);
    void leaveOut(const std::string &name, const Problem &problem)
    {
        result_.warnings.push_back({fmt::format("signals left out, {}", problem.kind), name,
                                    fmt::format("{}: left out: {}", name, problem.text)});
    }

    const StanzaOptions &options_;
    std::vector<bool> matched_; // by options_.select
    std::set<std::string> names_;
    Stanzas result_;
};

bool Translator::selected(const Message &message, const std::string &name)
{
    bool any = options_.select.empty();
    for (size_t i = 0; i < options_.select.size(); ++i) {
        const char *glob = options_.select[i].c_str();
        if (fnmatch(glob, name.c_str(), 0) == 0 || fnmatch(glob, message.name.c_str(), 0) == 0)
            any = matched_[i] = true;
    }
    return any;
}

Json Translator::stanza(const Message &message, const Signal &signal) const
{
    const uint32_t mask = options_.match == Match::kPgn && message.extended ? kPgnMask : kExactMask;
    Json json;
    json["db_msg_id"] = fmt::format("{:X}", message.id & mask);
    json["db_msg_mask"] = fmt::format("{:X}", mask);
    json["data_type"] = options_.dataType;
    json["db_data_format"] = format(signal);
    json["db_bit_start"] = signal.start;
    json["db_bit_length"] = signal.length;
    json["scale"] = signal.scale;
    json["offset"] = signal.offset;
    json["sample_rate"] = options_.sampleRate;
    json["pipe_rate"] = options_.pipeRate;
    json["stale_data_expiration_time"] = options_.stale;
    json["invalid_data_output_value"] = options_.invalid;
    return json;
}

void Translator::emit(const std::string &name, const Signal &signal, Json json)
{
    if (!names_.insert(name).second) {
        leaveOut(name, {"of names that other signals have", "there is a signal of this name already"});
        return;
    }
    json["name"] = name;
    // A unit is not the library's business, but a stanza read by a person is better for it.
    json["unit"] = signal.unit;
    SignalStanza made{name, signal.unit, json.dump(), signal.comment, signal.values};
    for (ValueText &one : made.values)
        one.value = one.value * signal.scale + signal.offset;
    std::erase_if(made.values, [](const ValueText &one) { return !std::isfinite(one.value); });
    result_.signals.push_back(std::move(made));
}

void Translator::addMultiplexed(const Message &message, const Signal &signal, const Siblings &siblings,
                                const std::string &name)
{
    Problem problem;
    const Signal *selector = siblings.selectorOf(signal, problem);
    uint64_t count = 0;
    for (const ValueRange &range : signal.selection->values)
        count += uint64_t{range.last} - range.first + 1;
    if (selector && count > kMaxSelectorValues)
        problem = {"of more than 64 selector values",
                   fmt::format("{} selector values, and {} are supported", count, kMaxSelectorValues)};
    if (problem.kind) {
        leaveOut(name, problem);
        return;
    }
    const bool several = count > 1 || siblings.shareName(signal);
    for (const ValueRange &range : signal.selection->values) {
        for (uint64_t value = range.first; value <= range.last; ++value) {
            Json json = stanza(message, signal);
            json["db_mode_format"] = selector->motorola ? "UMSB" : "ULSB"; // values are compared unsigned
            json["db_mode_start"] = selector->start;
            json["db_mode_length"] = selector->length;
            json["db_mode_value"] = value;
            emit(several ? fmt::format("{}.m{}", name, value) : name, signal, std::move(json));
        }
    }
}

void Translator::add(const Message &message)
{
    const Siblings siblings(message);
    const Problem ofMessage = messageProblem(message);
    for (const Signal &signal : message.signals) {
        const std::string name = message.name + "." + signal.name;
        if (!selected(message, name))
            continue;
        const Problem problem = ofMessage.kind ? ofMessage : fieldProblem(signal);
        if (problem.kind)
            leaveOut(name, problem);
        else if (signal.selection)
            addMultiplexed(message, signal, siblings, name);
        else
            emit(name, signal, stanza(message, signal));
    }
}

Stanzas Translator::finish(const std::vector<Warning> &ofDatabase)
{
    result_.warnings.insert(result_.warnings.begin(), ofDatabase.begin(), ofDatabase.end());
    for (size_t i = 0; i < matched_.size(); ++i) {
        const std::string &glob = options_.select[i];
        if (!matched_[i])
            result_.warnings.push_back({"globs that select no signal", fmt::format("'{}'", glob),
                                        fmt::format("'{}' selects no signal", glob)});
    }
    return std::move(result_);
}

} // namespace

std::optional<Match> matchFromName(std::string_view name)
{
    if (name == "exact")
        return Match::kExact;
    if (name == "pgn")
        return Match::kPgn;
    return std::nullopt;
}

Stanzas toStanzas(const Database &database, const StanzaOptions &options)
{
    Translator translator(options);
    for (const Message &message : database.messages)
        translator.add(message);
    return translator.finish(database.warnings);
}

} // namespace vu::dbc
