// Samples from the wire to frames, calibrated on the way, and the kernels against exact arithmetic.
#include <bit>
#include <cmath>
#include <gmock/gmock.h>
#include <gmpxx.h>
#include <limits>
#include <random>

#include "libvu/core/callbacks.h"
#include "libvu/proxy/calibration.h"
#include "libvu/proxy/kernels_private.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/node_fixture.h"

using namespace vu::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using Floats = std::vector<float>;
using Doubles = std::vector<double>;

TEST(Sequential, FramesSpanRecordsAndRecordsSpanFrames)
{
    ErrorTrap errors;
    for (const bool big : {true, false}) {
        TestChannel channel(stanza("sequential_float64", R"("sample_rate":100)"));
        Pipe *const first = channel.listen(), *const second = channel.listen(),
                    *const third = channel.listen();
        channel.sendMarker(big);
        Doubles sent;
        for (int k = 0; k < 7; k++) {
            const Doubles four = {k + 0.0, k + 0.25, k + 0.5, k + 0.75};
            sent.insert(sent.end(), four.begin(), four.end());
            channel.send(sampleRecord(four, big));
            EXPECT_EQ(first->queued, (k + 1) * 4 / 10 * 10);
        }
        EXPECT_EQ(first->oldest, second->oldest->parent);
        const auto frames = takeFrames(first);
        ASSERT_EQ(frames.size(), 2u);
        EXPECT_EQ(frames[0].start, 0);
        EXPECT_EQ(frames[1].start, 10);
        EXPECT_EQ(frames[1].aux, 10.0F);
        sent.resize(20);
        EXPECT_EQ(takeSamples<double>(second), sent);
        EXPECT_EQ(takeSamples<double>(third), sent);
        EXPECT_EQ(channel->frame->length, 8u);
    }
}

TEST(Sequential, UnheardSamplesCountOneRecordAnEvent)
{
    ErrorTrap errors;
    TestChannel channel(stanza("sequential_float32", R"("sample_rate":20)"));
    Bytes five = {0xFE, 0xED};
    for (int k = 0; k < 5; k++)
        five.add(sampleRecord<float>({1, 2, 3}));
    channel.send(five);
    EXPECT_EQ(channel->sample_count, 3);
    EXPECT_GT(channel->read_count, 0u);
    channel.runLeftovers();
    EXPECT_EQ(channel->sample_count, 15);
    Pipe *const pipe = channel.listen();
    channel.send(sampleRecord<float>({7, 8, 9}));
    const auto frames = takeFrames(pipe);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].start, 15);
    EXPECT_THAT(frames[0].as<float>(), ElementsAre(7, 8));
    pipeDetachPipe(&channel->pipes, pipe);
    channel.send(sampleRecord<float>({1}));
    EXPECT_EQ(channel->frame, nullptr);
}

TEST(Sequential, AFailedFrameEndsTheEventBehindItsRecord)
{
    ErrorTrap errors;
    AllocationFaults faults;
    TestChannel channel(stanza("sequential_float32", R"("sample_rate":20)"));
    Pipe *const pipe = channel.listen();
    channel.sendMarker();
    faults.failAt(0);
    channel.send(sampleRecord<float>({1, 2}).add(sampleRecord<float>({3, 4})));
    EXPECT_THAT(errors.texts(), ElementsAre("Can not allocate memory for frame"));
    channel.runLeftovers();
    EXPECT_THAT(takeSamples<float>(pipe), ElementsAre(3, 4));
}

// Records of frames of `length` samples through a calibrated channel; each record is an event of its own.
template <typename T>
std::vector<T> calibrated(const std::string &more, const std::vector<std::vector<T>> &records, int length,
                          void (*reader)(ProxyNode *) = nullptr, bool pending = false)
{
    TestChannel channel(
        stanza(sizeof(T) == 4 ? "sequential_float32" : "sequential_float64", R"("sample_rate":10,)" + more),
        10.0 / length);
    Pipe *const pipe = channel.listen();
    if (reader)
        channel->main_reader = reader;
    channel->rezero_pending = pending;
    channel.sendMarker();
    for (const auto &samples : records)
        channel.send(sampleRecord(samples));
    EXPECT_EQ(channel->rezero_pending, pending);
    return takeSamples<T>(pipe);
}

