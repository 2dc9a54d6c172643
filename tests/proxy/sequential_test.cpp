// Samples from the wire to frames, calibrated on the way, and the kernels against plain loops.
#include <cmath>
#include <fmt/format.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>

#include "libvu/proxy/kernels_private.h"
#include "tests/proxy/proxy_fixture.h"

using namespace vu::test;
using testing::ElementsAre;

namespace {

class Sequential : public Channels {};

TEST_F(Sequential, RecordsInAnyPiecesFillFramesForEveryListener)
{
    for (const bool big : {true, false}) {
        Bytes stream = sampleRecord<double>({1, 2.5, 3}, big);
        for (const size_t noRoomForASample : {0, 4, 7, 8, 15})
            stream.add(record(Bytes().zeros(noRoomForASample)));
        stream.add(sampleRecord<double>({4, 5, 6, 7, 8}, big)).add(sampleRecord<double>({9}, big));
        for (size_t piece = 1; piece <= stream.size(); piece++) {
            PairChannel channel("float64");
            Pipe *const second = channel.listen();
            channel.sendMarker(big);
            if (big && piece % 2) // a host's own
                channel->byte_swap = [](ProxyNode *node, void *frame) {
                    EXPECT_EQ(static_cast<Frame *>(frame)->length, 2u);
                    proxyNode_swapDoubleSamples(node, frame);
                };
            for (size_t at = 0; at < stream.size(); at += piece)
                channel.send(std::span(stream).subspan(at, std::min(piece, stream.size() - at)));
            EXPECT_THAT((std::array{channel->sample_count, channel.pipe->queued}), ElementsAre(9, 8))
                << piece;
            EXPECT_EQ(channel.pipe->oldest, second->oldest->parent);
            EXPECT_EQ(channel->frame->length, 1u);
            EXPECT_EQ(std::memcmp(channel->frame->data, &stream.end()[-8], 8), 0) << "in wire order still";
            const auto frames = takeFrames(channel.pipe);
            ASSERT_EQ(frames.size(), 4u);
            EXPECT_THAT((std::array{frames[0].start, frames[3].start}), ElementsAre(0, 6));
            EXPECT_EQ(frames[3].aux, 6.0F);
            EXPECT_EQ(takeSamples<double>(second), (std::vector<double>{1, 2.5, 3, 4, 5, 6, 7, 8}));
        }
    }
}

// Of four consumers the second gets no clone. One of the two reports of it detaches any of the four.
TEST_F(Sequential, DeliveryGoesOnAfterAReportThatDetachesAnyPipes)
{
    const auto noting = libvuErrorCallback;
    for (const char *const report : {"Can not allocate memory for clone", "Frame not given"})
        for (unsigned leaving = 0; leaving < 16; leaving++) {
            SCOPED_TRACE(fmt::format("pipes {:04b} (first is last) leave at \"{}\"", leaving, report));
            TestChannel channel(stanza("sequential_float32", R"("sample_rate":20)"));
            static PipeList *pipes;
            static std::vector<Pipe *> leavers;
            static const char *awaited;
            Pipe *const all[] = {channel.listen(), channel.listen(), channel.listen(), channel.listen()};
            pipes = &channel->pipes;
            awaited = report;
            leavers.clear();
            for (size_t i = 0; i < 4; i++)
                if (leaving >> i & 1)
                    leavers.push_back(all[i]);
            const auto expectQueued = [&](const std::vector<int64_t> &wanted) {
                std::vector<int64_t> queued, left;
                for (const Pipe *pipe = pipes->first; pipe; pipe = pipe->next)
                    queued.push_back(pipe->queued);
                for (size_t i = 0; i < 4; i++)
                    if (!(leaving >> i & 1))
                        left.push_back(wanted[i]);
                EXPECT_EQ(queued, left);
            };
            channel.sendMarker();
            channel.send(sampleRecord<float>({1}));
            libvuErrorCallback = [](const char *text) {
                if (std::string_view(text) == awaited)
                    for (Pipe *pipe : std::exchange(leavers, {}))
                        pipeDetachPipe(pipes, pipe);
                return 1;
            };
            memory.failAt(0);
            channel.send(sampleRecord<float>({2}));
            libvuErrorCallback = noting;
            expectQueued({2, 0, 2, 2});
            channel.send(sampleRecord<float>({3, 4}));
            expectQueued({4, 2, 4, 4});
        }
}

TEST_F(Sequential, UnheardOrWithoutAFrameOneRecordIsTakenAnEvent)
{
    PairChannel channel;
    pipeDetachPipe(&channel->pipes, channel->pipes.first);
    Bytes five = {0xFE, 0xED};
    for (int k = 0; k < 5; k++)
        five.add(sampleRecord<float>({1, 2, 3}));
    channel.send(five);
    EXPECT_EQ(channel->sample_count, 3);
    EXPECT_GT(channel->read_count, 0u);
    channel.runLeftovers();
    EXPECT_EQ(channel->sample_count, 15);
    Pipe *const pipe = channel.listen();
    memory.failAt(0);
    channel.send(sampleRecord<float>({1, 2}).add(sampleRecord<float>({7, 8, 9})));
    EXPECT_THAT(errors.texts(), ElementsAre("Can not allocate memory for frame"));
    EXPECT_EQ(pipe->oldest, nullptr);
    channel.runLeftovers();
    ASSERT_TRUE(pipe->oldest);
    EXPECT_EQ(pipe->oldest->start, 15);
    EXPECT_THAT(takeSamples<float>(pipe), ElementsAre(7, 8));
    pipeDetachPipe(&channel->pipes, pipe);
    channel.send(sampleRecord<float>({1}));
    EXPECT_EQ(channel->frame, nullptr);
}

template <typename T>
void calibrate(const std::string &line)
{
    ErrorTrap errors;
    std::istringstream words(line);
    std::string width, mode, keys, word;
    double length;
    words >> width >> mode >> length >> keys;
    const Strings parts = split(mode + "@c", '@');
    mode = parts[0];
    const std::string type = sizeof(T) == 4 ? "float32" : "float64";
    if (width != "both" && width != type)
        return;
    TestChannel channel(stanza("a_sequential_" + type + "_b", R"("sample_rate":10,)" + keys, parts[1]),
                        10.0 / length);
    Pipe *const pipe = channel.listen();
    if (mode == "zeroing")
        channel->main_reader = proxyNode_ProxyReaderSequentialZeroing;
    const bool asked = mode == "pending" || mode == "writing";
    channel->rezero_pending = asked;
    static ProxyNode *current;
    current = channel.node;
    if (mode == "writing")
        libvuRezeroCallback = [](const char *, double) {
            return current->rezero_offset = 1.0, current->apply = nullptr, 0;
        };
    channel.sendMarker();
    while (words >> word && word != "=")
        channel.send(sampleRecord(nlohmann::json::parse(word).get<std::vector<T>>()));
    words >> word;
    EXPECT_EQ(nlohmann::json(takeSamples<T>(pipe)), nlohmann::json::parse(word)) << line;
    EXPECT_EQ(channel->rezero_pending, asked);
    const decltype(errors.rezeros()) wanted(mode == "pending", {"ch", 5.0});
    EXPECT_EQ(errors.rezeros(), wanted) << line;
}

TEST(Calibration, ScalesOffsetsAndZeroes)
{
    for (const Case &row : cases("proxy/calibrations.txt")) {
        const std::string &line = row.text;
        calibrate<float>(line);
        calibrate<double>(line);
    }
}

template <typename T, typename Word>
void everyPathIsExact()
{
    using Limits = std::numeric_limits<T>;
    const T tiny = Limits::denorm_min(), endless = Limits::infinity(),
            quiet = std::bit_cast<T>(std::bit_cast<Word>(Limits::quiet_NaN()) | 5),
            signalling = std::bit_cast<T>(std::bit_cast<Word>(endless) | 5);
    std::mt19937_64 random(7);
    const auto any = [&](int spread, int least) {
        return T(std::ldexp(double(int64_t(random())), int(random() % spread) + least));
    };
    for (int count = 0; count < 72; count++) {
        T scale = any(60, -90), offset = any(30, -70);
        if (count > 68)
            scale = T(count - 70), offset = count == 69 ? tiny : T(-0.0);
        std::vector<T> samples = {0,    T(-0.0),           1,       T(1) / 3, Limits::min(),
                                  tiny, Limits::max() / 2, endless, quiet,    signalling};
        while (samples.size() < 72)
            samples.push_back(any(40, -70));
        samples.resize(count);
        Bytes given{0}, calibrated{0}, reversed{0}; // all at an odd address
        for (const T x : samples) {
            given.le(x);
            calibrated.le(std::isnan(x) ? quiet : std::fma(x, scale, offset));
            reversed.be(x);
        }
        const bool wide = libvu::hasAvx2(), wider = libvu::hasAvx512();
        for (const auto kernel :
             {libvu::scaleOffsetPlain<T>, wide ? libvu::scaleOffsetAvx2<T> : libvu::scaleOffsetPlain<T>,
              wider ? libvu::scaleOffsetAvx512<T> : libvu::scaleOffsetPlain<T>}) {
            Bytes data = given;
            kernel(data.data() + 1, samples.size(), scale, offset);
            EXPECT_EQ(data, calibrated) << scale << " " << offset;
        }
        for (const auto kernel :
             {libvu::swapPlain<Word>, wide ? libvu::swapAvx2<Word> : libvu::swapPlain<Word>,
              wider ? libvu::swapAvx512<Word> : libvu::swapPlain<Word>}) {
            Bytes data = given;
            kernel(data.data() + 1, data.data() + 1, samples.size());
            EXPECT_EQ(data, reversed);
        }
    }
}

TEST(Kernels, AreExactBitForBitOnEveryPath)
{
    everyPathIsExact<float, uint32_t>();
    everyPathIsExact<double, uint64_t>();
}

} // namespace
