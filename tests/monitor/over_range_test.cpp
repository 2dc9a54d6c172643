// Detectors over real pipes: worked windows, a slow reference, and everything that can go wrong.
#include <cfloat>
#include <cmath>
#include <gmock/gmock.h>
#include <random>

#include "libvu/monitor/element_access.h"
#include "libvu/monitor/over_range.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/cases.h"
#include "tests/support/error_trap.h"
#include "tests/support/interpose.h"
#include "tests/support/node_fixture.h"
#include "tests/support/temp_dir.h"

using namespace testing;
using namespace vu::test;

namespace {

using Doubles = std::vector<double>;

Frame *frameOf(const Doubles &samples, uint32_t elementSize, int64_t start = 0)
{
    Frame *frame = frameCreate(static_cast<uint32_t>(samples.size()), elementSize, nullptr);
    frame->start = start;
    for (const double sample : samples)
        getFrameBufWriter(static_cast<int32_t>(elementSize))(frame, frame->length++, sample);
    return frame;
}

// A module with its output's pipe and its channels', which are added before start() with limits of -5 and 5.
class OverRange : public Test {
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
    void watch(double rate, int mode = OVER_RNG_BOTH_LIMITS, bool report = true, int size = 8)
    {
        channels.push_back({"c", rate, static_cast<uint8_t>(mode), report, static_cast<uint16_t>(size), -5, 5,
                            pipeAttachPipe(&inputs)});
        positions.push_back(0);
    }
    int start(double rate)
    {
        const OverRngModuleConfig config{"limits", rate, static_cast<uint32_t>(channels.size()), &output};
        return id = Over_Rng_Detect_init(&config, channels.data());
    }
    void feed(size_t channel, const Doubles &samples)
    {
        pipeAddFrame(channels[channel].pipe,
                     frameOf(samples, channels[channel].element_size, positions[channel]));
        positions[channel] += static_cast<int64_t>(samples.size());
    }
    // Windows that the run put out.
    Doubles run()
    {
        notices = Over_Rng_Detect_run(id);
        return takeSamples<double>(out);
    }
};

// `count` zeros but for the given samples.
Doubles quiet(size_t count, const std::vector<std::pair<size_t, double>> &loud = {})
{
    Doubles samples(count);
    for (const auto &[index, value] : loud)
        samples[index] = value;
    return samples;
}

TEST_F(OverRange, WindowsAndNoticesAreThoseOfTheTable)
{
    for (const Case &row : cases("monitor/windows.txt"))
        for (const int size : {4, 8}) {
            const Strings words = split(row.text.substr(0, row.text.find('|')), ' ');
            Doubles samples(std::stoul(words[3]));
            for (size_t i = 4; i < words.size(); i += 2)
                samples.at(std::stoul(words[i])) = std::stod(words[i + 1]);
            clear();
            watch(std::strtod(words[1].c_str(), nullptr), std::stoi(words[2]), true, size);
            start(std::strtod(words[0].c_str(), nullptr));
            feed(0, samples);
            std::string said = "|";
            for (const double window : run())
                said += window == 0 ? '0' : '1';
            for (uint32_t i = 0; notices && i < notices->count; i++)
                said += notices->text[i];
            for (const std::string &text : errors.critical())
                said += '\n' + text;
            std::replace(said.begin(), said.end(), '\n', '|');
            EXPECT_EQ(said, row.text.substr(row.text.find('|')));
        }
    clear();
    EXPECT_GE(start(10), 0) << "a module without channels is one";
    EXPECT_THAT(run(), IsEmpty());
}

// Powers of two keep every time exact, so that whole numbers give the windows: in units of one sample of a
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
            watch(double(rate), 1 + int(random() % 3), true, random() % 2 ? 4 : 8);
        }
        start(8);
        std::vector<bool> loud(4000);
        size_t put = 0;
        for (int step = 0; step < 60; step++) {
            const size_t c = random() % count;
            Doubles samples(1 + random() % 40);
            int64_t first = -1, last = -1;
            for (double &sample : samples) {
                sample = random() % 30 ? 0 : random() % 2 ? 6 : -6;
                if (sample == 0 || channels[c].mode == (sample > 0 ? 3 : 2))
                    continue;
                last = positions[c] + (&sample - samples.data());
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
            ASSERT_EQ(int64_t(put), std::max<int64_t>(passed, 0));
        }
    }
}

