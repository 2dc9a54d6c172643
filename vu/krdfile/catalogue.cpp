#include "vu/krdfile/catalogue.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>
#include <set>

#include "libvu/datafile/krd_format.h"
#include "vu/support/value_type.h"

namespace vu::krd {

namespace {

constexpr uint32_t kTickBytes = 8;
constexpr uint32_t kCanRecordBytes = 21;

struct ElementName {
    const char *name;
    uint32_t size; // of a number; 0: no number
};
// In the order of Element: the types of numbers, and then what is no number.
constexpr auto kElements = [] {
    std::array<ElementName, std::size(kValueTypes) + 2> names{};
    for (size_t i = 0; i < std::size(kValueTypes); i++)
        names[i] = {kValueTypes[i].name, kValueTypes[i].size};
    names[std::size(kValueTypes)] = {"can", 0};
    names[std::size(kValueTypes) + 1] = {"bytes", 0};
    return names;
}();
static_assert(static_cast<size_t>(Element::kUint64) == static_cast<size_t>(ValueType::kUint64) &&
              static_cast<size_t>(Element::kUnknown) == kElements.size());
// In the order of Kind.
constexpr const char *kKinds[] = {"sequential",  "message_raw",   "message_text",
                                  "message_can", "message_float", "message_float_ntp"};

template <typename Enum>
Enum enumOf(const std::string &name, const auto &names, auto &&nameOf)
{
    const auto found = std::ranges::find(names, name, nameOf);
    return found == std::end(names) ? Enum::kUnknown : static_cast<Enum>(found - std::begin(names));
}

// Typed access to one JSON object; what is missing or of another type is named with its place.
class Fields {
public:
    Fields(const OrderedJson &json, std::string place) : json_(json), place_(std::move(place))
    {
        if (!json.is_object())
            throw FormatError(place_ + ": expected an object");
    }

    std::string text(const char *key) const
    {
        return get(key, "a text", [](const OrderedJson &value) { return value.is_string(); })
            .get<std::string>();
    }
    std::string text(const char *key, const std::string &fallback) const
    {
        return json_.contains(key) ? text(key) : fallback;
    }
    double number(const char *key) const
    {
        return get(key, "a finite number",
                   [](const OrderedJson &value) {
                       return value.is_number() && std::isfinite(value.get<double>());
                   })
            .get<double>();
    }
    bool flag(const char *key) const
    {
        return get(key, "true or false", [](const OrderedJson &value) { return value.is_boolean(); })
            .get<bool>();
    }
    template <typename T>
    T whole(const char *key) const
    {
        const auto fits = [](const OrderedJson &value) {
            return value.is_number_unsigned() &&
                   value.get<uint64_t>() <= static_cast<uint64_t>(std::numeric_limits<T>::max());
        };
        return static_cast<T>(get(key, "a whole number in range", fits).template get<uint64_t>());
    }
    const OrderedJson &array(const char *key) const
    {
        return get(key, "an array", [](const OrderedJson &value) { return value.is_array(); });
    }
    const OrderedJson &object(const char *key) const
    {
        return get(key, "an object", [](const OrderedJson &value) { return value.is_object(); });
    }
    [[noreturn]] void refuse(const std::string &key, const std::string &expected) const
    {
        throw FormatError(fmt::format("{}: '{}': expected {}", place_, key, expected));
    }
    void expectFormat(const char *format) const
    {
        if (text("format") != format)
            refuse("format", fmt::format("\"{}\"", format));
        if (whole<uint32_t>("version") != 1)
            refuse("version", "1, the only version known here");
    }

private:
    const OrderedJson &get(const char *key, const char *expected, auto &&fits) const
    {
        const auto found = json_.find(key);
        if (found == json_.end() || !fits(*found))
            refuse(key, expected);
        return *found;
    }

