// NumPy arrays, version 1.0 of their format. A periodic channel without gaps is a plain array of its values;
// anything else is an array of records that carry their sample number or tick.
#include <algorithm>
#include <limits>

#include "vu/krdfile/export/export_formats.h"

namespace vu::krd {

namespace {

constexpr size_t kAlignment = 64; // of the data, for those who map the file
constexpr size_t kPreamble = 10;  // magic, version, length of the header
constexpr size_t kCanData = 8;
constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

template <typename T>
void appendLittle(TextFile &file, T value)
{
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    file.append({bytes, sizeof bytes});
}

std::string valueType(const Channel &channel)
{
    if (!channel.identity() || channel.element == Element::kFloat64)
        return "<f8";
    const std::string &name = channel.elementName;
    const char kind = name.starts_with("float") ? 'f' : name.starts_with("uint") ? 'u' : 'i';
    return fmt::format("{}{}{}", channel.valueSize() == 1 ? '|' : '<', kind, channel.valueSize());
}

// In the type that valueType() names.
void appendValue(TextFile &file, const Channel &channel, const Number &number)
{
    if (channel.identity() && !std::holds_alternative<float>(number) &&
        !std::holds_alternative<double>(number)) {
        const uint64_t bits = std::visit([](auto value) { return static_cast<uint64_t>(value); }, number);
        file.append({reinterpret_cast<const char *>(&bits), channel.valueSize()}); // the low bytes come first
    } else if (const auto *single = std::get_if<float>(&number)) {
        appendLittle(file, *single);
    } else {
        appendLittle(file, toDouble(number));
    }
}

void appendHeader(TextFile &file, const std::string &type, uint64_t length)
{
    std::string header =
        fmt::format("{{'descr': {}, 'fortran_order': False, 'shape': ({},), }}", type, length);
    header.append(kAlignment - (kPreamble + header.size() + 1) % kAlignment, ' ');
    header += '\n';
    file.append({"\x93NUMPY\x01\x00", 8});
    appendLittle(file, static_cast<uint16_t>(header.size()));
    file.append(header);
}

void writeSamples(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings,
                  TextFile &file)
{
    const Extent extent = extentOf(channel, blocks, settings);
    const bool numbered = extent.missing > 0;
    // A fill that the stored integers cannot hold would be cut, and none of them is "no value"; doubles hold
    // both.
    Channel shown = channel;
    if ((settings.fill || extent.no_values) && channel.element != Element::kFloat32)
        shown.element = Element::kFloat64;
    const std::string value = valueType(shown);
    appendHeader(file,
                 numbered ? fmt::format("[('sample', '<i8'), ('value', '{}')]", value)
                          : fmt::format("'{}'", value),
                 extent.samples);
    forEachSample(channel, blocks, settings, [&](int64_t sample, const Number &number, bool noValue) {
        const double shownValue = noValue ? kNone : toDouble(number);
        if (numbered)
            appendLittle(file, sample);
        if (value == "<f4")
            appendLittle(file, static_cast<float>(shownValue));
        else if (value == "<f8")
            appendLittle(file, shownValue);
        else
            appendValue(file, channel, number);
    });
}

void appendCan(TextFile &file, const CanFrame &frame)
{
    appendLittle(file, frame.id);
    appendLittle(file, static_cast<uint8_t>(frame.extended));
    appendLittle(file, static_cast<uint8_t>(frame.remote));
    appendLittle(file, static_cast<uint8_t>(frame.data.size()));
    char data[kCanData] = {};
    std::ranges::copy(frame.data, data);
    file.append({data, sizeof data});
}

void writeMessages(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings,
                   TextFile &file)
{
    uint64_t count = 0;
    for (const Block &block : blocks)
        count += samplesSize(channel, block) / channel.elementSize;
    const bool can = channel.kind == Kind::kCan;
    // A whole number that stands for "no value" is a NaN, and an array has one type.
    Channel shown = channel;
    if (!can && channel.invalid && channel.element != Element::kFloat32)
        shown.element = Element::kFloat64;
    const std::string value = can ? "" : valueType(shown);
    appendHeader(
        file,
        can ? "[('tick', '<i8'), ('id', '<u4'), ('extended', '|b1'), ('remote', '|b1'), ('length', '|u1'), "
              "('data', '|u1', (8,))]"
            : fmt::format("[('tick', '<i8'), ('value', '{}')]", value),
        count);
    const auto record = [&](const Message &message) {
        appendLittle(file, message.tick);
        if (can)
            return appendCan(file, canFrame(message.body));
        const uint8_t *stored = message.body.data();
        const Number number = isNoValue(channel, stored) ? Number(kNone) : physicalValue(channel, stored);
        if (value == "<f4")
            appendLittle(file, static_cast<float>(toDouble(number)));
        else if (value == "<f8")
            appendLittle(file, toDouble(number));
        else
            appendValue(file, channel, number);
    };
    forEachMessage(channel, blocks, record, settings.progress);
}

std::string refusal(const Channel &channel, std::span<const Block>, const ExportSettings &)
{
    if (channel.kind == Kind::kUnknown)
        return "its kind is not known to this version";
    return channel.element == Element::kBytes ? "messages of different lengths make no array" : "";
}

void write(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings,
           TextFile &file)
{
    (channel.periodic() ? writeSamples : writeMessages)(channel, blocks, settings, file);
}

} // namespace

const ExportFormat kNpyFormat = {"npy", "NumPy arrays of numbers and CAN frames", false, true, false, refusal,
                                 write};

} // namespace vu::krd
