#include <algorithm>

#include "vu/krdfile/export/export_formats.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

// The shortest decimals that read back as the same value of the same type.
void appendNumber(TextFile &file, const Number &number)
{
    std::visit([&file](auto value) { file.print("{}", value); }, number);
}

double secondsOf(const Channel &channel, int64_t sample)
{
    return static_cast<double>(sample) / channel.sampleRate;
}

bool isText(Bytes bytes)
{
    return std::ranges::all_of(
        bytes, [](uint8_t byte) { return byte >= ' ' || byte == '\t' || byte == '\r' || byte == '\n'; });
}

// Quotes around it, quotes in it doubled; the line end that a sentence brings along stays outside.
std::string quoted(Bytes bytes)
{
    std::string text = "\"";
    while (!bytes.empty() && (bytes.back() == '\r' || bytes.back() == '\n'))
        bytes = bytes.first(bytes.size() - 1);
    for (const uint8_t byte : bytes)
        text.append(byte == '"' ? 2 : 1, static_cast<char>(byte));
    return text + '"';
}

std::string quoted(const std::string &name)
{
    if (name.find_first_of(",\"\r\n") == std::string::npos)
        return name;
    return quoted(Bytes(reinterpret_cast<const uint8_t *>(name.data()), name.size()));
}

void writeSamples(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings,
                  TextFile &file)
{
    file.append("sample,time,value\n");
    forEachSample(channel, blocks, settings, [&](int64_t sample, const Number &value) {
        const double time = secondsOf(channel, sample);
        std::visit([&](auto number) { file.print("{},{},{}\n", sample, time, number); }, value);
    });
}

void writeMessages(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings,
                   TextFile &file)
{
    bool text = true;
    const bool bytes = channel.element == Element::kBytes;
    if (channel.kind == Kind::kRaw) // sentences are, protocols are not
        forEachMessage(channel, blocks,
                       [&text](const Message &message) { text = text && isText(message.body); });
    file.print("tick,time,{}\n", channel.kind == Kind::kCan ? "id,extended,remote,data"
                                 : !bytes                   ? "value"
                                 : text                     ? "text"
                                                            : "hex");
    forEachMessage(channel, blocks, [&](const Message &message) {
        file.print("{},{},", message.tick, secondsText(message.tick, settings.ticksPerSecond));
        if (channel.kind == Kind::kCan) {
            const CanFrame frame = canFrame(message.body);
            file.print("{},{:d},{:d},{}", frame.idText(), frame.extended, frame.remote,
                       hexText(frame.remote ? Bytes() : frame.data));
        } else if (!bytes) {
            appendNumber(file, physicalValue(channel, message.body.data()));
        } else {
            file.append(text ? quoted(message.body) : hexText(message.body));
        }
        file.append("\n");
    });
}

std::string refusal(const Channel &channel, std::span<const Block>, const ExportSettings &)
{
    return channel.kind == Kind::kUnknown ? "its kind is not known to this version" : "";
}

void write(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings,
           TextFile &file)
{
    (channel.periodic() ? writeSamples : writeMessages)(channel, blocks, settings, file);
}

} // namespace

const ExportFormat kCsvFormat = {"csv", refusal, write};

Extent extentOf(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings)
{
    Extent extent;
    std::optional<int64_t> expected;
    SampleCursor cursor(channel, blocks);
    while (!cursor.atEnd()) {
        if (expected && cursor.sample() > *expected)
            extent.missing += static_cast<uint64_t>(cursor.sample() - *expected);
        const uint64_t run = cursor.alike();
        extent.samples += run;
        expected = sampleBehind(cursor.sample(), run);
        cursor.advance(run);
    }
    if (settings.fill)
        extent.samples += std::exchange(extent.missing, 0);
    return extent;
}

void writeMergedCsv(const std::vector<ChannelBlocks> &channels, const ExportSettings &settings,
                    TextFile &file)
{
    std::vector<SampleCursor> cursors;
    file.append("sample,time");
    for (const auto &[channel, blocks] : channels) {
        cursors.emplace_back(*channel, blocks);
        file.print(",{}", quoted(channel->name));
    }
    file.append("\n");

    while (true) {
        const auto behind = [](const SampleCursor &one, const SampleCursor &other) {
            return !one.atEnd() && (other.atEnd() || one.sample() < other.sample());
        };
        const auto first = std::ranges::min_element(cursors, behind);
        if (first == cursors.end() || first->atEnd())
            break;
        const int64_t sample = first->sample();
        file.print("{},{}", sample, secondsOf(*channels.front().channel, sample));
        for (SampleCursor &cursor : cursors) {
            file.append(",");
            if (cursor.atEnd() || cursor.sample() != sample) {
                if (settings.fill)
                    file.print("{}", *settings.fill);
                continue;
            }
            appendNumber(file, cursor.value());
            cursor.next();
        }
        file.append("\n");
    }
    file.finish();
}

} // namespace vu::krd
