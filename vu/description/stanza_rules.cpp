#include "vu/description/stanza_rules.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "libvu/proxy/channel_kind.h"

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

void checkText(ObjectReader &stanza, const Rule &rule)
{
    const size_t before = stanza.findings().mistakes();
    const std::string given = rule.required ? stanza.text(rule.key) : stanza.text(rule.key, "");
    if (stanza.findings().mistakes() != before || (!rule.required && !stanza.has(rule.key)))
        return;
    const auto fits = [&](const char *word) {
        return rule.form == Form::kWord ? given == word : given.find(word) != std::string::npos;
    };
    if (rule.form == Form::kHex && !isHex(given))
        stanza.findings().mistake(stanza.pathOf(rule.key), "expected a hexadecimal number in quotes");
    if (!rule.words.empty() && std::none_of(rule.words.begin(), rule.words.end(), fits))
        stanza.findings().mistake(stanza.pathOf(rule.key),
                                  fmt::format("expected {}one of {}",
                                              rule.form == Form::kWord ? "" : "a text with ",
                                              fmt::join(rule.words, ", ")));
}

void checkNumber(ObjectReader &stanza, const Rule &rule)
{
    static const ObjectReader::Range natural{-0.5, 4294967295.0, "a number from 0 to 4294967295"};
    const ObjectReader::Range &range = rule.form == Form::kRate       ? kSampleRate
                                       : rule.form == Form::kPipeRate ? kPipeRate
                                       : rule.form == Form::kNatural  ? natural
                                                                      : kAnyNumber;
    if (rule.required)
        stanza.number(rule.key, range);
    else
        stanza.number(rule.key, range, 0.0);
}

void check(ObjectReader &stanza, const std::vector<Rule> &rules)
{
    for (const Rule &rule : rules) {
        const bool isText = rule.form == Form::kText || rule.form == Form::kHex || rule.form == Form::kWord ||
                            rule.form == Form::kContains;
        isText ? checkText(stanza, rule) : checkNumber(stanza, rule);
    }
}

// False if the stanza does not tell.
bool readKind(ObjectReader &stanza, Channel &channel)
{
    const std::string dataType = stanza.text("data_type");
    const std::string connector = stanza.text("connector");
    const auto is = [&channel](ChannelKind kind, ValueType values = ValueType::kFloat32, bool ntp = false) {
        channel.kind = kind;
        channel.values = values;
        channel.ntp = ntp;
        return true;
    };
    switch (proxyNodeKindOf(dataType.c_str(), connector.c_str())) {
    case PROXY_NODE_KIND_STREAM:
        channel.little = proxyNodeIsLittleStream(connector.c_str());
        return is(ChannelKind::kStream);
    case PROXY_NODE_KIND_SEQUENTIAL_FLOAT32: return is(ChannelKind::kSequential);
    case PROXY_NODE_KIND_SEQUENTIAL_FLOAT64: return is(ChannelKind::kSequential, ValueType::kFloat64);
    case PROXY_NODE_KIND_RAW: return is(ChannelKind::kBytes);
    case PROXY_NODE_KIND_GPS:
    case PROXY_NODE_KIND_NMEA: return is(ChannelKind::kNmea);
    case PROXY_NODE_KIND_CAN: return is(ChannelKind::kCan);
    case PROXY_NODE_KIND_XCP_IP: return is(ChannelKind::kXcp);
    case PROXY_NODE_KIND_FLOAT32: return is(ChannelKind::kFloats);
    case PROXY_NODE_KIND_FLOAT64: return is(ChannelKind::kFloats, ValueType::kFloat64);
    case PROXY_NODE_KIND_FLOAT32_NTP: return is(ChannelKind::kFloats, ValueType::kFloat32, true);
    case PROXY_NODE_KIND_FLOAT64_NTP: return is(ChannelKind::kFloats, ValueType::kFloat64, true);
    case PROXY_NODE_KIND_UNKNOWN: break;
    }
    if (!dataType.empty())
        stanza.findings().mistake(
            stanza.pathOf("data_type"),
            "expected sequential_float32 or 64, message_raw, message_nmea, message_can, "
            "message_xcp_ip, message_float32[_ntp] or 64[_ntp]");
    return false;
}

void checkStartTime(ObjectReader &stanza)
{
    const std::string text = stanza.text("start_time", "");
    if (!text.empty() && !isLocalTime(text))
        stanza.findings().mistake(stanza.pathOf("start_time"),
                                  "expected a local time such as 2026-03-15T10:15:30.25");
}

