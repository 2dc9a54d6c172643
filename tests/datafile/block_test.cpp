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
    EXPECT_EQ(KRDBuffer_flush(&records[1], 1), 20); // not even a buffer: the header is summed all the same
    channel.amount_written = records[1].amount_written = 0.75;
    EXPECT_EQ(KRDWriter_amount_written(2, records), 1.0); // the sum is rounded, not each

    const std::string much(256, 'x'); // a buffer grows only while it holds less
    EXPECT_EQ(KRDBuffer_enq(&channel, much.data(), 256), 256);
    EXPECT_EQ(KRDBuffer_enq(&channel, "y", 1), -1);
    EXPECT_EQ(KRDBuffer_append(&channel, "yz", 2), 2); // after a flush
    EXPECT_THAT(blocks(), ElementsAre(Block{0, 2, "abcde"}, Block{25, 3, ""}, Block{45, 2, much}));
    EXPECT_EQ(KRDBuffer_enq(&channel, much.data(), 253), 253);
    EXPECT_EQ(KRDBuffer_enq(&channel, much.data(), 256), 256);          // 255 bytes still grow
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
    for (int round = 0; round < 1000; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        startOver();
        const bool converted = below(3) == 0, forced = below(2), stamped = below(2), aux = below(2);
        const bool many = below(20) == 0; // about as many frames as one call takes pieces
        const int64_t running = below(30), start = stamped ? below(30) : 0, first = stamped ? start : running;
        const int64_t limit = many ? -1 : below(60) - 5;
        channel.uniform_frames = converted || below(2);
        if (converted)
            KRDBuffer_set_storage_convert(&channel, "sequential_float32", "sequential_float64", 1, nullptr);
        channel.block_type = !stamped ? KRD_BLOCK_RUNNING : aux ? KRD_BLOCK_START_AUX : KRD_BLOCK_START;
        channel.no_position = static_cast<int32_t>(below(2));
        channel.position = running;
        channel.sample_limit = limit;
        std::vector<float> all;
        for (int64_t frames = many ? 1016 + below(10) : 1 + below(5), i = frames; i > 0; i--) {
            std::vector<float> values(static_cast<size_t>(below(7) + (i == 1)));
            std::iota(values.begin(), values.end(), static_cast<float>(all.size()));
            all.insert(all.end(), values.begin(), values.end());
            queue(channel, values, i == frames ? start : 77);
        }
        const auto offered = static_cast<int64_t>(all.size());
        channel.min_samples = static_cast<int32_t>(offered + below(2));
        const bool stays = !forced && channel.min_samples > offered &&
                           (limit < 0 || (limit > 0 && running + offered < limit));
        const bool over = !stays && limit > 0 && first + offered > limit;
        if (stays || limit == 0)
            all.clear();
        else if (over)
            all.resize(static_cast<size_t>(std::max<int64_t>(0, limit - first)));

        flushChannels(forced);
        std::vector<Block> expected;
        if (!all.empty()) {
            std::string head = channel.no_position ? "" : bytesOf<int64_t>({first});
            head += channel.block_type == KRD_BLOCK_START_AUX ? bytesOf<int64_t>({start + 1000}) : "";
            const std::vector<double> widened(all.begin(), all.end());
            expected.push_back({0, 2, head + (converted ? bytesOf(widened) : bytesOf(all))});
        }
        EXPECT_EQ(difference(blocks(), expected), "");
        EXPECT_EQ(channel.position, running + static_cast<int64_t>(all.size()));
        EXPECT_EQ(channel.prev_position, running);
        EXPECT_EQ(pipeHasFrames(channel.pipe), stays);
        EXPECT_EQ(channel.sample_limit, over ? 0 : limit);
        EXPECT_EQ(KRDBuffer_at_limit(&channel), over || limit < 1);
        ASSERT_FALSE(HasFailure());
    }
}

