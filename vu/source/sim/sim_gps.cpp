#include <charconv>
#include <cmath>
#include <ctime>
#include <fmt/format.h>

#include "vu/command.h"
#include "vu/source/gps/nmea_sentence.h"
#include "vu/source/option_values.h"
#include "vu/source/sim/sim.h"

namespace vu {

namespace {

// What the sentences of one fix are made of.
struct Fix {
    std::string time; // hhmmss.sss
    std::string date; // ddmmyy
    uint64_t number;
    double value; // of the waveform
};

std::string position(const Fix &fix)
{
    const double minutes = std::fmod(static_cast<double>(fix.number) * 0.001, 60.0);
    return fmt::format("48{:08.5f},N,011{:08.5f},E", minutes, minutes);
}

using Sentence = std::string (*)(const Fix &);

constexpr Sentence kGarmin[] = {
    [](const Fix &fix) {
        return fmt::format("GPRMC,{},A,{},{:.3f},{:.1f},{},3.1,W,A", fix.time, position(fix),
                           std::abs(fix.value), static_cast<double>(fix.number % 360), fix.date);
    },
    [](const Fix &fix) {
        return fmt::format("GPGGA,{},{},1,08,0.9,{:.3f},M,46.9,M,,", fix.time, position(fix),
                           100.0 + fix.value);
    },
    [](const Fix &) { return std::string("GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1"); },
    [](const Fix &fix) {
        return fmt::format("GPVTG,{:.1f},T,,M,{:.3f},N,{:.3f},K,A", static_cast<double>(fix.number % 360),
                           std::abs(fix.value), std::abs(fix.value) * 1.852);
    },
};

constexpr Sentence kTracker[] = {
    kGarmin[0],
    kGarmin[1],
    [](const Fix &fix) { return fmt::format("PRTLH,{},{:.3f},{:.3f}", fix.time, fix.value, fix.value + 1); },
    [](const Fix &fix) { return fmt::format("PRTLV,{},{:.3f}", fix.time, fix.value); },
    [](const Fix &fix) { return fmt::format("PRTLS,{},{:.3f},{:.3f}", fix.time, fix.value, fix.value + 1); },
    [](const Fix &fix) {
        return fmt::format("PRTLA,{},{:.3f},{:.3f},{:.3f}", fix.time, fix.value, fix.value + 1,
                           fix.value + 2);
    },
    [](const Fix &fix) {
        return fmt::format("PRTLG,{},{:.3f},{:.3f},{:.3f}", fix.time, fix.value, fix.value + 1,
                           fix.value + 2);
    },
    [](const Fix &fix) {
        return fmt::format("PRTLR,{},{:.3f},{:.3f},{:.3f},{:.3f}", fix.time, fix.value, fix.value + 1,
                           fix.value + 2, fix.value + 3);
    },
    [](const Fix &fix) { return fmt::format("PRTLT,{},0,{}", fix.time, fix.number % 2); },
};

std::time_t parseUtc(const std::string &text)
{
    std::tm parts{};
    const char *rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (!rest || *rest != '\0')
        throw InputError(fmt::format("--utc: expected YYYY-MM-DDThh:mm:ss, got '{}'", text));
    return timegm(&parts);
}

class GpsProducer : public SteppedProducer {
public:
    GpsProducer(const SimOptions &sim, const ServeOptions &serving)
        : SteppedProducer(serving.duration), times_(sim.rate, sim.jitter, serving.seed),
          waveform_(sim.waveform), utc_(parseUtc(sim.utc)),
          latency_(static_cast<int64_t>(std::llround(sim.latency * kTicksPerSecond)))
    {
        if (sim.receiver == "tracker")
            sentences_ = kTracker;
        else if (sim.receiver != "garmin")
            throw InputError(fmt::format("--receiver: expected garmin or tracker, got '{}'", sim.receiver));
        parseLost(sim.lostPulses);
    }

private:
    void step(WireWriter &wire, int64_t begin, int64_t end) override;
    void close(WireWriter &wire) override { ReceiverEvents::writeEnd(wire, now_); }
    void parseLost(const std::string &text);
    Fix fixOf(uint64_t number) const;
    void writeFix(WireWriter &wire);
    int64_t arrival(uint64_t fix) const { return times_.at(fix) + latency_; }

    MessageTimes times_;
    Waveform waveform_;
    std::time_t utc_; // of time 0
    int64_t latency_;
    std::span<const Sentence> sentences_ = kGarmin;
    ReceiverEvents events_{true};
    uint64_t fix_ = 0;
    int64_t now_ = 0;
};

void GpsProducer::parseLost(const std::string &text)
{
    if (text.empty())
        return;
    double first = 0.0, behind = 0.0;
    const char *last = text.data() + text.size();
    const auto from = std::from_chars(text.data(), last, first);
    const auto to = from.ec == std::errc{} && from.ptr != last && *from.ptr == ':'
                        ? std::from_chars(from.ptr + 1, last, behind)
                        : from;
    if (to.ec != std::errc{} || to.ptr != last || to.ptr == from.ptr)
        throw InputError(fmt::format("--lost-pulses: expected FROM:TO in seconds, got '{}'", text));
    events_.losePulses(first, behind);
}

Fix GpsProducer::fixOf(uint64_t number) const
{
    const int64_t milliseconds = std::llround(static_cast<double>(number) * 1000.0 / times_.rate());
    const std::time_t second = utc_ + milliseconds / 1000;
    std::tm parts{};
    gmtime_r(&second, &parts);
    return {
        fmt::format("{:02}{:02}{:02}.{:03}", parts.tm_hour, parts.tm_min, parts.tm_sec, milliseconds % 1000),
        fmt::format("{:02}{:02}{:02}", parts.tm_mday, parts.tm_mon + 1, parts.tm_year % 100), number,
        waveform_.at(number, times_.rate())};
}

void GpsProducer::writeFix(WireWriter &wire)
{
    const Fix fix = fixOf(fix_);
    for (const Sentence sentence : sentences_)
        wire.timed(arrival(fix_), nmeaSentence(sentence(fix)));
    account_.made(sentences_.size());
    ++fix_;
}

void GpsProducer::step(WireWriter &wire, int64_t, int64_t end)
{
    // In the order in which they come from a receiver; a pulse goes ahead of a sentence of the same time.
    now_ = end;
    while (std::min(events_.next(), arrival(fix_)) < end) {
        if (events_.next() <= arrival(fix_))
            events_.write(wire);
        else
            writeFix(wire);
    }
}

} // namespace

std::unique_ptr<Producer> simulateGps(const SimOptions &sim, const ServeOptions &serving)
{
    expectSeconds("--latency", sim.latency, 0.0, 3600.0);
    return std::make_unique<GpsProducer>(sim, serving);
}

} // namespace vu
