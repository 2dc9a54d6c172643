#include "vu/source/gps/nmea_sentence.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace vu {

namespace {

constexpr std::string_view kPulse = "#pps";
constexpr std::string_view kHeartbeat = "#hb\r\n"; // five characters: a record of length 13
constexpr int64_t kHeartbeatDelay = kTicksPerSecond / 4;

uint8_t checksum(std::string_view text)
{
    uint8_t sum = 0;
    for (const char c : text)
        sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(c));
    return sum;
}

} // namespace

int64_t ReceiverEvents::next() const
{
    const int64_t heartbeat = heartbeat_ * kTicksPerSecond / kHeartbeatsPerSecond;
    return pulses_ ? std::min(heartbeat, pulse_ * kTicksPerSecond) : heartbeat;
}

void ReceiverEvents::write(WireWriter &wire, int64_t limit)
{
    const int64_t ticks = next();
    if (pulses_ && ticks == pulse_ * kTicksPerSecond) {
        const auto second = static_cast<double>(pulse_++);
        if (second < lostFrom_ || second >= lostTo_)
            writePulse(wire, ticks);
        return;
    }
    writeHeartbeat(wire, std::min(ticks, limit));
    ++heartbeat_;
}

void ReceiverEvents::losePulses(double from, double to)
{
    lostFrom_ = from;
    lostTo_ = to;
}

void ReceiverEvents::writePulse(WireWriter &wire, int64_t ticks)
{
    wire.timed(ticks, kPulse);
}

void ReceiverEvents::writeHeartbeat(WireWriter &wire, int64_t ticks)
{
    if (ticks >= kHeartbeatDelay)
        wire.timed(ticks - kHeartbeatDelay, kHeartbeat);
}

void ReceiverEvents::writeEnd(WireWriter &wire, int64_t ticks)
{
    wire.timed(ticks, kHeartbeat);
}

std::string nmeaSentence(std::string_view fields)
{
    return fmt::format("${}*{:02X}\r\n", fields, checksum(fields));
}

bool isSoundSentence(std::string_view line)
{
    if (!line.starts_with('$') || line.size() < 2 ||
        !std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; }))
        return false;
    const size_t star = line.rfind('*');
    if (star == std::string_view::npos)
        return true;
    const std::string_view digits = line.substr(star + 1);
    uint8_t sum = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), sum, 16);
    return error == std::errc{} && digits.size() == 2 && end == digits.data() + 2 &&
           sum == checksum(line.substr(1, star - 1));
}

std::string_view nmeaField(std::string_view sentence, size_t number)
{
    std::string_view rest = sentence.substr(0, sentence.rfind('*'));
    for (; number > 0; --number) {
        const size_t comma = rest.find(',');
        if (comma == std::string_view::npos)
            return {};
        rest.remove_prefix(comma + 1);
    }
    return rest.substr(0, rest.find(','));
}

} // namespace vu
