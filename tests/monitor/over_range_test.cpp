// Detectors over real pipes: worked windows, a slow reference, and everything that can go wrong.
#include <cmath>
#include <gmock/gmock.h>
#include <limits>
#include <random>

#include "libvu/core/callbacks.h"
#include "libvu/monitor/element_access.h"
#include "libvu/monitor/over_range.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/interpose.h"
#include "tests/support/node_fixture.h"

using namespace vu::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

using Doubles = std::vector<double>;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

Frame *frameOf(const Doubles &samples, uint32_t elementSize, int64_t start = 0)
{
    Frame *frame = frameCreate(static_cast<uint32_t>(samples.size()), elementSize, nullptr);
    frame->start = start;
    for (const double sample : samples)
        getFrameBufWriter(static_cast<int32_t>(elementSize))(frame, frame->length++, sample);
    return frame;
}

// A module with its channels' pipes and its output's; channels are added before start().
class OverRange : public ::testing::Test {
protected:
    ErrorTrap errors;
    LogTrap log;
    PipeList output{}, inputs{};
    Pipe *out = pipeAttachPipe(&output);
    std::vector<int64_t> positions;
    std::vector<OverRngChannelConfig> channels;
    int id = -1;
    OverRngNotices *notices = nullptr;

    ~OverRange() override
    {
        clear();
        pipeDetachPipe(&output, out);
    }
    void clear()
    {
        if (id >= 0)
            Over_Rng_Detect_stop(std::exchange(id, -1));
        while (inputs.first)
            pipeDetachPipe(&inputs, inputs.first);
        channels.clear();
        positions.clear();
    }
    void watch(double rate, int mode, double lower, double upper, bool report = true, int size = 8)
    {
        channels.push_back({"", rate, static_cast<uint8_t>(mode), report, static_cast<uint16_t>(size), lower,
                            upper, pipeAttachPipe(&inputs)});
        std::snprintf(channels.back().name, sizeof channels.back().name, "c%zu", positions.size());
        positions.push_back(0);
    }
    int start(double rate)
    {
        const OverRngModuleConfig config{"limits", rate, static_cast<uint32_t>(channels.size()), &output};
        return id = Over_Rng_Detect_init(&config, channels.data());
    }
    void feed(size_t channel, const Doubles &samples)
    {
        const auto &[pipe, size] = std::pair(channels[channel].pipe, channels[channel].element_size);
        pipeAddFrame(pipe, frameOf(samples, size, positions[channel]));
        positions[channel] += static_cast<int64_t>(samples.size());
    }
    // Windows that the run put out.
    Doubles run()
    {
        notices = Over_Rng_Detect_run(id);
        return takeSamples<double>(out);
    }
};

// `count` zeros, and what stands out.
Doubles quiet(size_t count, const std::vector<std::pair<size_t, double>> &loud = {})
{
    Doubles samples(count);
    for (const auto &[index, value] : loud)
        samples[index] = value;
    return samples;
}

TEST_F(OverRange, WorkedWindows)
{
    // `said` is what the notices say behind the channel's name, and when.
    const auto expect = [&](double sampleRate, int mode, const Doubles &samples, const Doubles &windows,
                            const std::vector<std::string> &said = {}) {
        for (const int size : {4, 8}) {
            clear();
            watch(sampleRate, mode, -5, 5, true, size);
            start(10);
            feed(0, samples);
            EXPECT_EQ(run(), windows);
            ASSERT_EQ(notices ? notices->count : 0, said.size());
            for (size_t i = 0; i < said.size(); i++)
                EXPECT_EQ(notices->text[i],
                          "\nlimits (" + said[i].substr(0, 3) + "):  channel 'c0' " + said[i].substr(4));
        }
    };
    const std::string late = "0.1 over range: 6.000000 > 5.000000",
                      early = "0.0 under range: -9.000000 < -5.000000";
    expect(100, 1, quiet(100), Doubles(9));
    expect(100, 1, quiet(31), Doubles(2)); // the ends are summed up, and 0.1 + 0.1 + 0.1 is above 0.3
    expect(100, 1, quiet(40, {{9, 6}}), {1, 0, 0}, {late});
    expect(1 / 0.03, 1, quiet(12, {{3, 6}}), {1, 1, 0}, {late}); // a sample covers its whole period
    expect(100, 1, quiet(21, {{3, 5}, {4, -5}, {5, kNaN}}), {0, 0});
    expect(100, 1, quiet(51, {{2, 6}, {32, 8}, {25, -7}, {28, -9}}), {1, 1, 1, 1, 0},
           {early, "0.0 over range: 8.000000 > 5.000000"});
    expect(100, 2, quiet(31, {{2, -9}, {12, 6}, {13, 8}}), {0, 1}, {late});
    expect(100, 3, quiet(31, {{3, -9}, {4, 9}, {13, -10}}), {1, 1}, {early});
    expect(10, 1, quiet(4, {{1, 6}}), {0, 1, 0}, {late}); // four samples of each
}

