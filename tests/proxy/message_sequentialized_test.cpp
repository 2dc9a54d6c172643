#include <cmath>
#include <random>

#include "tests/proxy/proxy_fixture.h"
#include "tests/support/effort.h"
#include "tests/support/streams.h"

using namespace vu::test;
using testing::ElementsAre;

namespace {

constexpr int64_t kStart = 71'000'000'000'000'000; // of the NTP tests: ticks since 1970, in 2026
constexpr uint32_t kStartSecond = 828'315'200;     // the same in seconds since 2000
constexpr double kMark = 1999999973982208.0;

struct Variant {
    std::string kind;
    bool ntp = kind.ends_with("ntp"), isDouble = kind.starts_with("float64");
};
const Variant kVariants[] = {{"float64"}, {"float32"}, {"float64_ntp"}, {"float32_ntp"}};

// Seconds and fraction of a time not before the start.
std::array<uint32_t, 2> ntpWords(int64_t ticks)
{
    return {static_cast<uint32_t>(kStartSecond + ticks / 40'000'000),
            static_cast<uint32_t>(static_cast<double>(ticks % 40'000'000) / 40e6 * 0x1p32)};
}

struct Stream : TestChannel {
    Stream(const Variant &variant, int rate, const std::string &more = "", double pipeRate = 10)
        : TestChannel(
              stanza("message_" + variant.kind,
                     R"("invalid_data_output_value":-9.7,"stale_data_expiration_time":1,"sample_rate":)" +
                         std::to_string(rate) + more),
              pipeRate),
          v(variant)
    {
        node->start_time = v.ntp ? kStart : 0;
        sendMarker();
    }
    void sendEntries(const std::vector<std::pair<int64_t, double>> &entries)
    {
        Bytes body;
        body.zeros(v.ntp ? 8 : 0);
        const auto put = [&](auto value) { v.ntp || node->byte_swap ? body.be(value) : body.le(value); };
        for (const auto &[ticks, value] : entries) {
            v.ntp ? body.be(ntpWords(ticks)[0]).be(ntpWords(ticks)[1]) : body.be(ticks);
            v.isDouble ? put(value) : put(static_cast<float>(value));
        }
        send(record(body));
    }

    const Variant &v;
};

// The same stream sample by sample, as slow and as plain as it can be written.
struct Slow {
    const Variant &v;
    int64_t rate, frameLength, life;
    double scale, offset, invalid, held = invalid, zero = 0;
    int64_t step = 0, deadline = 0, target = 0;
    bool pending = false, callback = true;
    std::vector<double> delivered{}, frame{};
    std::vector<std::pair<std::string, double>> zeroes{};

    // Instant of sample k in ticks: k - 1 periods rounded, halves down, and the whole ticks of one more.
    int64_t instant(int64_t k) const
    {
        return k == 0 ? 0 : 40'000'000 / rate + (80'000'000 * (k - 1) + rate - 1) / (2 * rate);
    }
    double narrowed(double x) const { return v.isDouble ? x : static_cast<float>(x); }
    void setZero(double z)
    {
        zero = z;
        pending = false;
        if (callback)
            zeroes.emplace_back("ch", z);
    }
    void writeSample()
    {
        step++;
        if (deadline < instant(step))
            held = invalid;
        frame.push_back(narrowed(v.ntp ? held : held - zero));
        if (static_cast<int64_t>(frame.size()) < frameLength)
            return;
        if (!v.ntp && pending && callback) {
            double sum = zero;
            for (const double sample : frame)
                sum += sample;
            setZero(sum / static_cast<double>(frameLength));
            for (double &sample : frame)
                sample = narrowed(sample - zero);
        }
        delivered.insert(delivered.end(), frame.begin(), frame.end());
        frame.clear();
    }
    void take(int64_t ticks, double value)
    {
        const int64_t half = 20'000'000 / rate;
        target = v.ntp
                     ? static_cast<int64_t>(ntp_to_ts(ntpWords(ticks).data()) - double(kStart) - double(half))
                     : ticks - half;
        value = narrowed(value);
        const bool isNtpFloat = v.ntp && !v.isDouble;
        const bool isBad = std::isnan(value) || (isNtpFloat && value == kMark);
        if (pending && callback && isBad)
            setZero(std::exchange(invalid, 0.0));
        while (instant(step) < target)
            writeSample();
        if (isBad || (isNtpFloat && !callback))
            return;
        if (v.ntp && pending)
            setZero(value);
        deadline = instant(step + 1) + life;
        if (!v.isDouble && !v.ntp)
            held = fmaf(float(value), float(scale), float(offset));
        else
            held = std::fma(value, scale, v.isDouble ? offset : offset - zero);
    }
};

class SequentializedMessages : public Channels {};

TEST_F(SequentializedMessages, AgreeWithTheSlowWay)
{
    const auto onZero = libvuRezeroCallback;
    for (uint32_t seed = 0; seed < effort(1600, 240); seed++) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto below = [&](int64_t n) { return static_cast<int64_t>(random()) % n; };
        const int rates[] = {3, 7000, 1000, 1024, 44100, 20}, rate = rates[below(6)];
        const int64_t period = 40'000'000 / rate;
        const Variant &v = kVariants[seed % 4];
        Stream stream(v, rate, R"(,"scale":1.1,"offset":-0.3)", rate / 7.0);
        Pipe *pipe = stream.listen();
        if (seed % 8 < 4)
            stream->byte_swap = nullptr;  // as on a module's node, whoever reads its channel
        stream->stale_ticks = 3 * period; // ends on a sample where the rate divides the ticks
        Slow slow{v, rate, 7, stream->stale_ticks, 1.1, -0.3, -9.7};
        int64_t now = 0, next = 0;
        for (int batch = 0; batch < 60 && !HasFailure(); batch++) {
            if (below(6) == 0)
                stream->rezero_pending = slow.pending = true;
            slow.callback = below(5) != 0;
            libvuRezeroCallback = slow.callback ? onZero : nullptr;
            std::vector<std::pair<int64_t, double>> entries;
            for (int64_t i = below(8); i > 0; i--) {
                now = std::max(now + (below(20) ? below(3 * period) - period / 2 : below(40 * period)),
                               int64_t{0});
                const double odd = below(2) ? NAN : kMark;
                entries.emplace_back(now, below(6) ? static_cast<double>(below(1 << 30)) / 1024 : odd);
                slow.take(entries.back().first, entries.back().second);
            }
            stream.sendEntries(entries);
            EXPECT_EQ(stream->rezero_pending != 0, slow.pending);
            EXPECT_EQ(std::tie(stream->held_value, stream->rezero_offset, stream->invalid_value,
                               stream->stale_deadline, stream->last_message_time, stream->sample_count),
                      std::tie(slow.held, slow.zero, slow.invalid, slow.deadline, slow.target, slow.step));
            EXPECT_EQ(errors.rezeros(), std::exchange(slow.zeroes, {}));
            EXPECT_EQ(drain(pipe, next), std::exchange(slow.delivered, {}));
        }
    }
}