TEST(Calibration, ScalesOffsetsAndZeroes)
{
    ErrorTrap errors;
    const auto zeroing = proxyNode_ProxyReaderSequentialZeroing;
    const std::string prerun = R"("do_prerun_zero":true,"scale":2,"offset":1,"rezero_offset":9)";
    EXPECT_THAT(calibrated<float>(R"("scale":2,"offset":1)", {{1, 2}}, 2), ElementsAre(3, 5));
    EXPECT_THAT(calibrated<float>(R"("rezero_offset":2)", {{1, 2}}, 2), ElementsAre(-1, 0));
    EXPECT_THAT(calibrated<double>(R"("scale":3,"offset":1,"rezero_offset":0.5)", {{2}}, 1),
                ElementsAre(6.5));
    EXPECT_THAT(calibrated<float>(R"("scale":1.0000000001,"offset":-1)", {{1}}, 1), ElementsAre(0));
    EXPECT_THAT(calibrated<float>(prerun, {{1, 2, 3}, {2, 2, 2}}, 3), ElementsAre(-2, 0, 2, 0, 0, 0));
    EXPECT_THAT(errors.rezeros(), IsEmpty());
    EXPECT_THAT(calibrated<double>(prerun, {{1, 2, 3}, {2, 2, 2}}, 3, nullptr, true),
                ElementsAre(-2, 0, 2, 0, 0, 0));
    EXPECT_THAT(errors.rezeros(), ElementsAre(std::pair("ch", 5.0)));
    // Two frames in one event: both meet the pre-run kernel, and the second mean stays.
    EXPECT_THAT(calibrated<double>(prerun, {{1, 3, 10, 14}, {10, 14}}, 2), ElementsAre(-2, 2, -4, 4, -4, 4));
    EXPECT_THAT(calibrated<float>(R"("purpose":"x")", {{5, 7}, {6, 5}}, 2, zeroing), ElementsAre(0, 2, 1, 0));
    EXPECT_THAT(calibrated<double>(R"("scale":4)", {{5, 7, 8, 7}, {9, 8}}, 2, zeroing),
                ElementsAre(0, 2, 0, -1, 1, 0));
    EXPECT_THAT(calibrated<float>(R"("scale":1)", {{5, 7}}, 2, zeroing),
                ElementsAre(5, 7)); // no kernel to zero with
    // The mean is that of the narrowed samples: 1 + 2^-24 stands in the frame as 1.
    EXPECT_THAT(calibrated<float>(R"("do_prerun_zero":true,"offset":5.9604644775390625e-08)", {{1, 1}}, 2),
                ElementsAre(0, 0));
}

TEST(Calibration, ACallbackMayWriteTheZero)
{
    ErrorTrap errors;
    static ProxyNode *current;
    TestChannel channel(stanza("sequential_float32", R"("sample_rate":10,"do_prerun_zero":true)"), 5);
    current = channel.node;
    channel->rezero_pending = 1;
    libvuRezeroCallback = [](const char *, double) {
        return current->rezero_offset = 1.0, current->apply = nullptr, 0;
    };
    Pipe *const pipe = channel.listen();
    channel.sendMarker();
    channel.send(sampleRecord<float>({5, 7}));
    EXPECT_THAT(takeSamples<float>(pipe), ElementsAre(4, 6));
    EXPECT_EQ(channel->apply, proxyNode_applyFloatScaleOffset);
}

// x * s + o in exact arithmetic, then the nearest T, ties to even. For finite operands.
template <typename T>
T exactFma(T x, T s, T o)
{
    const mpq_class exact = mpq_class(double(x)) * double(s) + double(o);
    const T most = std::numeric_limits<T>::max(), guess = static_cast<T>(exact.get_d());
    if (exact == 0 || std::isinf(guess))
        return exact == 0 ? x * s + o : guess; // of an exact zero only the sign is in question
    T best = guess;
    for (const T near : {std::nextafter(guess, -most), std::nextafter(guess, most)}) {
        const int order = cmp(abs(exact - double(near)), abs(exact - double(best)));
        if (order < 0 || (order == 0 && vu::loadHost<uint8_t>(&near) % 2 == 0))
            best = near;
    }
    return std::copysign(best, T(sgn(exact)));
}

