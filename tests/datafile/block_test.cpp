#include <arpa/inet.h>
#include <numeric>
#include <random>

#include "tests/datafile/data_file.h"

using namespace vu::test;
using ::testing::ElementsAre;

TEST_F(DataFile, BytesWaitForTheFlushSizeForceOrWantOfRoom)
{
    channel.flush_size = 4;
    EXPECT_EQ(KRDBuffer_append(&channel, "abcd", 4), 4);
    EXPECT_EQ(KRDBuffer_flush(&channel, 0), 0); // 4 is not above 4
    EXPECT_EQ(KRDBuffer_append(&channel, "e", 1), 5);
    for (int32_t *out_of_use : {&channel.idx, &channel.fd}) {
        const int32_t before = std::exchange(*out_of_use, -1);
        EXPECT_EQ(KRDBuffer_flush(&channel, 1), 0);
        *out_of_use = before;
    }
    EXPECT_EQ(KRDBuffer_flush(&channel, 0), 25);
    EXPECT_EQ(KRDBuffer_flush(&channel, 0), 0);
    EXPECT_EQ(KRDBuffer_flush(&records[1], 1), 20); // not even a buffer: the header is summed all the same
    EXPECT_EQ(channel.amount_written, 25.0);
    channel.amount_written = records[1].amount_written = 0.75;
    EXPECT_EQ(KRDWriter_amount_written(2, records), 1.0); // the sum is rounded, not each

    const std::string much(256, 'x'); // a buffer grows only while it holds less
    EXPECT_EQ(KRDBuffer_enq(&channel, much.data(), 256), 256);
    EXPECT_EQ(KRDBuffer_enq(&channel, "y", 1), -1);
    EXPECT_EQ(KRDBuffer_append(&channel, "yz", 2), 2); // behind a flush
    EXPECT_THAT(blocks(), ElementsAre(Block{0, 2, "abcde"}, Block{25, 3, ""}, Block{45, 2, much}));
    EXPECT_EQ(KRDBuffer_enq(&channel, much.data(), 253), 253);
    EXPECT_EQ(KRDBuffer_enq(&channel, much.data(), 256), 256); // 255 bytes still grow
    channel.fd = -1;
    EXPECT_EQ(KRDBuffer_append(&channel, much.data(), 2), 0);
    EXPECT_EQ(channel.buffer.size, 511u);
    EXPECT_EQ(KRDBuffer_enq(&records[1], much.data(), 0xFFFFFFFF), -1); // no size wraps
    EXPECT_EQ(errors.texts().size(), 1u);
}

// An index of 64 bytes, some of them held already, and one that nobody gave memory: what it has written and
// still holds are the entries of the blocks in the file. With 11 bytes left it writes itself first.
TEST_F(DataFile, IndexListsEveryBlock)
{
    for (const int held : {-1, 0, 40, 52, 53, 64}) {
        startOver(held < 0 ? 0 : 64);
        membufAppend(&index.buffer, nullptr, held < 0 ? 0 : static_cast<uint32_t>(held));
        std::string expected(index.buffer.size, '\0'), listed;
        for (size_t i = 0; i < 9; i++) {
            queue(records[i % 4], std::vector<float>(i + 1));
            flushChannels();
            EXPECT_EQ(blocks()[0].group, held < 0 || held > 52 ? 1u : 2u) << held;
            KRDBuffer_append(&channel, "metadata", 8);
            KRDBuffer_flush(&channel, i % 3 == 1);
        }
        KRDBuffer_flush(&index, 1);
        for (const auto &[at, group, payload] : blocks())
            (group == KRD_GROUP_INDEX ? listed : expected) +=
                group == KRD_GROUP_INDEX ? payload
                                         : bytesOf<uint32_t>({0, htonl(uint32_t(at)), htonl(group)});
        EXPECT_EQ(listed, expected) << held;
    }
}