// Powers of two keep every time exact, so that whole numbers tell the windows: in units of one sample of a
// channel, window w is [w, w + 1) x rates / 8.
TEST_F(OverRange, AgreesWithAReferenceOverRandomFrames)
{
    std::mt19937 random(11);
    for (int round = 0; round < 60; round++) {
        clear();
        const size_t count = 1 + random() % 5;
        std::vector<int64_t> rates, factors; // samples per second as watched, and how many of them one makes
        for (size_t c = 0; c < count; c++) {
            const int64_t rate = int64_t{1} << (3 + random() % 6);
            factors.push_back(rate == 8 ? 4 : 1);
            rates.push_back(rate * factors[c]);
            watch(double(rate), 1 + int(random() % 3), -1, 1, true, random() % 2 ? 4 : 8);
        }
        start(8);
        std::vector<bool> loud(4000);
        size_t put = 0;
        for (int step = 0; step < 60; step++) {
            const size_t c = random() % count;
            Doubles samples(1 + random() % 40);
            int64_t first = -1, last = -1;
            for (size_t i = 0; i < samples.size(); i++) {
                samples[i] = random() % 30 ? 0 : random() % 2 ? 2 : -2;
                if (samples[i] == 0 || channels[c].mode == (samples[i] > 0 ? 3 : 2))
                    continue;
                last = positions[c] + int64_t(i);
                first = first < 0 ? last : first;
            }
            for (auto w = int64_t(put); first >= 0 && w < 4000; w++)
                if (w * rates[c] < (last + 1) * factors[c] * 8 && (w + 1) * rates[c] > first * factors[c] * 8)
                    loud[size_t(w)] = true;
            feed(c, samples);
            if (random() % 3)
                continue;
            for (const double window : run())
                ASSERT_EQ(window, loud[put++]) << "round " << round << " window " << put - 1;
            int64_t passed = 4000;
            for (size_t k = 0; k < count; k++)
                passed = std::min(passed, (positions[k] * factors[k] - 1) * 8 / rates[k]);
            ASSERT_EQ(int64_t(put), std::max<int64_t>(passed, int64_t(0)));
        }
    }
}

TEST_F(OverRange, NoticesOfManyChannelsOverflowIntoACount)
{
    for (int c = 0; c < 256; c++)
        watch(100, 2, 0, 5, c != 7);
    start(10);
    for (size_t c = 0; c < 256; c++)
        feed(c, quiet(11, {{1, 6}}));
    EXPECT_THAT(run(), ElementsAre(1));
    EXPECT_THAT((std::array{notices->count, notices->dropped}), ElementsAre(50, 205));
    EXPECT_EQ(log.lines().size(), 256u);
    feed(0, quiet(10, {{1, 6}}));
    run();
    EXPECT_EQ(notices, nullptr) << "each kind is told once, and the list starts anew";
}

TEST_F(OverRange, TheRingNeverWraps)
{
    watch(100, 1, -5, 5);
    watch(1000, 1, -5, 5);
    start(100);
    feed(1, quiet(100'000, {{5, 6}, {99'990, 7}})); // 10,000 windows ahead of the other
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(log.lines().back().second, HasSubstr("too far ahead"));
    Doubles all;
    for (int k = 0; k < 4; k++) {
        feed(0, quiet(5000)); // each longer than the ring, too
        feed(1, quiet(10));
        for (const double window : run())
            all.push_back(window);
    }
    errors.critical(); // frames outside the ring are told
    ASSERT_GT(all.size(), 9000u);
    for (size_t i = 0; i < all.size(); i++)
        ASSERT_EQ(all[i], i < 4095) << i;
}

TEST_F(OverRange, BadFramesModesAndNumbersAreToldAndSurvived)
{
    watch(100, 9, -5, 5);
    start(10);
    feed(0, quiet(21, {{3, 9}}));
    EXPECT_THAT(run(), ElementsAre(0, 0));
    EXPECT_THAT(errors.critical(), ElementsAre("Internal Error: invalid mode value"));
    feed(0, {});
    pipeAddFrame(channels[0].pipe, frameOf({1}, 4));
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_EQ(errors.critical().size(), 2u);
    pipeAddFrame(channels[0].pipe, frameOf({0}, 8, INT64_MAX));
    EXPECT_EQ(run().size(), 4095u);
    EXPECT_EQ(errors.critical().size(), 2u); // out of the ring, and the mode again
    for (const int wrong : {-1, id + 1, 1 << 30}) {
        EXPECT_EQ(Over_Rng_Detect_run(wrong), nullptr);
        Over_Rng_Detect_stop(wrong);
        EXPECT_THAT(
            errors.critical(),
            ::testing::AllOf(::testing::SizeIs(2), ::testing::Each("Internal Error: invalid module_id")));
    }
    Over_Rng_Detect_stop(id);
    EXPECT_EQ(Over_Rng_Detect_run(std::exchange(id, -1)), nullptr);
    EXPECT_THAT(errors.critical(), ElementsAre("Internal Error: invalid module"));
}