// The target of an entry without a value is formed when the zero that it brings about has been reported.
TEST_F(SequentializedMessages, AZeroMayStillSetTheStartOfTheTest)
{
    static ProxyNode *node;
    for (const Variant &v : kVariants) {
        SCOPED_TRACE(v.kind);
        Stream stream(v, 1000);
        node = stream.node;
        libvuRezeroCallback = [](const char *, double) {
            node->start_time += 400'000;
            node->half_period = 0;
            return 0;
        };
        stream->rezero_pending = 1;
        stream.sendEntries({{800'000, NAN}});
        EXPECT_EQ(stream->last_message_time, v.ntp ? 400'000 : 800'000);
        EXPECT_EQ(stream->sample_count, v.ntp ? 10 : 20);
    }
}

TEST_F(SequentializedMessages, CountOnWithoutConsumerAndWithoutMemory)
{
    for (const Variant &v : kVariants) {
        SCOPED_TRACE(v.kind);
        Stream stream(v, 1000); // frames of 100
        stream.sendEntries({{40'000 * 150 + 25'000, 6.0}});
        EXPECT_EQ(stream->sample_count, 151); // the last one lies beyond the half period
        Pipe *pipe = stream.listen();
        stream.sendEntries({{40'000 * 420, 7.0}});
        int64_t next = 100;
        EXPECT_EQ(drain(pipe, next).size(), 300u);

        memory.failAt(0);
        stream.sendEntries({{40'000 * 650, 8.0}, {40'000 * 651, 9.0}});
        EXPECT_THAT(errors.texts(), ElementsAre("Can not allocate memory for frame",
                                                "Unable to create frame for channel ch"));
        EXPECT_EQ(stream->sample_count, 500);                // the frame in hand is full and gone
        EXPECT_EQ(stream->clock.current_tick, 501 * 40'000); // that tick's sample is lost
        EXPECT_EQ(stream->held_value, 7.0);                  // and so is the rest of the body
        EXPECT_NE(stream->read_count, 0u);
    }
}

TEST_F(SequentializedMessages, StartAnNtpChannelThatHasNoStartAndKeepTimeForYears)
{
    Stream ntp(kVariants[2], 1000);
    for (const int64_t given : {int64_t{0}, INT64_MAX}) {
        ntp->start_time = given;
        ntp.sendEntries({{0, NAN}, {8'000, 3.0}});
        EXPECT_EQ(ntp->start_time, given ? given : kStart);
        EXPECT_EQ(ntp->sample_count, 0);
        EXPECT_EQ(ntp->held_value, 3.0);
    }

    // Years ahead, where instants are rounded to doubles, a stream keeps the steps of its clock.
    for (const int64_t ahead : {int64_t{1} << 52, int64_t{1} << 53}) {
        Stream stream(kVariants[0], 44100); // an odd number of ticks
        stream->clock.current_tick = ahead - 4000;
        stream->clock.next_tick = ahead - 3093;
        SampleClock clock = stream->clock;
        for (const int64_t target : {ahead - 2000, ahead - 1, ahead, ahead + 9000}) {
            stream.sendEntries({{target + stream->half_period, 1.0}});
            while (clock.current_tick < target)
                sampleClockTick(&clock);
            EXPECT_EQ(std::tie(stream->clock.current_tick, stream->clock.next_tick),
                      std::tie(clock.current_tick, clock.next_tick));
        }
    }
}

} // namespace