TEST_F(OverRange, NoticesOfManyChannelsOverflowIntoACount)
{
    for (int c = 0; c < 256; c++)
        watch(100, OVER_RNG_UPPER_LIMIT, c != 7);
    start(10);
    for (size_t c = 0; c < 256; c++)
        feed(c, quiet(11, {{1, 6}}));
    EXPECT_THAT(run(), ElementsAre(1));
    EXPECT_THAT((std::array{notices->count, notices->dropped}), ElementsAre(50, 205));
    EXPECT_EQ(log.lines().size(), 256u);
    feed(0, quiet(10, {{1, 6}}));
    run();
    EXPECT_EQ(notices, nullptr) << "each kind is reported once, and the list starts anew";
}

// 1000 samples/s in windows of 10 samples, in frames long and short, ahead of a channel of 10/s: each window
// comes out once, with the marks of a reference in whole samples, however many runs that takes.
TEST_F(OverRange, WindowsBeyondTheRingComeOutOfLaterRunsWithTheirMarks)
{
    constexpr int64_t kSeconds = 150;
    std::mt19937 random(5);
    for (const int64_t length : {50'000, 10'000, 50})
        for (const bool withSlow : {false, true}) {
            SCOPED_TRACE(Message() << "frames of " << length << (withSlow ? ", a slow channel" : ""));
            clear();
            watch(1000);
            if (withSlow)
                watch(10);
            start(100);
            std::vector<int> loud(kSeconds * 100);
            for (int64_t at = 0; at < kSeconds * 1000; at += length) {
                Doubles samples(static_cast<size_t>(length));
                const int64_t first = static_cast<int64_t>(random()) % length,
                              last = first + (length - first) / 3;
                if (at >= 5000 && random() % 2) {
                    samples[size_t(first)] = 6, samples[size_t(last)] = -7;
                    std::fill(&loud[size_t((at + first) / 10)], &loud[size_t((at + last) / 10)] + 1, 1);
                }
                feed(0, samples);
            }
            Doubles all = run();
            const auto said = log.lines();
            EXPECT_EQ(said.size(), 2u) << "one notice of each kind, both with the first frame out of range";
            EXPECT_TRUE(notices && notices->count == 2);
            EXPECT_LE(all.size(), 4095u);
            for (int64_t second = 0; withSlow && second < kSeconds; second += 30) {
                feed(1, quiet(300));
                const Doubles more = run();
                all.insert(all.end(), more.begin(), more.end());
            }
            for (Doubles more = run(); !more.empty(); more = run())
                all.insert(all.end(), more.begin(), more.end());
            ASSERT_EQ(all.size(), size_t{kSeconds} * 100 - 1);
            for (size_t w = 0; w < all.size(); w++)
                ASSERT_EQ(all[w], loud[w]) << "window " << w;
            EXPECT_THAT(log.lines(), IsEmpty());
            errors.critical(); // the second and later frames of a run may reach beyond the ring, which is
                               // reported
        }
}

TEST_F(OverRange, MarksTooFarAheadAreLoggedAsLostOnceAndTheNoticeIsGiven)
{
    watch(1000);
    watch(1000);
    start(1000);
    for (const int64_t position : {0, 2'000'000, 3'000'000}) {
        positions[0] = position;
        feed(0, quiet(10, {{3, 6}}));
    }
    positions[0] = int64_t{1} << 62;
    feed(0, quiet(1, {{0, -6}}));
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_EQ(notices->count, 2u);
    std::string said;
    for (const auto &[priority, line] : log.lines())
        said += line.substr(0, line.find_first_of("0123456789")) + '|';
    EXPECT_EQ(said, "\nlimits (|limits:  channel 'c' is too far ahead, marks of its windows out of range are "
                    "lost|\nlimits (|");
    errors.critical();
}

