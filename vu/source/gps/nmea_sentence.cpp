#include "vu/source/gps/nmea_sentence.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

#include "vu/command.h"

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

Soundness soundnessOf(std::string_view line)
{
    if (!line.starts_with('$') || line.size() < 2 ||
        !std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; }))
        return Soundness::NoSentence;
    const size_t star = line.rfind('*');
    if (star == std::string_view::npos)
        return Soundness::Sound;
    const std::string_view digits = line.substr(star + 1);
    uint8_t sum = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), sum, 16);
    const bool right = error == std::errc{} && digits.size() == 2 && end == digits.data() + 2 &&
                       sum == checksum(line.substr(1, star - 1));
    return right ? Soundness::Sound : Soundness::WrongChecksum;
}

const char *causeOf(Soundness soundness)
{
    return soundness == Soundness::WrongChecksum ? "failed_checksum" : "unreadable";
}

Talkers::Talkers(const std::string &list)
{
    if (list == "none")
        return;
    std::string_view rest = list;
    for (;;) {
        const std::string_view talker = rest.substr(0, rest.find(','));
        if (talker.size() != 2 ||
            !std::all_of(talker.begin(), talker.end(), [](char c) { return c >= 'A' && c <= 'Z'; }))
            throw InputError(fmt::format(
                "--talker: expected talkers of two letters such as GN,GL, or none; got '{}'", list));
        talkers_.emplace_back(talker);
        if (talker.size() == rest.size())
            return;
        rest.remove_prefix(talker.size() + 1);
    }
}

std::string Talkers::translate(std::string_view sentence, InputAccount &account, const std::string &where)
{
    const std::string_view talker = sentence.substr(1, 2);
    if (std::find(talkers_.begin(), talkers_.end(), talker) == talkers_.end() || talker == "GP")
        return std::string(sentence);
    if (!noted_)
        account.note(fmt::format("{}: sentences of the talker {} are taken as those of GP, as --talker says",
                                 where, talker));
    noted_ = true;
    const size_t star = sentence.rfind('*');
    std::string fields = "GP";
    fields += sentence.substr(3, star == std::string_view::npos ? star : star - 3);
    return star == std::string_view::npos ? '$' + fields
                                          : fmt::format("${}*{:02X}", fields, checksum(fields));
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
