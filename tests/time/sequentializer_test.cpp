#include "libvu/time/sequentializer.h"

#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <random>

#include "libvu/time/sequentializer_private.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/effort.h"
#include "tests/support/error_trap.h"
#include "tests/support/streams.h"

using namespace vu::test;
using testing::ElementsAre;

namespace {

constexpr double kInvalid = -1.0;

struct Settings {
    double sampleRate = 1000.0, pipeRate = 100.0, stale = 0.005;
    uint32_t elementSize = 8; // any other makes floats
    int pipes = 1;
};

// A stream with its consumers, as a host holds it.
struct Stream {
    explicit Stream(const Settings &settings = {})
        : seq(createSequentializer(settings.elementSize, settings.pipeRate, settings.sampleRate,
                                   settings.stale, kInvalid))
    {
        seq->pipes = &list;
        for (int i = 0; i < settings.pipes; i++)
            pipes.push_back(pipeAttachPipe(&list));
    }
    ~Stream()
    {
        for (Pipe *pipe : pipes)
            pipeDetachPipe(&list, pipe);
        releaseStream(seq);
    }
    void value(double time, double value) { sequentialize_value(seq, time, value); }
    void until(double time) { sequentialize(seq, time); }
    std::vector<double> taken() { return drain(pipes.at(0), next); }

