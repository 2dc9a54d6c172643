#include "vu/description/stanza_rules.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace vu {

namespace {

using Words = std::vector<const char *>;

enum class Form { kText, kNumber, kRate, kPipeRate, kNatural, kHex, kWord, kContains };

struct Rule {
    const char *key;
    Form form;
    bool required = true;
    Words words = {}; // of kWord and kContains
};

const Words kFloatTypes = {"float32", "float64"};
const Words kIntegerFormats = {"ULSB", "UMSB", "SLSB", "SMSB"};

// A stream that holds values needs these, whatever it is cut out of.
const std::vector<Rule> kHeldStream = {
    {"sample_rate", Form::kRate},
    {"pipe_rate", Form::kPipeRate},
    {"invalid_data_output_value", Form::kNumber},
    {"stale_data_expiration_time", Form::kNumber},
    {"scale", Form::kNumber},
    {"offset", Form::kNumber},
    {"rezero_offset", Form::kNumber, false},
};
const std::vector<Rule> kCanSignal = {
    {"data_type", Form::kContains, true, kFloatTypes},
    {"db_msg_id", Form::kHex},
    {"db_msg_mask", Form::kHex, false},
    {"db_bit_start", Form::kNatural},
    {"db_bit_length", Form::kNatural},
    {"db_data_format", Form::kWord, true, {"ULSB", "UMSB", "SLSB", "SMSB", "FLSB", "FMSB"}},
    {"db_mode_start", Form::kNatural, false},
    {"db_mode_length", Form::kNatural, false},
    {"db_mode_value", Form::kNatural, false},
    {"db_mode_format", Form::kWord, false, kIntegerFormats},
};
const std::vector<Rule> kXcpMeasurement = {
    {"data_type", Form::kContains, true, kFloatTypes},
    {"xcp_byte_order",
     Form::kWord,
     true,
     {"MSB_LAST", "LSB_FIRST", "INTEL", "msb_last", "lsb_first", "intel", "little", "MSB_FIRST", "LSB_LAST",
      "MOTOROLA", "msb_first", "lsb_last", "motorola", "big"}},
    {"xcp_data_type",
     Form::kWord,
     true,
     {"UBYTE", "SBYTE", "UWORD", "SWORD", "ULONG", "SLONG", "A_UINT64", "A_INT64", "FLOAT32_IEEE",
      "FLOAT64_IEEE"}},
};
const std::vector<Rule> kGpsSignal = {
    {"data_type", Form::kContains, true, {"_float32", "_float64", "message_raw"}},
    {"connector", Form::kText},
    {"source_database", Form::kText, false},
};
const std::vector<Rule> kStreamSignal = {
    {"data_type", Form::kContains, true, kFloatTypes},
};

bool isHex(const std::string &text)
{
    char *end = nullptr;
    std::strtoul(text.c_str(), &end, 16);
    return end != text.c_str() && *end == '\0' && text.front() != '-';
}

void checkText(Fields &stanza, const Rule &rule)
{
    const size_t before = stanza.mistakes().count();
    const std::string given = rule.required ? stanza.text(rule.key) : stanza.text(rule.key, "");
    if (stanza.mistakes().count() != before || (!rule.required && !stanza.has(rule.key)))
        return;
    const auto fits = [&](const char *word) {
        return rule.form == Form::kWord ? given == word : given.find(word) != std::string::npos;
    };
    if (rule.form == Form::kHex && !isHex(given))
        stanza.mistakes().add(stanza.pathOf(rule.key), "expected a hexadecimal number in quotes");
    if (!rule.words.empty() && std::none_of(rule.words.begin(), rule.words.end(), fits))
        stanza.mistakes().add(stanza.pathOf(rule.key),
                              fmt::format("expected {}one of {}",
                                          rule.form == Form::kWord ? "" : "a text with ",
                                          fmt::join(rule.words, ", ")));
}

void checkNumber(Fields &stanza, const Rule &rule)
{
    static const Fields::Range natural{-0.5, 4294967295.0, "a number from 0 to 4294967295"};
    const Fields::Range &range = rule.form == Form::kRate       ? kSampleRate
                                 : rule.form == Form::kPipeRate ? kPipeRate
                                 : rule.form == Form::kNatural  ? natural
                                                                : kAnyNumber;
    if (rule.required)
        stanza.number(rule.key, range);
    else
        stanza.number(rule.key, range, 0.0);
}

void check(Fields &stanza, const std::vector<Rule> &rules)
{
    for (const Rule &rule : rules) {
        const bool isText = rule.form == Form::kText || rule.form == Form::kHex || rule.form == Form::kWord ||
                            rule.form == Form::kContains;
        isText ? checkText(stanza, rule) : checkNumber(stanza, rule);
    }
}

struct DataType {
    const char *name;
    ChannelKind kind;
    bool wide = false;
    bool ntp = false;
};
const DataType kDataTypes[] = {
    {"sequential_float32", ChannelKind::kSequential},
    {"sequential_float64", ChannelKind::kSequential, true},
    {"message_raw", ChannelKind::kBytes},
    {"message_nmea", ChannelKind::kNmea},
    {"message_can", ChannelKind::kCan},
    {"message_xcp_ip", ChannelKind::kXcp},
    {"message_float32", ChannelKind::kFloats},
    {"message_float64", ChannelKind::kFloats, true},
    {"message_float32_ntp", ChannelKind::kFloats, false, true},
    {"message_float64_ntp", ChannelKind::kFloats, true, true},
};

// The library looks for the first two as a part of the text; so does this.
const DataType *dataTypeOf(const std::string &text)
{
    const auto fits = [&](const DataType &type) {
        return type.kind == ChannelKind::kSequential ? text.find(type.name) != std::string::npos
                                                     : text == type.name;
    };
    const auto found = std::find_if(std::begin(kDataTypes), std::end(kDataTypes), fits);
    return found == std::end(kDataTypes) ? nullptr : found;
}

bool has(const std::string &text, const char *part)
{
    return text.find(part) != std::string::npos;
}

// False if the stanza does not tell.
bool chooseKind(Fields &stanza, Channel &channel)
{
    const std::string dataType = stanza.text("data_type");
    const std::string connector = stanza.text("connector");
    const DataType *type = dataTypeOf(dataType);
    if (has(connector, "pd806h") || has(connector, "pd806k")) {
        channel.kind = ChannelKind::kStream;
        channel.little = has(connector, "pd806k");
        return true;
    }
    if (!type) {
        if (!dataType.empty())
            stanza.mistakes().add(
                stanza.pathOf("data_type"),
                "expected sequential_float32 or 64, message_raw, message_nmea, message_can, "
                "message_xcp_ip, message_float32[_ntp] or 64[_ntp]");
        return false;
    }
    channel.kind = type->kind;
    channel.wide = type->wide;
    channel.ntp = type->ntp;
    if (channel.kind == ChannelKind::kBytes && has(connector, "gps"))
        channel.kind = ChannelKind::kNmea;
    return true;
}

void checkStartTime(Fields &stanza)
{
    const std::string text = stanza.text("start_time", "");
    tm ignored{};
    if (!text.empty() && !strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &ignored))
        stanza.mistakes().add(stanza.pathOf("start_time"),
                              "expected a local time such as 2026-03-15T10:15:30.25");
}