template <typename T>
class Kernels : public ::testing::Test {
};
using Widths = ::testing::Types<float, double>;
TYPED_TEST_SUITE(Kernels, Widths);

TYPED_TEST(Kernels, EveryPathIsExactBitForBit)
{
    using T = TypeParam;
    using Word = std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>;
    using Limits = std::numeric_limits<T>;
    const T tiny = Limits::denorm_min(),
            quiet = std::bit_cast<T>(std::bit_cast<Word>(Limits::quiet_NaN()) | 5);
    std::mt19937_64 random(7);
    const auto any = [&](int spread, int least) {
        return T(std::ldexp(double(int64_t(random())), int(random() % spread) + least));
    };
    for (int round = 0; round < 40; round++) {
        T scale = any(60, -90), offset = any(30, -70);
        if (round == 0) // 97 through these tells one rounding from two
            scale = T(172961 * 0x1p-24), offset = T(0x1p-60);
        if (round < 4 && round > 0)
            scale = T(round - 2), offset = round == 1 ? tiny : T(-0.0);
        std::vector<T> samples = {0,    T(-0.0),           1,  T(1) / 3,           Limits::min(),
                                  tiny, Limits::max() / 2, 97, Limits::infinity(), quiet},
                       expected;
        while (samples.size() < 71)
            samples.push_back(any(40, -70));
        for (const T x : samples)
            expected.push_back(std::isnan(x)      ? quiet
                               : std::isfinite(x) ? exactFma(x, scale, offset)
                                                  : x * scale + offset);
        const auto check = [&](const char *path, auto &&kernel) {
            std::vector<uint8_t> bytes(1 + samples.size() * sizeof(T)); // at an odd address
            std::memcpy(&bytes[1], samples.data(), bytes.size() - 1);
            kernel(&bytes[1], samples.size());
            for (size_t i = 0; i < samples.size(); i++)
                ASSERT_EQ(vu::loadHost<Word>(&bytes[1 + i * sizeof(T)]), std::bit_cast<Word>(expected[i]))
                    << path << " " << samples[i] << " " << scale << " " << offset;
        };
        check("plain",
              [&](void *data, size_t count) { vu::scaleOffsetPlain<T>(data, count, scale, offset); });
        if (vu::hasAvx2())
            check("avx2",
                  [&](void *data, size_t count) { vu::scaleOffsetAvx2<T>(data, count, scale, offset); });
        check("exported", [&](void *data, size_t count) {
            ProxyNode node{};
            node.scale = scale, node.offset = offset;
            Frame frame{};
            frame.length = uint32_t(count), frame.data = data;
            const bool single = sizeof(T) == 4;
            (single ? proxyNode_applyFloatScaleOffset : proxyNode_applyDoubleScaleOffset)(&node, &frame);
        });
    }
}

TYPED_TEST(Kernels, SwappingReversesEveryBitPattern)
{
    using Word = std::conditional_t<sizeof(TypeParam) == 4, uint32_t, uint64_t>;
    std::mt19937_64 random(3);
    for (const size_t count : {0, 1, 3, 8, 67}) {
        std::vector<Word> words(count), expected;
        for (Word &word : words) {
            word = Word(random());
            Word reversed = word;
            std::reverse(reinterpret_cast<uint8_t *>(&reversed), reinterpret_cast<uint8_t *>(&reversed + 1));
            expected.push_back(reversed);
        }
        auto plain = words, avx2 = words;
        vu::swapPlain<Word>(plain.data(), count);
        EXPECT_EQ(plain, expected);
        if (vu::hasAvx2())
            vu::swapAvx2<Word>(avx2.data(), count);
        EXPECT_TRUE(avx2 == expected || !vu::hasAvx2());
        Frame frame{};
        frame.length = uint32_t(count), frame.data = words.data();
        (sizeof(Word) == 4 ? proxyNode_swapFloatSamples : proxyNode_swapDoubleSamples)(nullptr, &frame);
        EXPECT_EQ(words, expected);
    }
}

} // namespace
