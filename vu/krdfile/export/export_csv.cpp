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

// Readers of tables take bare 1E3 for a thousand and 00123 for 123; 0x1E3 is a text to all of them.
std::string hexCell(Bytes bytes)
{
    return bytes.empty() ? "" : "0x" + hexText(bytes);
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
    forEachSample(channel, blocks, settings, [&](int64_t sample, const Number &value, bool noValue) {
        const double time = secondsOf(channel, sample);
        if (noValue)
            file.print("{},{},\n", sample, time);
        else
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
    const auto line = [&](const Message &message) {
        file.print("{},{},", message.tick, secondsText(message.tick, settings.ticksPerSecond));
        if (channel.kind == Kind::kCan) {
            const CanFrame frame = canFrame(message.body);
            file.print("0x{},{:d},{:d},{}", frame.idText(), frame.extended, frame.remote,
                       hexCell(frame.remote ? Bytes() : frame.data));
        } else if (!bytes) {
            if (!isNoValue(channel, message.body.data()))
                appendNumber(file, physicalValue(channel, message.body.data()));
        } else {
            file.append(text ? quoted(message.body) : hexCell(message.body));
        }
        file.append("\n");
    };
    forEachMessage(channel, blocks, line, settings.progress);
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

const ExportFormat kCsvFormat = {"csv", "tables of text, every channel", true, true, false, refusal, write};

Extent extentOf(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings)
{
    Extent extent;
    std::optional<int64_t> expected;
    SampleCursor cursor(channel, blocks);
    extent.begin = extent.end = cursor.atEnd() ? 0 : cursor.sample();
    const auto add = [](uint64_t &sum, uint64_t more) {
        sum = std::min(sum + more, static_cast<uint64_t>(INT64_MAX)); // neither is larger: no wrap
    };
    while (!cursor.atEnd()) {
        if (expected && cursor.sample() > *expected)
            add(extent.missing, static_cast<uint64_t>(cursor.sample() - *expected));
        const uint64_t run = cursor.runLeft();
        add(extent.samples, run);
        extent.no_values |= cursor.noValue();
        expected = sampleAfter(cursor.sample(), run);
        extent.end = std::max(extent.end, *expected);
        cursor.advance(run);
    }
    if (settings.fill)
        add(extent.samples, std::exchange(extent.missing, 0));
    return extent;
}

uint64_t mergedRows(const std::vector<ChannelBlocks> &channels, const ExportSettings &settings)
{
    uint64_t sum = 0;
    int64_t begin = INT64_MAX, end = 0;
    for (const auto &[channel, blocks] : channels) {
        const Extent extent = extentOf(*channel, blocks, settings);
        if (extent.samples == 0)
            continue;
        sum = std::min(sum + extent.samples, static_cast<uint64_t>(INT64_MAX));
        begin = std::min(begin, extent.begin);
        end = std::max(end, extent.end);
    }
    return std::min(sum, end > begin ? static_cast<uint64_t>(end - begin) : sum);
}

void writeMergedCsv(const std::vector<ChannelBlocks> &channels, const ExportSettings &settings,
                    TextFile &file)
{
    std::vector<SampleCursor> cursors;
    file.append("sample,time");
    for (const auto &[channel, blocks] : channels) {
        cursors.emplace_back(*channel, blocks, settings.progress);
        file.print(",{}", quoted(channel->name));
    }
    file.append("\n");

    while (true) {
        const auto isBefore = [](const SampleCursor &one, const SampleCursor &other) {
            return !one.atEnd() && (other.atEnd() || one.sample() < other.sample());
        };
        const auto first = std::ranges::min_element(cursors, isBefore);
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
            if (!cursor.noValue())
                appendNumber(file, cursor.value());
            cursor.next();
        }
        file.append("\n");
    }
}

} // namespace vu::krd
