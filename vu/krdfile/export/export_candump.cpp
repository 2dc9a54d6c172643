// CAN traffic as a candump log.
#include <algorithm>

#include "vu/krdfile/export/export_formats.h"

namespace vu::krd {

namespace {

constexpr size_t kIdBytes = 4;
constexpr size_t kDataBytes = 8;
constexpr uint32_t kMaxStandardId = 0x7FF;
constexpr int64_t kMicrosecondsPerSecond = 1'000'000;

// Flags of a raw CAN record.
constexpr uint8_t kLengthBits = 0x0F;
constexpr uint8_t kRemote = 0x10;
constexpr uint8_t kExtended = 0x80;

std::string refusal(const Channel &channel, std::span<const Block>, const ExportSettings &)
{
    return channel.kind == Kind::kCan ? "" : "it is no raw CAN channel";
}

// To the nearest microsecond, the unit of such a log.
int64_t microseconds(int64_t tick, int64_t ticksPerSecond)
{
    const int64_t seconds = tick / ticksPerSecond;
    const double rest = static_cast<double>(tick % ticksPerSecond) / static_cast<double>(ticksPerSecond);
    int64_t total = 0;
    if (__builtin_mul_overflow(seconds, kMicrosecondsPerSecond, &total))
        return seconds < 0 ? INT64_MIN : INT64_MAX;
    return total +
           static_cast<int64_t>(rest * static_cast<double>(kMicrosecondsPerSecond) + (rest < 0 ? -0.5 : 0.5));
}

// A remote frame brings no data, only the length that it asks for.
std::string remoteText(const CanFrame &frame)
{
    return frame.data.empty() ? "R" : fmt::format("R{}", frame.data.size());
}

// The name of a bus is one word of a line: a blank or a line end in a channel's name would make another line.
std::string oneWord(std::string name)
{
    for (char &c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= ' ' || byte == 0x7F)
            c = '_';
    }
    return name.empty() ? "can" : name;
}

void write(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings,
           TextFile &file)
{
    const std::string bus = oneWord(settings.bus.empty() ? channel.name : settings.bus);
    const auto line = [&](const Message &message) {
        const CanFrame frame = canFrame(message.body);
        int64_t time = 0;
        if (__builtin_add_overflow(microseconds(message.tick, settings.ticksPerSecond),
                                   settings.originMicroseconds, &time) ||
            time < 0)
            time = 0; // such a log knows no time before its own origin
        file.print("({}.{:06}) {} {}#{}\n", time / kMicrosecondsPerSecond, time % kMicrosecondsPerSecond, bus,
                   frame.idText(), frame.remote ? remoteText(frame) : hexText(frame.data));
    };
    forEachMessage(channel, blocks, line, settings.progress);
}

} // namespace

const ExportFormat kCandumpFormat = {"candump", "the log of a raw CAN channel", false, false, true, refusal,
                                     write};

std::string CanFrame::idText() const
{
    return extended ? fmt::format("{:08X}", id) : fmt::format("{:03X}", id);
}

CanFrame canFrame(Bytes body)
{
    CanFrame frame;
    const uint8_t flags = body[kIdBytes + kDataBytes];
    frame.id = loadBig32(body.data());
    frame.extended = (flags & kExtended) != 0 || frame.id > kMaxStandardId;
    frame.remote = (flags & kRemote) != 0;
    const Bytes payload = body.subspan(kIdBytes, kDataBytes);
    // Not every source gives the length. Bytes after it that are not padding show that this one did not.
    const size_t given = std::min<size_t>(flags & kLengthBits, kDataBytes);
    const bool padded = std::ranges::all_of(payload.subspan(given), [](uint8_t byte) { return byte == 0; });
    frame.data = payload.first(padded ? given : kDataBytes);
    return frame;
}

std::string hexText(Bytes bytes)
{
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}

} // namespace vu::krd
