#include "vu/source/sim/sim.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "libvu/proxy/channel_kind.h"
#include "vu/command.h"
#include "vu/source/kinds.h"
#include "vu/source/samples/sample_stream.h"

namespace vu {

namespace {

class WaveformReader : public SampleReader {
public:
    WaveformReader(const Waveform &waveform, double rate) : waveform_(waveform), rate_(rate) {}
    size_t read(std::span<float> out) override { return fill(out); }
    size_t read(std::span<double> out) override { return fill(out); }

private:
    template <class T>
    size_t fill(std::span<T> out)
    {
        for (T &sample : out)
            sample = static_cast<T>(waveform_.at(next_++, rate_));
        return out.size();
    }

    Waveform waveform_;
    double rate_;
    uint64_t next_ = 0;
};

using Simulate = std::unique_ptr<Producer> (*)(const SimOptions &, const ServeOptions &);

// As a recorder chooses the reader of a channel.
Simulate familyOf(const ServeOptions &serving)
{
    switch (proxyNodeKindOf(serving.dataType.c_str(), serving.connector.c_str())) {
    case PROXY_NODE_KIND_STREAM: return simulateStream;
    case PROXY_NODE_KIND_GPS:
    case PROXY_NODE_KIND_NMEA: return simulateGps;
    case PROXY_NODE_KIND_RAW: return simulateRaw;
    case PROXY_NODE_KIND_CAN: return simulateCan;
    case PROXY_NODE_KIND_XCP_IP: return simulateXcp;
    case PROXY_NODE_KIND_SEQUENTIAL_FLOAT32:
    case PROXY_NODE_KIND_SEQUENTIAL_FLOAT64:
    case PROXY_NODE_KIND_FLOAT32:
    case PROXY_NODE_KIND_FLOAT64:
    case PROXY_NODE_KIND_FLOAT32_NTP:
    case PROXY_NODE_KIND_FLOAT64_NTP:
    case PROXY_NODE_KIND_UNKNOWN: return simulateFloats; // which refuses what it does not know
    }
    return simulateFloats;
}

int simulate(ServeOptions serving, SimOptions sim)
{
    const Simulate family = familyOf(serving);
    sim.waveform.seed = serving.seed;
    if (family == simulateFloats && serving.dataType.find("sequential_float") != std::string::npos) {
        if (serving.sampleRate == 0.0)
            serving.sampleRate = 1000.0;
        return serveSamples(serving, std::make_unique<WaveformReader>(sim.waveform, serving.sampleRate));
    }
    if (sim.rate == 0.0)
        sim.rate = family == simulateGps ? 1.0 : serving.sampleRate > 0.0 ? serving.sampleRate : 100.0;
    if (!(sim.rate > 0.0 && sim.rate <= 1e7))
        throw InputError(fmt::format("--rate: expected above 0 and up to 1e7 a second, got {}", sim.rate));
    expectSeconds("--jitter", sim.jitter, 0.0, 3600.0);
    sim.startTicks = parseStartTime(sim.startTime);
    const std::unique_ptr<Producer> producer = family(sim, serving);
    serving.duration = 0.0; // the producer ends by itself
    return serve(serving, *producer);
}

std::string footer()
{
    return std::string(Waveform::help()) +
           "\nMessage n of a channel of R messages a second (--rate), in ticks of 25 ns:\n"
           "  time  = max(0, round(n / R * 4e7) + llround(jitter * (2 * u'(n) - 1) * 4e7))\n"
           "  value = sample n of the waveform; u' is u with seed + 1\n"
           "Messages whose time without jitter lies before --duration are sent.\n"
           "  message_raw     byte i of message n is (n + i) modulo 256\n"
           "  message_can     one frame for each identifier; with v = value + the identifier's place from "
           "0:\n"
           "                  bytes 0-1 round(100 v) as signed Intel, 2-3 the same as signed Motorola,\n"
           "                  4-7 v as binary32 Intel; a time-only record every 10 ms\n"
           "  message_xcp_ip  an entry for each measurement, value + its index, rounded and limited for\n"
           "                  integers; a time-only message every 10 ms\n"
           "  message_nmea, or message_raw with 'gps' in the connector: fix n has a latitude of 48 and a\n"
           "                  longitude of 11 degrees and n thousandths of a minute, the speed |value| "
           "knots,\n"
           "                  the altitude 100 + value, the heading n modulo 360; numbers of $PRTL "
           "sentences\n"
           "                  are value, value + 1 and so on\n"
           "  a connector with 'pd806h' (big-endian) or 'pd806k' (little-endian): a module stream; signal k\n"
           "                  has value + k\n";
}

void addMessageOptions(CLI::App &kind, SimOptions &sim)
{
    const auto in = [&](const char *group, CLI::Option *option) { option->group(group); };
    in("Messages",
       kind.add_option("--rate", sim.rate,
                       "messages, fixes or stream samples a second [--sample-rate, or 100; 1 fix]"));
    in("Messages", kind.add_option("--jitter", sim.jitter, "seconds by which times vary at most [0]"));
    in("Messages",
       kind.add_option("--start-time", sim.startTime,
                       "local time of time 0, for NTP kinds and streams: the start_time of the test "
                       "[now]"));
    in("Messages", kind.add_option("--size", sim.size, "bytes of a raw message [32]"));
    in("Bus",
       kind.add_option("--can-ids", sim.canIds, "hexadecimal; 8 digits: of 29 bits [100]")->delimiter(','));
    in("Bus", kind.add_option("--xcp-types", sim.xcpTypes, "xcp_data_type of each measurement [FLOAT32_IEEE]")
                  ->delimiter(','));
    in("Bus", kind.add_option("--xcp-byte-order", sim.xcpByteOrder, "big or little [little]"));
    in("GPS",
       kind.add_option("--receiver", sim.receiver, "garmin, or tracker with $PRTL sentences [garmin]"));
    in("GPS", kind.add_option("--utc", sim.utc, "time of the first fix and pulse [2026-03-15T12:00:00]"));
    in("GPS", kind.add_option("--latency", sim.latency, "seconds from a fix to its sentences [0.1]"));
    in("GPS", kind.add_option("--lost-pulses", sim.lostPulses, "FROM:TO, seconds without pulses"));
    in("Stream", kind.add_option("--names", sim.names, "of the signals, as their stanzas have them [sig0]")
                     ->delimiter(','));
    in("Stream",
       kind.add_option("--numbers", sim.numbers, "of the signals [16, 17 and so on]")->delimiter(','));
    in("Stream", kind.add_option("--gather", sim.gather,
                                 "seconds of samples that a module sends as one record; 0: what each 10 ms "
                                 "bring [0.05]"));
    in("Stream",
       kind.add_option("--fill", sim.fill, "percent told each second, in turn [10]")->delimiter(','));
    in("Stream",
       kind.add_option("--no-value-every", sim.noValueEvery, "each Nth sample has only a time [0: none]"));
}

} // namespace

void addSim(CLI::App &source, Action &chosen)
{
    CLI::App *kind = source.add_subcommand(
        "sim",
        "A simulated channel of any kind, with a known waveform\n"
        "Example: vu source sim --listen unix:run/can0.sock --data-type message_can --can-ids 100,18FEF100 "
        "--rate 50 --signal ramp");
    kind->footer(footer());
    auto options = std::make_shared<SimOptions>();
    auto shape = std::make_shared<std::string>("sine");
    kind->add_option("--signal", *shape, "sine, ramp, square, noise or counter [sine]");
    kind->add_option("--frequency", options->waveform.frequency, "Hz [1]");
    kind->add_option("--amplitude", options->waveform.amplitude, "[1]");
    kind->add_option("--bias", options->waveform.bias, "added to every value [0]");
    addMessageOptions(*kind, *options);
    chooseKind(*kind, chosen, options, [shape](const ServeOptions &serving, SimOptions settled) {
        settled.waveform.shape = parseShape(*shape);
        return simulate(serving, std::move(settled));
    });
}

} // namespace vu
