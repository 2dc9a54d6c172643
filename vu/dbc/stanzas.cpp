// A Database into the stanzas of CAN signals. What one signal needs beyond the library's means is said here.
#include <fmt/format.h>
#include <fnmatch.h>
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

std::string fieldProblem(const Signal &signal)
{
    if (signal.length == 0)
        return "it has no bits";
    if (fieldEnd(signal) > kWordBits)
        return fmt::format("its field of {} bits at {} reaches beyond {} bytes", signal.length, signal.start,
                           kFrameBytes);
    const uint32_t wanted = signal.number == Signal::Number::kFloat64   ? 64
                            : signal.number == Signal::Number::kFloat32 ? 32
                                                                        : signal.length;
    if (signal.length != wanted)
        return fmt::format("a float of {} bits can not have a length of {}", wanted, signal.length);
    return {};
}

// The selector of a multiplexed signal, or null with the reason.
const Signal *selectorOf(const Message &message, const Signal &signal, std::string &problem)
{
    const Signal *selector = nullptr;
    size_t candidates = 0;
    for (const Signal &candidate : message.signals) {
        const std::string &named = signal.selection->selector;
        const bool fits =
            named.empty() ? candidate.isSelector && &candidate != &signal : candidate.name == named;
        if (!fits)
            continue;
        selector = &candidate;
        ++candidates;
    }
    if (candidates != 1)
        problem =
            fmt::format("it is multiplexed, and {} signals of its message can be its selector", candidates);
    else if (selector->selection)
        problem = fmt::format("nested multiplexing: its selector '{}' is multiplexed itself", selector->name);
    else if (selector->number != Signal::Number::kInteger || !fieldProblem(*selector).empty())
        problem = fmt::format("its selector '{}' is no integer within {} bytes", selector->name, kFrameBytes);
    return problem.empty() ? selector : nullptr;
}

std::string messageProblem(const Message &message)
{
    if (message.length > kFrameBytes)
        return fmt::format("its message has {} bytes, and a frame has {}", message.length, kFrameBytes);
    if (message.id > (message.extended ? kMaxExtendedId : kMaxStandardId))
        return fmt::format("identifier {} does not fit {} bits", message.id, message.extended ? 29 : 11);
    return {};
}

const char *format(const Signal &signal)
{
    static const char *const kFormats[3][2] = {{"ULSB", "UMSB"}, {"SLSB", "SMSB"}, {"FLSB", "FMSB"}};
    const int kind = signal.number != Signal::Number::kInteger ? 2 : signal.isSigned ? 1 : 0;
    return kFormats[kind][signal.motorola];
}

class Translator {
public:
    Translator(const StanzaOptions &options) : options_(options), matched_(options.select.size(), false) {}

    void add(const Message &message, const Signal &signal);
    Stanzas finish();

private:
    bool selected(const Message &message, const std::string &name);
    Json stanza(const Message &message, const Signal &signal) const;
    void emit(const std::string &name, const Signal &signal, Json json);
    void leaveOut(const std::string &name, const std::string &why)
    {
        result_.warnings.push_back(fmt::format("{}: left out: {}", name, why));
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
        leaveOut(name, "there is a signal of this name already");
        return;
    }
    json["name"] = name;
    // A unit is not the library's business, but a stanza read by a person is better for it.
    json["unit"] = signal.unit;
    result_.signals.push_back({name, signal.unit, json.dump()});
}

void Translator::add(const Message &message, const Signal &signal)
{
    const std::string name = message.name + "." + signal.name;
    if (!selected(message, name))
        return;
    std::string problem = messageProblem(message);
    if (problem.empty())
        problem = fieldProblem(signal);
    if (!problem.empty() || !signal.selection) {
        if (problem.empty())
            emit(name, signal, stanza(message, signal));
        else
            leaveOut(name, problem);
        return;
    }

    const Signal *selector = selectorOf(message, signal, problem);
    uint64_t count = 0;
    for (const ValueRange &range : signal.selection->values)
        count += uint64_t{range.last} - range.first + 1;
    if (problem.empty() && count > kMaxSelectorValues)
        problem = fmt::format("{} selector values, and {} are supported", count, kMaxSelectorValues);
    if (!selector || !problem.empty()) {
        leaveOut(name, problem);
        return;
    }
    for (const ValueRange &range : signal.selection->values) {
        for (uint64_t value = range.first; value <= range.last; ++value) {
            Json json = stanza(message, signal);
            json["db_mode_format"] = selector->motorola ? "UMSB" : "ULSB"; // values are compared unsigned
            json["db_mode_start"] = selector->start;
            json["db_mode_length"] = selector->length;
            json["db_mode_value"] = value;
            emit(count == 1 ? name : fmt::format("{}.m{}", name, value), signal, std::move(json));
        }
    }
}

Stanzas Translator::finish()
{
    for (size_t i = 0; i < matched_.size(); ++i) {
        if (!matched_[i])
            result_.warnings.push_back(fmt::format("'{}' selects no signal", options_.select[i]));
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
    for (const Message &message : database.messages) {
        for (const Signal &signal : message.signals)
            translator.add(message, signal);
    }
    return translator.finish();
}

} // namespace vu::dbc
