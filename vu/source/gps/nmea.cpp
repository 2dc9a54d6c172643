#include <CLI/CLI.hpp>
#include <cmath>
#include <exception>
#include <filesystem>
#include <fmt/format.h>

#include "vu/command.h"
#include "vu/source/gps/nmea_live.h"
#include "vu/source/gps/nmea_log.h"
#include "vu/source/kinds.h"
#include "vu/source/log_time.h"
#include "vu/source/text_lines.h"

namespace vu {

namespace {

struct NmeaOptions {
    std::string input;
    bool pps = false;
    std::string ppsDevice;
    double latency = 0.1; // seconds
    double tail = 1.0;    // seconds
    unsigned baud = 9600;
    std::string talker = "GN";
    double longestGap = kLongestGap;
};

int64_t ticksOf(double seconds)
{
    return std::llround(seconds * kTicksPerSecond);
}

class NmeaProducer : public Producer {
public:
    explicit NmeaProducer(const NmeaOptions &options)
        : lines_(options.input), latency_(ticksOf(options.latency)), tail_(ticksOf(options.tail)),
          longestGap_(options.longestGap), events_(options.pps), talkers_(options.talker)
    {
        if (!advance())
            throw InputError(fmt::format("{}: there is no NMEA sentence in it", options.input));
    }

    bool next(WireWriter &wire, int64_t &dueTicks) override;

private:
    bool advance();
    void leaveOut(NmeaLine::Kind kind);
    int64_t arrivalOf(const NmeaLine &line);
    bool finish(WireWriter &wire, int64_t &dueTicks);

    TextLines lines_;
    int64_t latency_;
    int64_t tail_;
    double longestGap_;
    ReceiverEvents events_;
    Talkers talkers_;
    FixTimes fixes_;
    std::string line_;
    std::string sentence_;        // the next to go out; empty at the end
    int64_t arrival_ = 0;         // of it, in ticks from the start
    int64_t latest_ = 0;          // arrival so far
    std::optional<int64_t> zero_; // log time of the start, in a log with times
    std::exception_ptr failure_;
};

// Pulses are at whole seconds, so the start is one too.
int64_t NmeaProducer::arrivalOf(const NmeaLine &line)
{
    if (!line.arrival)
        return zero_ ? latest_ : fixes_.of(line.sentence) + latency_;
    if (!zero_)
        zero_ = *line.arrival / kTicksPerSecond * kTicksPerSecond;
    return *line.arrival - *zero_;
}

void NmeaProducer::leaveOut(NmeaLine::Kind kind)
{
    using Kind = NmeaLine::Kind;
    if (kind == Kind::Comment)
        account_.leaveOut("comments");
    if (kind != Kind::Bad && kind != Kind::BadChecksum)
        return;
    account_.read();
    const char *cause = kind == Kind::BadChecksum ? "failed_checksum" : "unreadable";
    account_.leaveOut(lines_.endedInLine() ? "truncated" : cause, lines_.where(), line_);
}

bool NmeaProducer::advance()
{
    sentence_.clear();
    try {
        while (lines_.next(line_)) {
            const NmeaLine line = parseNmeaLine(line_);
            if (line.kind != NmeaLine::Kind::Sentence) {
                leaveOut(line.kind);
                continue;
            }
            account_.read();
            const bool timed = zero_ && line.arrival;
            const int64_t arrival = arrivalOf(line);
            if (timed)
                checkStep(arrival - arrival_, longestGap_, lines_.where());
            arrival_ = arrival;
            latest_ = std::max(latest_, arrival_);
            sentence_ = talkers_.translate(line.sentence, account_, lines_.where()) + "\r\n";
            return true;
        }
    } catch (const InputError &) {
        account_.leaveOut("truncated");
        failure_ = std::current_exception(); // what came before the damage goes out first
    }
    return false;
}

bool NmeaProducer::next(WireWriter &wire, int64_t &dueTicks)
{
    if (sentence_.empty())
        return finish(wire, dueTicks);
    dueTicks = latest_;
    if (events_.next() <= dueTicks) {
        dueTicks = events_.next();
        events_.write(wire);
        return true;
    }
    // What arrived together goes out together.
    constexpr int kLimit = 512;
    const int64_t together = arrival_;
    int count = 0;
    do {
        wire.timed(arrival_, sentence_);
        account_.wrote();
    } while (advance() && arrival_ == together && ++count < kLimit);
    return true;
}

bool NmeaProducer::finish(WireWriter &wire, int64_t &dueTicks)
{
    if (failure_)
        std::rethrow_exception(failure_);
    dueTicks = latest_ + tail_;
    if (events_.next() < dueTicks) {
        dueTicks = events_.next();
        events_.write(wire);
        return true;
    }
    ReceiverEvents::writeEnd(wire, dueTicks);
    return false;
}

int serveNmea(const ServeOptions &serving, const NmeaOptions &options)
{
    expectSeconds("--latency", options.latency, 0.0, 3600.0);
    expectSeconds("--tail", options.tail, 0.0, 3600.0);
    expectLongestGap(options.longestGap);
    std::error_code ignored; // opening the file reports it better
    if (const auto status = std::filesystem::status(options.input, ignored);
        std::filesystem::is_character_file(status) || std::filesystem::is_fifo(status)) {
        LiveReceiver receiver(openReceiver(options.input, options.baud, options.ppsDevice), options.input,
                              Talkers(options.talker));
        return serve(serving, receiver);
    }
    NmeaProducer producer(options);
    return serve(serving, producer);
}

} // namespace

void addNmea(CLI::App &source, Action &chosen)
{
    CLI::App *kind = source.add_subcommand(
        "nmea",
        "The sentences of a GPS receiver, from a log or from its serial line\n"
        "A plain log is paced by the times of day in it; a log with a time in front of each sentence\n"
        "(2014-08-01T00:00:00.814000Z $GPGGA,...) by those. Heartbeats follow three times a second.\n"
        "Time 0 of a log is the whole second before its first fix or arrival, that of a device the\n"
        "moment when the reader came.\n"
        "Example: vu source nmea drive.nmea --listen unix:run/gps.sock --pps --latency 0.12");
    auto options = std::make_shared<NmeaOptions>();
    kind->add_option("INPUT", options->input, "a log, plain or gzip, or a device such as /dev/ttyUSB0")
        ->required();
    kind->add_flag("--pps", options->pps, "a log gets a pulse at each whole second");
    kind->add_option("--latency", options->latency,
                     "seconds from a fix to its sentences, in a log without arrival times [0.1]");
    kind->add_option("--tail", options->tail,
                     "seconds from the last sentence to the heartbeat at the end: the last values show in "
                     "channels\nwhose sample period is not longer [1]");
    kind->add_option("--baud", options->baud, "of a serial line [9600]");
    kind->add_option("--pps-device", options->ppsDevice,
                     "such as /dev/pps0: where a receiver's pulse comes in");
    kind->add_option("--talker", options->talker,
                     "talkers whose sentences are taken as those of GP, which signals are made of, or none\n"
                     "[GN, the talker of receivers for several systems]");
    kind->add_option("--longest-gap", options->longestGap,
                     "seconds: a longer step in the arrival times of a log, forth or back, ends the source "
                     "with the\nline's number [3600]");
    chooseKind(*kind, chosen, options, serveNmea);
}

} // namespace vu