void readLogical(Fields &stanza)
{
    const Json *logical = stanza.find("is_logical");
    if (logical && !logical->is_string() && !logical->is_boolean())
        stanza.mistakes().add(stanza.pathOf("is_logical"), "expected \"TRUE\" or true");
}

} // namespace

bool carriesSignals(ChannelKind kind)
{
    return kind == ChannelKind::kCan || kind == ChannelKind::kXcp || kind == ChannelKind::kNmea ||
           kind == ChannelKind::kStream;
}

void readChannelStanza(Fields &stanza, Channel &channel, std::vector<std::string> &warnings)
{
    channel.name = stanza.text("name");
    const bool known = chooseKind(stanza, channel);
    checkStartTime(stanza);
    stanza.text("purpose", "");
    channel.prerun_zero = stanza.flag("do_prerun_zero", false) && !stanza.has("purpose");
    if (known && channel.kind == ChannelKind::kSequential)
        channel.sample_rate = stanza.number("sample_rate", kSampleRate);
    else if (channel.kind == ChannelKind::kFloats && stanza.has("sample_rate"))
        channel.sample_rate = stanza.number("sample_rate", kSampleRate);
    else
        stanza.number("sample_rate", kAnyNumber, 0.0);
    if (channel.kind == ChannelKind::kFloats && channel.sample_rate > 0.0)
        channel.kind = ChannelKind::kHeldFloats;
    const bool held = channel.kind == ChannelKind::kHeldFloats;
    for (const char *key : {"scale", "offset", "rezero_offset"})
        stanza.number(key, kAnyNumber, 0.0);
    check(stanza, {{"stale_data_expiration_time", Form::kNumber, held},
                   {"invalid_data_output_value", Form::kNumber, held}});
    readLogical(stanza);
    for (const std::string &key : stanza.notAsked())
        warnings.push_back(
            stanza.mistakes().line(stanza.pathOf(key), "is no key of a channel stanza: ignored"));
}

std::string checkSignalStanza(Fields &stanza, ChannelKind kind)
{
    const std::string name = stanza.text("name");
    switch (kind) {
    case ChannelKind::kCan: check(stanza, kCanSignal); break;
    case ChannelKind::kXcp: check(stanza, kXcpMeasurement); break;
    case ChannelKind::kStream: check(stanza, kStreamSignal); break;
    case ChannelKind::kNmea: check(stanza, kGpsSignal); break;
    default: return name;
    }
    const Json *type = stanza.find("data_type");
    const bool isText =
        kind == ChannelKind::kNmea && type && type->is_string() && !has(type->get<std::string>(), "_float");
    if (!isText)
        check(stanza, kHeldStream);
    return name;
}

} // namespace vu