TEST_F(OverRange, RefusesWhatItCanNotWatch)
{
    const auto refuses = [&](double rate, double sampleRate, int size, const char *text) {
        clear();
        watch(sampleRate, 1, 0, 0, true, size);
        EXPECT_EQ(start(rate), -1);
        EXPECT_THAT(errors.critical(), ElementsAre(HasSubstr(text)));
    };
    refuses(10, 100, 2, "Internal Error: unsupported frame element_size: 2");
    refuses(32767, 1, 8, "invalid rate"); // 65536 of one
    for (const double wrong : {0.0, -1.0, kNaN, double(INFINITY), 1e-310})
        refuses(wrong, 1, 8, "invalid rate"), refuses(1, wrong, 8, "invalid rate");
    clear();
    EXPECT_GE(start(10), 0) << "a module without channels is one";
    EXPECT_THAT(run(), IsEmpty());
}

TEST_F(OverRange, EveryFailedAllocationIsSurvived)
{
    AllocationFaults faults;
    watch(10, 1, -5, 5);
    watch(100, 1, -5, 5);
    for (int nth = 0; id < 0; nth++) {
        faults.failAt(nth);
        start(10);
        EXPECT_EQ(errors.critical().empty(), id >= 0);
        ASSERT_LT(nth, 20);
    }
    faults.failNone();
    feed(0, quiet(5));
    feed(1, quiet(41));
    faults.failAt(0, 1); // the up-sampled frame, and the report's text
    EXPECT_THAT(run(), IsEmpty());
    errors.texts(), errors.critical();
    feed(0, quiet(1));
    faults.failAt(2); // the second window's
    EXPECT_THAT(run(), ElementsAre(0));
    EXPECT_THAT(errors.texts(), ElementsAre("Can not allocate memory for frame"));
    EXPECT_THAT(errors.critical(), ElementsAre("Internal Error: could not allocate output frame"));
    EXPECT_EQ(run().size(), 3u);
    pipeFlushFrames(channels[0].pipe);
}

TEST_F(OverRange, AReportMayStopTheModuleAtWork)
{
    static int stopped;
    watch(100, 0, -5, 5);
    watch(100, 1, -5, 5);
    stopped = start(10);
    libvuCriticalErrorCallback = [](const char *) { return Over_Rng_Detect_stop(stopped), 1; };
    feed(0, quiet(21));
    feed(1, quiet(21, {{3, 6}}));
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_EQ(channels[1].pipe->queued, 21);
    id = -1;
}

TEST_F(OverRange, ElementAccessPutsFramesAndFindsExtremes)
{
    constexpr double kMost = std::numeric_limits<double>::max();
    const auto expect = [&](const std::vector<Doubles> &frames, double least, double most, int result) {
        for (const uint32_t size : {4u, 8u}) {
            clear();
            Pipe *const first = pipeAttachPipe(&inputs), *const second = pipeAttachPipe(&inputs);
            for (const Doubles &samples : frames) {
                Frame *const frame = frameOf(samples, size);
                EXPECT_EQ(Put_Frame(frame, &inputs), 1);
                EXPECT_EQ(second->newest->parent, frame);
            }
            double found[2];
            const auto calculate = size == 4 ? calculate_min_max_float32 : calculate_min_max_float64;
            EXPECT_EQ(calculate(first, found), result);
            EXPECT_THAT(found, ElementsAre(least, most));
            EXPECT_EQ(std::signbit(found[0]), std::signbit(least));
        }
    };
    expect({{kNaN}, {}}, kMost, -kMost, -1);
    expect({{3, kNaN}, {-2, 7}}, -2, 7, 0);
    expect({{INFINITY}}, kMost, INFINITY, 0);
    expect({{-0.0, 0.0}}, -0.0, -0.0, 0);
    clear();
    Frame *const frame = frameOf({1}, 4);
    EXPECT_EQ(Put_Frame(frame, &inputs) + Put_Frame(frame, nullptr) + Put_Frame(nullptr, &inputs), 0);
    EXPECT_THAT(errors.texts(), ElementsAre("Pipe list not given", "Frame not given"));
    frameDelete(frame);
    EXPECT_EQ(getFrameBufReader(16), nullptr);
    EXPECT_EQ(errors.critical().size(), 1u);
}

} // namespace