    PipeList list{};
    Sequentializer *seq;
    std::vector<Pipe *> pipes;
    int64_t next = 0;
};

class Sequentialized : public testing::Test {
protected:
    ErrorTrap errors;
    AllocationFaults memory;
};

// Random messages against the meaning of the stream, sample by sample from closed forms. Lives are at first
// as the settings say, then of any length, whole periods and a tick beside them among others.
class Meaning : public Sequentialized, public testing::WithParamInterface<Settings> {};

TEST_P(Meaning, HoldsForRandomMessages)
{
    const Settings settings = GetParam();
    const auto rate = static_cast<int64_t>(settings.sampleRate);
    const int64_t whole = 40'000'000 / rate, rest = 40'000'000 % rate, half = 40'000'000 / rate / 2;
    auto life = static_cast<int64_t>(std::floor(settings.stale * 4e7));
    const auto instant = [&](int64_t n) { // a payment lands one sample after it is earned
        return n * whole + (n > 0 ? (2 * (n - 1) * rest + rate - 1) / (2 * rate) : 0);
    };
    std::mt19937_64 random(static_cast<uint64_t>(rate));
    const auto below = [&](int64_t n) { return static_cast<int64_t>(random() % static_cast<uint64_t>(n)); };
    Stream stream(settings);
    Sequentializer &seq = *stream.seq;
    memory.reset();
    std::vector<double> expected;
    double held = kInvalid;
    int64_t time = 0, sample = 0, first = -1;
    for (int64_t k = 0; k < effort(2'000'000, 200'000); k++) {
        const int64_t dice = below(64);
        time += below(2 * whole);
        if (dice == 0)
            time += below(200) * whole;
        if (dice == 1) // midway, or a tick beside it
            time = instant(sample + 2 + below(20)) + half + below(3) - 1;
        const int64_t told = dice == 2 ? time - 5 * whole : time; // and back
        for (; instant(sample) + half < told; sample++) {
            if (first < 0 || instant(sample + 1) - instant(first + 1) >= life)
                held = kInvalid;
            expected.push_back(settings.elementSize == 8 ? held : static_cast<float>(held));
        }
        if (dice % 4 == 3) {
            stream.until(static_cast<double>(told));
        } else {
            if (dice == 4) {
                life = (below(44) - 3) * whole + below(4) - 1;
                seq.stale_ticks = life - 1;
            }
            held = std::ldexp(static_cast<double>(random()), -20);
            first = sample;
            stream.value(static_cast<double>(told), held);
            ASSERT_EQ(seq.expiry_tick, instant(first + 1) + life - 1);
        }
        ASSERT_EQ(seq.last_target, told - half);
        const auto taken = stream.taken();
        ASSERT_LE(taken.size(), expected.size());
        ASSERT_TRUE(std::equal(taken.begin(), taken.end(), expected.begin())) << "before sample " << sample;
        expected.erase(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(taken.size()));
    }
    EXPECT_EQ(seq.sample_count, sample);
    // Only a silence longer than the pool asks for frames, and these come back.
    EXPECT_LE(memory.count(), rate < 1000 ? 100 * settings.pipeRate : 0);
}
INSTANTIATE_TEST_SUITE_P(Sequentialized, Meaning,
                         testing::Values(Settings{1000, 100, 0.005, 8}, Settings{1024, 64, 0.02, 4},
                                         Settings{7000, 3, 0.001, 8}, Settings{3, 3, 0.9, 1},
                                         Settings{44100, 500, 0.00007, 8}));

TEST_F(Sequentialized, SharesOneFrameAmongThreePipes)
{
    Stream stream({.pipes = 3});
    const int64_t whole = pooled(stream.seq);
    stream.until(400000.0);
    Frame *root = pipeGetFrame(stream.pipes[0]);
    frameDelete(root);
    EXPECT_EQ(stream.pipes[1]->oldest->parent, root);
    pipeFlushFrames(stream.pipes[1]);
    EXPECT_EQ(pooled(stream.seq), whole - 1);
    pipeFlushFrames(stream.pipes[2]);
    EXPECT_EQ(stream.seq->free_frames, root);
    EXPECT_EQ(pooled(stream.seq), whole);
}

TEST_F(Sequentialized, KeepsTheFrameAndItsStartWhileNobodyListens)
{
    Stream stream({.pipes = 0});
    stream.until(25 * 40000 + 20000);
    EXPECT_EQ(stream.seq->sample_count, 25);
    stream.pipes.push_back(pipeAttachPipe(&stream.list));
    stream.until(1220000.0);
    EXPECT_EQ(stream.pipes[0]->oldest->start, 0); // the frame began when nobody listened yet
    pipeFlushFrames(stream.pipes[0]);
    stream.next = 30;
    stream.until(2020000.0);
    EXPECT_EQ(stream.taken().size(), 20u);
}

TEST_F(Sequentialized, GrowsByASecondOfFramesOrByWhatMemoryGives)
{
    Stream stream({.pipeRate = 10});
    stream.until(5.05 * 4e7); // the frames of five seconds wait in the pipe, one of ten new ones is filled
    EXPECT_EQ(pooled(stream.seq), 9);
    memory.failAt(3);
    stream.until(6.05 * 4e7);
    EXPECT_EQ(pooled(stream.seq), 2);
    EXPECT_THAT(errors.texts(), ElementsAre("Can not allocate memory for frame"));
    EXPECT_EQ(stream.taken().size(), 6000u);
    EXPECT_EQ(pooled(stream.seq), 62);
}

// Elements may have any size. A sample that is larger than its element ends in the next one, and the last is
// complete.
TEST_F(Sequentialized, FramesHaveTheElementSizeThatWasAskedFor)
{
    for (const uint32_t size : {0u, 1u, 3u, 4u, 5u, 8u, 12u, 16u}) {
        Stream stream({.elementSize = size});
        stream.value(20000.0, 0.0);
        for (int sample = 1; sample <= 10; sample++)
            stream.value(20000.0 + 40000.0 * sample, sample / 10.0);
        const Frame *frame = stream.pipes[0]->oldest;
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->element_size, size);
        EXPECT_EQ(frame->length, 10u);
        for (size_t sample = size < 4 ? 9 : 0; sample < 10; sample++) {
            const char *at = static_cast<char *>(frame->data) + sample * size;
            double value = 0.0;
            float narrow = 0.0F;
            std::memcpy(&narrow, at, sizeof narrow);
            size == 8 ? std::memcpy(&value, at, sizeof value) : nullptr;
            EXPECT_EQ(size == 8 ? value : narrow, size == 8 ? sample / 10.0 : float(sample / 10.0)) << size;
        }
    }
}

TEST_F(Sequentialized, AMissingFrameIsReportedWhenTheClockAndTheValueHaveMoved)
{
    static Sequentializer *seq;
    static std::vector<std::tuple<int64_t, double, int64_t>> seen;
    seen.clear();
    Stream stream({.pipeRate = 0.5, .stale = 0.001}); // a pool that never grows
    seq = stream.seq;
    while (Frame *frame = seq->free_frames) {
        seq->free_frames = frame->next;
        free(frame);
    }
    stream.value(0.0, 7.0);
    libvuErrorCallback = [](const char *text) {
        if (std::string_view(text) == "Unable to add frames to sequentializer")
            seen.emplace_back(seq->clock->current_tick, seq->value, seq->sample_count);
        return 1;
    };
    stream.until(130000.0);
    EXPECT_THAT(seen, ElementsAre(std::tuple(40000, 7.0, 0), std::tuple(80000, kInvalid, 1),
                                  std::tuple(120000, kInvalid, 2)));
    seq->pipe_rate = 1.0;
    stream.until(170000.0);
    ASSERT_TRUE(seq->current_frame);
    EXPECT_EQ(seq->current_frame->start, 3) << "the samples lost before are counted";
}

// What is asked in these builds at every call names each rule that a stream can break.
TEST_F(Sequentialized, EveryBrokenRuleIsNamed)
{
    Stream stream;
    stream.until(130000.0);
    Sequentializer &seq = *stream.seq;
    EXPECT_EQ(libvu::brokenStreamRule(seq), nullptr);
    const auto names = [&seq](auto &field, auto wrong, const char *part) {
        const auto right = std::exchange(field, wrong);
        EXPECT_THAT(libvu::brokenStreamRule(seq), testing::HasSubstr(part));
        field = right;
    };
    names(seq.clock, nullptr, "clock");
    names(seq.clock->current_tick, seq.clock->next_tick + 1, "next tick");
    names(seq.sample_count, -1, "counted");
    names(seq.sample_count, 2, "counted");
    names(seq.frame_samples, 9, "capacity");
    names(seq.current_frame->length, 10u, "not full");
    names(seq.current_frame->refcount, int16_t{2}, "own");
    names(seq.free_frames->prev, seq.current_frame, "pool");
}

TEST_F(Sequentialized, SurvivesTimesAndLivesBeyondAllBounds)
{
    for (const double rate :
         {40e6 / 0x1p53, 1e-8, 7e-8}) // periods stepped as doubles, and as whole numbers at first
        for (const double stale : {1e12, HUGE_VAL, 1e300, -1e300, -HUGE_VAL, std::nan("")}) {
            const double period = 4e7 / rate;
            Stream stream({.sampleRate = rate, .pipeRate = 1, .stale = stale});
            for (const double time : {-0x1p63, -HUGE_VAL, std::nan(""), HUGE_VAL, -1e300})
                stream.value(time, 3.0);
            EXPECT_EQ(stream.seq->sample_count, 0);
            EXPECT_EQ(stream.seq->last_target, INT64_MIN);
            stream.value(1.1 * period, 5.0); // sample 1 is still ahead
            for (const double time : {3.2 * period, 0x1p62, 0x1p63, 1e300})
                stream.value(time, 6.0);
            const auto taken = stream.taken();
            EXPECT_EQ(static_cast<double>(taken.size()), std::ceil(0x1p63 / period));
            EXPECT_EQ(taken.at(1), stale > 0 ? 5.0 : kInvalid);
            EXPECT_EQ(stream.seq->last_target, INT64_MAX);
        }
}

TEST_F(Sequentialized, RefusesRatesAndSurvivesShortMemory)
{
    const auto create = [](double pipeRate, double sampleRate) {
        return createSequentializer(8, pipeRate, sampleRate, 1.0, 0.0);
    };
    for (const double rate : {0.0, -1.0, HUGE_VAL, std::nan(""), 1e10}) {
        EXPECT_EQ(create(rate, 1.0), nullptr);
        EXPECT_THAT(errors.texts(), ElementsAre(fmt::format("Invalid pipe rate: {:g}", rate)));
    }
    EXPECT_EQ(create(1.0, -1.0), nullptr);
    EXPECT_THAT(errors.texts(), ElementsAre("Invalid sample rate: -1"));
    for (const int nth : {0, 1}) {
        memory.failAt(nth);
        EXPECT_EQ(create(1.0, 1.0), nullptr);
    }
    memory.failAt(4);
    Stream stream({.pipeRate = 1});
    EXPECT_EQ(pooled(stream.seq), 2);
    EXPECT_THAT(errors.texts(), ElementsAre("Unable to allocate memory for sequentializer object",
                                            "Unable to allocate memory for sampleClock",
                                            "Can not allocate memory for frame"));
}

} // namespace