    const OrderedJson &json_;
    std::string place_;
};

// A kind says what its elements are; a channel for which the two disagree can not be read.
void checkElement(const Channel &channel, const Fields &fields)
{
    const uint32_t value = channel.valueSize();
    switch (channel.kind) {
    case Kind::kSequential:
        if (value == 0 || channel.elementSize != value)
            fields.refuse("element", "a number, and its size in 'element_size'");
        if (!(channel.sampleRate > 0.0))
            fields.refuse("sample_rate", "a number above 0");
        return;
    case Kind::kFloat:
    case Kind::kFloatNtp:
        if (value == 0 || channel.elementSize != kTickBytes + value || channel.runLength)
            fields.refuse("element",
                          "a number stored plain, and its size with 8 bytes of time in 'element_size'");
        return;
    case Kind::kCan:
        if (channel.element != Element::kCan || channel.elementSize != kCanRecordBytes || channel.runLength)
            fields.refuse("element", "\"can\" stored plain, and 21 in 'element_size'");
        return;
    case Kind::kRaw:
    case Kind::kText:
        if (channel.element != Element::kBytes || channel.elementSize != 0 || channel.runLength)
            fields.refuse("element", "\"bytes\" stored plain, and 0 in 'element_size'");
        return;
    case Kind::kUnknown: return;
    }
}

Channel parseChannel(const OrderedJson &json, size_t number)
{
    const Fields fields(json, fmt::format("catalogue: channels[{}]", number));
    Channel channel;
    channel.group = fields.whole<uint32_t>("group");
    channel.name = fields.text("name");
    channel.kindName = fields.text("kind");
    channel.kind = enumOf<Kind>(channel.kindName, kKinds, std::identity());
    channel.elementName = fields.text("element");
    channel.element = enumOf<Element>(channel.elementName, kElements, &ElementName::name);
    channel.encodingName = fields.text("encoding");
    channel.runLength = channel.encodingName == "rle";
    channel.sampleRate = fields.number("sample_rate");
    channel.elementSize = fields.whole<uint32_t>("element_size");
    channel.scale = fields.number("scale");
    channel.offset = fields.number("offset");
    channel.unit = fields.text("unit");
    channel.blockType = fields.whole<int32_t>("block_type");
    channel.hasPosition = fields.flag("has_position");
    channel.parent = fields.text("parent", "");
    if (json.contains("invalid"))
        channel.invalid = fields.number("invalid");
    if (channel.group < KRD_GROUP_FIRST_CHANNEL)
        fields.refuse("group", "a number from 2");
    if (channel.element == Element::kUnknown || (!channel.runLength && channel.encodingName != "plain"))
        channel.kind = Kind::kUnknown;
    checkElement(channel, fields);
    return channel;
}

OrderedJson parseJson(Bytes payload, const char *what)
{
    OrderedJson json = OrderedJson::parse(payload.begin(), payload.end(), nullptr, false);
    if (json.is_discarded())
        throw FormatError(fmt::format("{}: expected JSON", what));
    return json;
}

LedgerEntry parseLedgerEntry(const OrderedJson &json, size_t number)
{
    const Fields fields(json, fmt::format("closing block: ledger[{}]", number));
    LedgerEntry entry;
    entry.group = fields.whole<uint32_t>("group");
    entry.name = fields.text("name");
    entry.received = fields.whole<uint64_t>("received");
    entry.stored = fields.whole<uint64_t>("stored");
    const OrderedJson &discarded = fields.object("discarded");
    const Fields causes(discarded, fmt::format("closing block: ledger[{}]: discarded", number));
    for (const auto &item : discarded.items())
        entry.discarded[item.key()] = causes.whole<uint64_t>(item.key().c_str());
    entry.never = json.value("never", OrderedJson()) == OrderedJson(true);
    return entry;
}

} // namespace

uint32_t Channel::leadingBytes() const
{
    return (hasPosition ? KRD_POSITION_SIZE : 0) + (blockType == KRD_BLOCK_START_AUX ? KRD_AUX_SIZE : 0);
}

uint32_t Channel::valueSize() const
{
    return element == Element::kUnknown ? 0 : kElements[static_cast<size_t>(element)].size;
}

const Channel *Catalogue::byGroup(uint32_t group) const
{
    const auto found = std::ranges::lower_bound(channels, group, {}, &Channel::group);
    return found == channels.end() || found->group != group ? nullptr : &*found;
}

uint64_t LedgerEntry::discardedSum() const
{
    uint64_t sum = 0;
    for (const auto &[cause, count] : discarded)
        sum += count;
    return sum;
}

const LedgerEntry *Closing::byGroup(uint32_t group) const
{
    const auto found = std::ranges::find(ledger, group, &LedgerEntry::group);
    return found == ledger.end() ? nullptr : &*found;
}

bool Closing::diskWasFull() const
{
    const auto lost = [](const LedgerEntry &entry) {
        const auto found = entry.discarded.find("disk_full");
        return found != entry.discarded.end() && found->second > 0;
    };
    return end == "disk_full" || std::ranges::any_of(ledger, lost);
}

Catalogue catalogueFromJson(const OrderedJson &json)
{
    const Fields fields(json, "catalogue");
    fields.expectFormat("krd");
    Catalogue catalogue;
    catalogue.test = fields.text("test");
    catalogue.startTime = fields.text("start_time");
    catalogue.ticksPerSecond = fields.whole<int64_t>("ticks_per_second");
    if (catalogue.ticksPerSecond < 1)
        fields.refuse("ticks_per_second", "a whole number above 0");
    for (const OrderedJson &channel : fields.array("channels"))
        catalogue.channels.push_back(parseChannel(channel, catalogue.channels.size()));
    std::ranges::stable_sort(catalogue.channels, {}, &Channel::group);
    const auto twice = std::ranges::adjacent_find(catalogue.channels, {}, &Channel::group);
    if (twice != catalogue.channels.end())
        fields.refuse("channels", fmt::format("group {} once", twice->group));
    return catalogue;
}

Catalogue parseCatalogue(Bytes payload)
{
    return catalogueFromJson(parseJson(payload, "catalogue"));
}

Closing parseClosing(Bytes payload)
{
    const OrderedJson json = parseJson(payload, "closing block");
    const Fields fields(json, "closing block");
    fields.expectFormat("krd-closing");
    Closing closing;
    closing.end = fields.text("end");
    closing.seconds = fields.number("seconds");
    for (const OrderedJson &entry : fields.array("ledger"))
        closing.ledger.push_back(parseLedgerEntry(entry, closing.ledger.size()));
    closing.events = fields.array("events");
    for (const OrderedJson &offset : fields.array("index_blocks")) {
        if (!offset.is_number_unsigned())
            fields.refuse("index_blocks", "file offsets");
        closing.indexBlocks.push_back(offset.get<uint64_t>());
    }
    closing.catalogue = json.value("catalogue", OrderedJson());
    return closing;
}

OrderedJson toJson(const Channel &channel)
{
    OrderedJson json = {{"group", channel.group},           {"name", channel.name},
                        {"kind", channel.kindName},         {"sample_rate", channel.sampleRate},
                        {"element", channel.elementName},   {"element_size", channel.elementSize},
                        {"encoding", channel.encodingName}, {"scale", channel.scale},
                        {"offset", channel.offset},         {"unit", channel.unit},
                        {"block_type", channel.blockType},  {"has_position", channel.hasPosition}};
    if (!channel.parent.empty())
        json["parent"] = channel.parent;
    if (channel.invalid)
        json["invalid"] = *channel.invalid;
    return json;
}

OrderedJson toJson(const Catalogue &catalogue)
{
    OrderedJson json = {{"format", "krd"},
                        {"version", 1},
                        {"test", catalogue.test},
                        {"start_time", catalogue.startTime},
                        {"ticks_per_second", catalogue.ticksPerSecond},
                        {"channels", OrderedJson::array()}};
    for (const Channel &channel : catalogue.channels)
        json["channels"].push_back(toJson(channel));
    return json;
}

OrderedJson toJson(const Closing &closing)
{
    OrderedJson json = {
        {"format", "krd-closing"}, {"version", 1}, {"end", closing.end}, {"seconds", closing.seconds}};
    json["ledger"] = OrderedJson::array();
    for (const LedgerEntry &entry : closing.ledger) {
        json["ledger"].push_back({{"group", entry.group},
                                  {"name", entry.name},
                                  {"received", entry.received},
                                  {"stored", entry.stored},
                                  {"discarded", entry.discarded}});
        if (entry.never)
            json["ledger"].back()["never"] = true;
    }
    json["events"] = closing.events;
    json["index_blocks"] = closing.indexBlocks;
    if (!closing.catalogue.is_null())
        json["catalogue"] = closing.catalogue;
    return json;
}

} // namespace vu::krd