// Positions and limits near the ends of 64 bits; of 10 elements, how many are stored and what the limit is
// then.
TEST_F(DataFile, LimitIsExactAtTheEndsOf64Bits)
{
    constexpr int64_t kMost = INT64_MAX, kLeast = INT64_MIN;
    const std::tuple<int64_t, int64_t, double, int64_t> rows[] = {
        {kMost - 5, kMost, 5, 0},
        {kMost - 10, kMost, 10, kMost},
        {kMost - 5, kMost - 3, 2, 0},
        {kMost, kMost, 0, 0},
        {kMost, 1, 0, 0},
        {kLeast, kMost, 10, kMost},
        {kMost - 11, kMost, 10, kMost},
        {kLeast, 1, 10, 1},
        {kMost - 5, kMost - 5, 0, 0},
    };
    for (const bool converted : {false, true})
        for (const auto &[position, limit, stored, then] : rows) {
            SCOPED_TRACE(::testing::Message() << "position " << position << ", limit " << limit);
            startOver();
            if (converted)
                KRDBuffer_set_storage_convert(&channel, "sequential_float32", "sequential_int16", 1, nullptr);
            channel.position = position;
            channel.sample_limit = limit;
            queue(channel, std::vector<float>(4));
            queue(channel, std::vector<float>(6));
            EXPECT_EQ(KRDBuffer_flush_frames(&channel, 1), stored);
            EXPECT_EQ(channel.sample_limit, then);
            EXPECT_EQ(file().size(), stored > 0 ? 20 + stored * (converted ? 2 : 4) : 0);
        }
}

// Frames that break the promise of one element size: fewer bytes than sized, and so few after the limit has
// cut off a wide frame that no block is left. The block is listed and its trailer formed before it is
// reported.
TEST_F(DataFile, FramesOfUnlikeSizesAreReportedWithTheBytesGatheredAndSized)
{
    const std::tuple<int64_t, int64_t, const char *> rows[] = {
        {-1, 0, "36 -> 68"}, {1, 0, "28 -> 1"}, {1, 1, "20 -> -7"}};
    for (const auto &[limit, without_position, sizes] : rows) {
        startOver();
        channel.no_position = static_cast<int32_t>(without_position);
        channel.sample_limit = limit;
        if (limit < 0) {
            queue(channel, std::vector<double>(1));
            queue(channel, std::vector<uint8_t>(4));
            queue(channel, std::vector<float>{});
            channel.pipe->oldest->element_size = 8;
            channel.pipe->oldest->length = 1;
            channel.pipe->oldest->prev->length = 0; // which the pipe has counted
        } else {
            queue(channel, std::vector<uint8_t>(1));
            queue(channel, std::vector<double>(4, 1.0));
        }
        EXPECT_EQ(KRDBuffer_flush_frames(&channel, 1), 0.0);
        EXPECT_THAT(errors.texts(),
                    ElementsAre(std::string("write_block_frames(): tot2write != block_len, ") + sizes +
                                ", idx: 0, group: 2, fd: " + std::to_string(fd)));
        EXPECT_EQ(index.buffer.size, 12u) << "listed before it is reported";
        EXPECT_EQ(channel.block_size_tail, channel.block_size_word);
        EXPECT_NE(channel.crc_word, 0u);
        EXPECT_FALSE(pipeHasFrames(channel.pipe));
        EXPECT_THAT(blocks(), ElementsAre());
    }
}

// As many empty frames as a call takes pieces, and more, between samples: no call writes 0 bytes, which would
// pass for a full disk.
TEST_F(DataFile, EmptyFramesTakeNoPieceOfAWrite)
{
    calls.writev = [](int to, const iovec *pieces, int count) {
        const ssize_t written = real_writev(to, pieces, count);
        EXPECT_GT(written, 0);
        return written;
    };
    for (const size_t empty : {1021, 1022, 1023, 1024, 2046, 5000}) {
        startOver();
        queue(channel, std::vector<float>{1.0f});
        for (size_t i = 0; i < empty; i++)
            queue(channel, std::vector<float>{});
        queue(channel, std::vector<float>{2.0f});
        flushChannels();
        EXPECT_EQ(difference(blocks(), {{0, 2, bytesOf<float>({1.0f, 2.0f})}}), "")
            << empty << " empty frames";
        EXPECT_EQ(KRDWriter_is_disk_full(), 0);
    }
}
