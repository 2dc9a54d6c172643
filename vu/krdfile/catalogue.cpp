#include "vu/krdfile/catalogue.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "libvu/core/wire_format.h"
#include "libvu/datafile/krd_format.h"
#include "vu/krdfile/json_fields.h"
#include "vu/support/json_depth.h"
#include "vu/support/value_type.h"

namespace vu::krd {

namespace {

constexpr uint32_t kTickBytes = VU_TIME_BYTES;
constexpr uint32_t kCanRecordBytes = VU_CAN_RECORD_BYTES;

struct ElementName {
    const char *name;
    uint32_t size; // of a number; 0: no number
};
// In the order of Element: the types of numbers, and then what is no number.
constexpr auto elementNames()
{
    std::array<ElementName, std::size(kValueTypes) + 2> names{};
    for (size_t i = 0; i < std::size(kValueTypes); i++)
        names[i] = {kValueTypes[i].name, kValueTypes[i].size};
    names[std::size(kValueTypes)] = {"can", 0};
    names[std::size(kValueTypes) + 1] = {"bytes", 0};
    return names;
}
constexpr auto kElements = elementNames();
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

// A kind says what its elements are; a channel for which the two disagree cannot be read.
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

Calibration parseCalibration(const OrderedJson &json, size_t number)
{
    const Fields fields(json, fmt::format("catalogue: channels[{}]: calibration", number));
    Calibration calibration{fields.number("scale"), fields.number("offset"), fields.number("zero"), {}};
    calibration.rest = fields.rest();
    return calibration;
}

Recorder parseRecorder(const OrderedJson &json)
{
    const Fields fields(json, "catalogue: recorder");
    Recorder recorder{fields.text("program", ""), fields.text("version", ""), fields.text("host", ""), {}};
    recorder.rest = fields.rest();
    return recorder;
}

Follows parseFollows(const OrderedJson &json)
{
    const Fields fields(json, "catalogue: follows");
    Follows follows{fields.text("id"), fields.whole<uint64_t>("part"), {}};
    follows.rest = fields.rest();
    return follows;
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
    if (fields.has("invalid"))
        channel.invalid = fields.number("invalid");
    if (fields.has("calibration"))
        channel.calibration = parseCalibration(fields.object("calibration"), number);
    channel.values = fields.any("values");
    channel.comment = fields.text("comment", "");
    channel.rest = fields.rest();
    if (channel.group < KRD_GROUP_FIRST_CHANNEL)
        fields.refuse("group", "a number from 2");
    if (channel.element == Element::kUnknown || (!channel.runLength && channel.encodingName != "plain"))
        channel.kind = Kind::kUnknown;
    checkElement(channel, fields);
    return channel;
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

Catalogue catalogueFromJson(const OrderedJson &json)
{
    const Fields fields(json, "catalogue");
    fields.expectFormat("krd");
    Catalogue catalogue;
    catalogue.test = fields.text("test");
    catalogue.startTime = fields.text("start_time");
    catalogue.id = fields.text("id", "");
    if (fields.has("recorder"))
        catalogue.recorder = parseRecorder(fields.object("recorder"));
    if (fields.has("follows"))
        catalogue.follows = parseFollows(fields.object("follows"));
    catalogue.startUtc = fields.text("start_utc", "");
    catalogue.attachments = fields.any("attachments");
    catalogue.ticksPerSecond = fields.whole<int64_t>("ticks_per_second");
    if (catalogue.ticksPerSecond < 1)
        fields.refuse("ticks_per_second", "a whole number above 0");
    for (const OrderedJson &channel : fields.array("channels"))
        catalogue.channels.push_back(parseChannel(channel, catalogue.channels.size()));
    std::ranges::stable_sort(catalogue.channels, {}, &Channel::group);
    const auto twice = std::ranges::adjacent_find(catalogue.channels, {}, &Channel::group);
    if (twice != catalogue.channels.end())
        fields.refuse("channels", fmt::format("group {} once", twice->group));
    catalogue.rest = fields.rest();
    return catalogue;
}

Catalogue parseCatalogue(Bytes payload)
{
    return catalogueFromJson(parseJson(payload, "catalogue"));
}

OrderedJson parseJson(Bytes payload, const char *what)
{
    const std::string_view text(reinterpret_cast<const char *>(payload.data()), payload.size());
    if (isNestedDeeper(text))
        throw FormatError(fmt::format("{}: expected JSON of at most {} levels", what, kMostJsonLevels));
    OrderedJson json = OrderedJson::parse(text, nullptr, false);
    if (json.is_discarded())
        throw FormatError(fmt::format("{}: expected JSON", what));
    return json;
}

OrderedJson withRest(OrderedJson json, const OrderedJson &rest)
{
    for (const auto &item : rest.items())
        json[item.key()] = item.value();
    return json;
}

std::string toText(const OrderedJson &json)
{
    return json.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
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
    if (const auto &applied = channel.calibration)
        json["calibration"] = withRest(
            {{"scale", applied->scale}, {"offset", applied->offset}, {"zero", applied->zero}}, applied->rest);
    if (!channel.values.is_null())
        json["values"] = channel.values;
    if (!channel.comment.empty())
        json["comment"] = channel.comment;
    return withRest(std::move(json), channel.rest);
}

OrderedJson toJson(const Catalogue &catalogue)
{
    OrderedJson json = {{"format", "krd"}, {"version", 1}};
    if (!catalogue.id.empty())
        json["id"] = catalogue.id;
    if (const auto &follows = catalogue.follows)
        json["follows"] = withRest({{"id", follows->id}, {"part", follows->part}}, follows->rest);
    if (const auto &by = catalogue.recorder)
        json["recorder"] =
            withRest({{"program", by->program}, {"version", by->version}, {"host", by->host}}, by->rest);
    json["test"] = catalogue.test;
    json["start_time"] = catalogue.startTime;
    if (!catalogue.startUtc.empty())
        json["start_utc"] = catalogue.startUtc;
    json["ticks_per_second"] = catalogue.ticksPerSecond;
    json["channels"] = OrderedJson::array();
    for (const Channel &channel : catalogue.channels)
        json["channels"].push_back(toJson(channel));
    if (!catalogue.attachments.is_null())
        json["attachments"] = catalogue.attachments;
    return withRest(std::move(json), catalogue.rest);
}

} // namespace vu::krd