TEST_F(OverRange, EveryFailedAllocationIsSurvived)
{
    AllocationFaults faults;
    watch(10);
    watch(100);
    for (int nth = 0; id < 0; nth++) {
        faults.failAt(nth);
        start(10);
        EXPECT_EQ(errors.critical().empty(), id >= 0);
    }
    faults.failNone();
    feed(0, quiet(5));
    feed(1, quiet(41));
    faults.failAt(0, 1); // the up-sampled frame, and the report's text
    EXPECT_THAT(run(), IsEmpty());
    feed(0, quiet(1));
    faults.failAt(2); // the second window's
    EXPECT_THAT(run(), ElementsAre(0));
    EXPECT_EQ(run().size(), 3u);
    EXPECT_EQ(errors.texts().back(), "Can not allocate memory for frame");
    EXPECT_EQ(errors.critical().back(), "Internal Error: could not allocate output frame");
}

TEST_F(OverRange, AReportMayStopTheModuleThatIsRunning)
{
    static int stopped;
    watch(100, 0);
    watch(100);
    stopped = start(10);
    const auto callback = libvuCriticalErrorCallback;
    libvuCriticalErrorCallback = [](const char *) { return Over_Rng_Detect_stop(stopped), 1; };
    feed(0, quiet(21)); // the mode is unknown
    feed(1, quiet(21, {{3, 6}}));
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_EQ(channels[1].pipe->queued, 21);
    libvuCriticalErrorCallback = callback;
    for (const int gone : {-1, id + 1, id})
        EXPECT_EQ(Over_Rng_Detect_run(gone), nullptr);
    EXPECT_THAT(errors.critical(),
                ElementsAre("Internal Error: invalid module_id", "Internal Error: invalid module_id",
                            "Internal Error: invalid module"));
    id = -1;
}

TEST_F(OverRange, ElementAccessPutsFramesAndFindsExtremes)
{
    // Numbers of one frame each; the least and the most of them, and whether there was any.
    const std::tuple<Doubles, Doubles, int> rows[] = {{{NAN}, {DBL_MAX, -DBL_MAX}, -1},
                                                      {{3, NAN, -2, 7}, {-2, 7}, 0},
                                                      {{INFINITY}, {DBL_MAX, INFINITY}, 0},
                                                      {{-0.0, 0.0}, {-0.0, -0.0}, 0}};
    for (const auto &[samples, extremes, result] : rows)
        for (const uint32_t size : {4u, 8u}) {
            clear();
            Pipe *const first = pipeAttachPipe(&inputs), *const second = pipeAttachPipe(&inputs);
            for (const double sample : samples)
                EXPECT_EQ(Put_Frame(frameOf({sample}, size), &inputs), 1);
            EXPECT_EQ(second->newest->parent, first->newest);
            Doubles found(2);
            const auto calculate = size == 4 ? calculate_min_max_float32 : calculate_min_max_float64;
            EXPECT_EQ(calculate(first, found.data()), result);
            EXPECT_EQ(found, extremes);
            EXPECT_EQ(std::signbit(found[0]), std::signbit(extremes[0]));
        }
    clear();
    Frame *const frame = frameOf({1}, 4);
    EXPECT_EQ(Put_Frame(frame, &inputs) + Put_Frame(frame, nullptr) + Put_Frame(nullptr, &inputs), 0);
    EXPECT_THAT(errors.texts(), ElementsAre("Pipe list not given", "Frame not given"));
    frameDelete(frame);
    EXPECT_EQ(getFrameBufReader(16), nullptr);
    EXPECT_EQ(errors.critical().size(), 1u);
}

} // namespace