void readLogical(ObjectReader &stanza)
{
    const Json *logical = stanza.find("is_logical");
    if (logical && *logical != "TRUE" && !logical->is_boolean())
        stanza.findings().mistake(stanza.pathOf("is_logical"), "expected \"TRUE\" or true");
}

// The same rule as in the library: where a field of that format begins in the 64-bit word that is shifted.
void checkField(ObjectReader &stanza, const std::string &format, const char *startKey, const char *lengthKey)
{
    constexpr int64_t kPayloadBits = 64;
    const auto number = [&](const char *key) {
        return static_cast<int64_t>(stanza.number(key, kAnyNumber, 0.0));
    };
    const int64_t start = number(startKey), length = number(lengthKey);
    if (format.front() == 'F' && length == kPayloadBits)
        return; // it takes all of the payload, wherever it is said to begin
    const bool motorola = format.find("MSB") != std::string::npos;
    const int64_t room = motorola ? kPayloadBits - (start / 8 * 8 + 7 - start % 8) : kPayloadBits - start;
    if (start >= kPayloadBits)
        stanza.findings().mistake(stanza.pathOf(startKey), "expected a bit of the payload, from 0 to 63");
    else if (length > room)
        stanza.findings().mistake(
            stanza.pathOf(lengthKey),
            fmt::format("the field leaves the payload: expected at most {} bits from bit "
                        "{} on",
                        room, start));
}

void checkFields(ObjectReader &stanza)
{
    checkField(stanza, stanza.text("db_data_format"), "db_bit_start", "db_bit_length");
    if (stanza.has("db_mode_format"))
        checkField(stanza, stanza.text("db_mode_format"), "db_mode_start", "db_mode_length");
}

bool isTextSignal(ObjectReader &stanza, ChannelKind kind)
{
    const Json *type = stanza.find("data_type");
    return kind == ChannelKind::kNmea && type && type->is_string() &&
           type->get<std::string>().find("_float") == std::string::npos;
}

} // namespace

bool carriesSignals(ChannelKind kind)
{
    switch (kind) {
    case ChannelKind::kCan:
    case ChannelKind::kXcp:
    case ChannelKind::kNmea:
    case ChannelKind::kStream: return true;
    case ChannelKind::kSequential:
    case ChannelKind::kFloats:
    case ChannelKind::kHeldFloats:
    case ChannelKind::kBytes: return false;
    }
    return false;
}

bool isLocalTime(const std::string &text)
{
    tm parts{};
    const char *rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (!rest || parts.tm_sec > 59)
        return false;
    if (*rest == '.')
        for (++rest; *rest >= '0' && *rest <= '9';)
            ++rest;
    tm normal = parts; // the 30th of February becomes the 2nd of March
    timegm(&normal);
    return *rest == '\0' && normal.tm_mday == parts.tm_mday;
}

void checkName(Findings &findings, const std::string &path, const std::string &name)
{
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; };
    if (std::ranges::any_of(name, isControl))
        findings.mistake(path, "expected a name without control characters");
    if (name.size() > kLongestName)
        findings.mistake(
            path, fmt::format("expected a name of at most {} bytes, got {}", kLongestName, name.size()));
}

void readChannelStanza(ObjectReader &stanza, Channel &channel)
{
    channel.name = stanza.text("name");
    checkName(stanza.findings(), stanza.pathOf("name"), channel.name);
    const bool known = readKind(stanza, channel);
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
    stanza.close();
}

std::string checkSignalStanza(ObjectReader &stanza, ChannelKind kind)
{
    const std::string name = stanza.text("name");
    const size_t before = stanza.findings().mistakes();
    checkName(stanza.findings(), stanza.pathOf("name"), name);
    switch (kind) {
    case ChannelKind::kCan:
        check(stanza, kCanSignal);
        if (stanza.findings().mistakes() == before)
            checkFields(stanza);
        break;
    case ChannelKind::kXcp: check(stanza, kXcpMeasurement); break;
    case ChannelKind::kStream: check(stanza, kStreamSignal); break;
    case ChannelKind::kNmea: check(stanza, kGpsSignal); break;
    case ChannelKind::kSequential:
    case ChannelKind::kFloats:
    case ChannelKind::kHeldFloats:
    case ChannelKind::kBytes: return name; // carries no signals: said elsewhere
    }
    if (!isTextSignal(stanza, kind))
        check(stanza, kHeldStream);
    for (const Rule &rule : kHeldStream)
        stanza.know({rule.key});
    stanza.know({"unit", "store"});
    stanza.close();
    return name;
}

} // namespace vu