// Random batches of every block type, plain and converted, against random limits. What is stored is the head
// of the batch, up to the limit; the smallest batch worth a block counts only while the limit is far.
TEST_F(DataFile, HeadOfABatchIsStoredUpToTheLimit)
{
    std::mt19937 random(7);
    const auto below = [&](int64_t n) { return static_cast<int64_t>(random() % static_cast<uint64_t>(n)); };
    for (int round = 0; round < 700; round++) {
        SCOPED_TRACE(round);
        startOver();
        const bool converted = below(3) == 0, stays_possible = below(2), stamped = below(2), aux = below(2);
        channel.uniform_frames = converted || below(2);
        if (converted)
            KRDBuffer_set_storage_convert(&channel, "sequential_float32", "sequential_float64", 1, nullptr);
        channel.block_type = !stamped ? KRD_BLOCK_RUNNING : aux ? KRD_BLOCK_START_AUX : KRD_BLOCK_START;
        channel.no_position = static_cast<int32_t>(below(2));
        const int64_t running = below(30), start = stamped ? below(30) : 0, limit = below(60) - 5;
        channel.position = running;
        channel.sample_limit = limit;
        std::vector<float> all;
        for (int64_t frames = 1 + below(5), i = frames; i > 0; i--) {
            std::vector<float> values(static_cast<size_t>(below(7) + (i == 1)));
            std::iota(values.begin(), values.end(), static_cast<float>(all.size()));
            all.insert(all.end(), values.begin(), values.end());
            queue(channel, values, i == frames ? start : 77);
        }
        const auto offered = static_cast<int64_t>(all.size());
        channel.min_samples = static_cast<int32_t>(offered + below(2));
        const bool stays = stays_possible && channel.min_samples > offered &&
                           (limit < 0 || (limit > 0 && running + offered < limit));
        const int64_t first = stamped ? start : running;
        const bool over = !stays && limit > 0 && first + offered > limit;
        if (stays || limit == 0 || (over && first >= limit))
            all.clear();
        else if (over)
            all.resize(static_cast<size_t>(limit - first));

        flushChannels(!stays_possible);
        std::vector<Block> expected;
        if (!all.empty()) {
            std::string head = channel.no_position ? "" : bytesOf<int64_t>({first});
            head += channel.block_type == KRD_BLOCK_START_AUX ? bytesOf<int64_t>({start + 1000}) : "";
            const std::vector<double> widened(all.begin(), all.end());
            expected.push_back({0, 2, head + (converted ? bytesOf(widened) : bytesOf(all))});
        }
        EXPECT_EQ(blocks(), expected);
        EXPECT_EQ(channel.position, running + static_cast<int64_t>(all.size()));
        EXPECT_EQ(channel.prev_position, running);
        EXPECT_EQ(pipeHasFrames(channel.pipe), stays);
        EXPECT_EQ(channel.sample_limit, over ? 0 : limit);
        EXPECT_EQ(KRDBuffer_at_limit(&channel), over || limit < 1);
        ASSERT_FALSE(HasFailure());
    }
}

// The table of pieces has 1024 places, the first of them the header's: a block of more is cut into calls, and
// is one block all the same.
TEST_F(DataFile, BlockOfManyFramesIsCutIntoCalls)
{
    using Counts = std::vector<int>;
    for (const Counts &expected : {Counts{4}, {1024}, {1024, 1}, {1024, 2}, {1024, 1023}, {1024, 1023, 1}}) {
        startOver();
        std::string payload;
        for (int i = std::accumulate(expected.begin(), expected.end(), -2); i > 0; i--) {
            const std::vector<uint16_t> values(i == 1 ? 1 : i % 3, static_cast<uint16_t>(i));
            queue(channel, values); // empty ones take a place as well
            payload += bytesOf(values);
        }
        Counts counts;
        calls.writev = [&](int to, const iovec *list, int count) {
            counts.push_back(count);
            return real_writev(to, list, count);
        };
        flushChannels();
        EXPECT_EQ(counts, expected); // the trailer goes alone if need be
        EXPECT_THAT(blocks(), ElementsAre(Block{0, 2, payload}));
        EXPECT_EQ(channel.amount_written, static_cast<double>(payload.size() + 20));
    }
}

TEST_F(DataFile, RecordsOutOfUseKeepTheirFrames)
{
    for (int i = 0; i < 4; i++)
        queue<float>(records[i], {1.0f});
    records[1].fd = 0; // good enough for bytes, not for frames
    records[2].idx = -1;
    KRDWriter_flush_these(1, -1, records, 1);
    EXPECT_EQ(file(), "");
    KRDWriter_flush_these(1, 4, records, 1); // the last one has no pipe
    EXPECT_THAT(blocks(), ElementsAre(Block{0, 5, bytesOf<float>({1.0f})}));
    for (const KRDBuffer *kept : {&records[0], &records[1], &records[2]})
        EXPECT_EQ(pipeHasFrames(kept->pipe), 1);
    channel.position = channel.sample_limit = INT64_MAX; // no sum leaves its bounds
    flushChannels();
    EXPECT_EQ(channel.position, INT64_MAX);
}

// Frames that do not hold what the sizing took them to hold, and a block that no size word can tell.
TEST_F(DataFile, BlockOfAnotherSizeThanAnnouncedIsDropped)
{
    const auto dropped = [&](const char *sizes) {
        flushChannels();
        EXPECT_THAT(errors.texts(),
                    ElementsAre("write_block_frames(): tot2write != block_len, " + std::string(sizes) +
                                ", idx: 0, group: 2, fd: " + std::to_string(fd)));
        EXPECT_EQ(index.buffer.size, 12u); // the first is listed all the same
        EXPECT_EQ(pipeHasFrames(channel.pipe), 0);
    };
    queue(channel, std::vector<double>(2));
    queue(channel, std::vector<float>(2));
    dropped("44 -> 52");
    queue(channel, std::vector<float>(1));
    queue(channel, std::vector<double>(30));
    channel.sample_limit = 1; // what the clipping takes off is more than was counted
    dropped("20 -> -96");
    channel.sample_limit = -1;
    queue(channel, std::vector<float>(1))->element_size = 0xFFFFFFFF;
    dropped("20 -> 4294967315");
    EXPECT_EQ(file(), "");
}
