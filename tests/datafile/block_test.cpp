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
    EXPECT_EQ(KRDBuffer_append(&channel, "yz", 2), 2); // behind a flush
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
        SCOPED_TRACE(round);
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
        EXPECT_TRUE(blocks() == expected);
        EXPECT_EQ(channel.position, running + static_cast<int64_t>(all.size()));
        EXPECT_EQ(channel.prev_position, running);
        EXPECT_EQ(pipeHasFrames(channel.pipe), stays);
        EXPECT_EQ(channel.sample_limit, over ? 0 : limit);
        EXPECT_EQ(KRDBuffer_at_limit(&channel), over || limit < 1);
        ASSERT_FALSE(HasFailure());
    }
}
