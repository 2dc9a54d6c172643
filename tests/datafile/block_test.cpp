#include <random>

#include "tests/datafile/data_file.h"

using namespace vu::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(DataFile, BytesWaitForTheFlushSizeOrForce)
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
    EXPECT_EQ(file(), "");
    EXPECT_EQ(KRDBuffer_flush(&channel, 0), 25);
    EXPECT_EQ(KRDBuffer_flush(&channel, 0), 0);
    EXPECT_EQ(KRDBuffer_flush(&channel, 1), 20);    // forced, with nothing to say
    EXPECT_EQ(KRDBuffer_flush(&records[1], 1), 20); // not even a buffer: the header is summed all the same
    EXPECT_THAT(blocks(), ElementsAre(Block{0, 2, "abcde"}, Block{25, 2, ""}, Block{45, 3, ""}));
    EXPECT_EQ(channel.amount_written, 45.0);
    channel.amount_written = records[1].amount_written = 0.75;
    EXPECT_EQ(KRDWriter_amount_written(2, records), 1.0); // the sum is rounded, not each
    EXPECT_EQ(KRDWriter_amount_written(0, records), 0.0);
}

TEST_F(DataFile, BufferGrowsOnlyWhileItHoldsLittle)
{
    const std::string much(256, 'x');
    EXPECT_EQ(KRDBuffer_enq(&channel, much.data(), 256), 256);
    EXPECT_EQ(KRDBuffer_enq(&channel, "y", 1), -1);
    EXPECT_EQ(channel.buffer.size, 256u);
    EXPECT_EQ(KRDBuffer_append(&channel, "yz", 2), 2); // behind a flush
    EXPECT_THAT(blocks(), ElementsAre(Block{0, 2, much}));
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
            if (i % 3 == 1)
                KRDBuffer_append(&channel, "metadata", 8), KRDBuffer_flush(&channel, 1);
            queue(records[i % 4], std::vector<float>(i + 1));
            flushChannels();
            const bool index_first = held < 0 || held > 52;
            EXPECT_EQ(blocks()[0].group, index_first ? 1u : 2u) << held;
        }
        KRDBuffer_flush(&index, 1);
        for (const Block &block : blocks())
            if (block.group == KRD_GROUP_INDEX)
                listed += block.payload;
            else
                expected += bigEndian(block.offset, 8) + bigEndian(block.group, 4);
        EXPECT_EQ(listed, expected) << held;
    }
}

TEST_F(DataFile, LeadingFieldsFollowTheBlockType)
{
    struct Case {
        int32_t block_type, no_position;
        std::vector<int64_t> leading;
        int64_t stamped;
    };
    const std::vector<float> samples = {1.5f, -2.5f};
    for (const Case &c :
         {Case{KRD_BLOCK_RUNNING, 0, {1000}, 1000}, Case{KRD_BLOCK_RUNNING, 1, {}, 1000},
          Case{KRD_BLOCK_START, 0, {7}, 7}, Case{KRD_BLOCK_START, 1, {}, 7},
          Case{KRD_BLOCK_START_AUX, 0, {7, 1007}, 7}, Case{KRD_BLOCK_START_AUX, 1, {1007}, 7}}) {
        for (const int uniform : {0, 1}) {
            startOver();
            channel.uniform_frames = uniform;
            channel.block_type = c.block_type;
            channel.no_position = c.no_position;
            channel.position = 1000;
            queue(channel, samples, 7);
            queue(channel, samples, 9);
            flushChannels();
            EXPECT_THAT(blocks(),
                        ElementsAre(Block{0, 2, bytesOf(c.leading) + bytesOf(samples) + bytesOf(samples)}));
            EXPECT_EQ(channel.prev_position, 1000);
            EXPECT_EQ(channel.position, 1004);
            channel.position = 1000;
            queue(channel, samples, 7);
            EXPECT_EQ(KRDBuffer_flush_frames(&channel, 1), 2.0);
            EXPECT_EQ(channel.position, c.stamped);
        }
    }
}

// The table of pieces has 1024 places: a block of more is cut into calls, and is one block all the same.
TEST_F(DataFile, BlockOfManyFramesIsCutIntoCalls)
{
    const std::vector<std::pair<int, std::vector<int>>> cases = {{3, {4}},
                                                                 {1023, {1024}},
                                                                 {1024, {1024, 1}},
                                                                 {1025, {1024, 2}},
                                                                 {1502, {1024, 479}},
                                                                 {2046, {1024, 1023}},
                                                                 {2047, {1024, 1023, 1}},
                                                                 {2048, {1024, 1023, 2}}};
    for (const int32_t no_position : {0, 1})
        for (const auto &[pieces_before_trailer, expected] : cases) {
            startOver();
            channel.no_position = no_position;
            const size_t frames = static_cast<size_t>(pieces_before_trailer - 2 + no_position);
            std::string payload = no_position ? "" : std::string(8, '\0');
            for (size_t i = 1; i <= frames; i++) {
                const std::vector<uint16_t> values(i == frames ? 1 : i % 3, static_cast<uint16_t>(i));
                queue(channel, values); // empty ones take a place as well
                payload += bytesOf(values);
            }
            std::vector<int> counts;
            calls.writev = [&](int to, const iovec *pieces, int count) {
                counts.push_back(count);
                return real_writev(to, pieces, count);
            };
            flushChannels();
            calls.writev = nullptr;
            EXPECT_EQ(counts, expected);
            EXPECT_THAT(blocks(), ElementsAre(Block{0, 2, payload}));
            EXPECT_EQ(channel.amount_written, static_cast<double>(file().size()));
        }
}

// Random batches against random limits, plain and converted. What is stored is the head of the batch, up to
// the limit; the smallest batch worth a block counts only while the limit is far.
TEST_F(DataFile, LimitLetsTheHeadOfABatchPass)
{
    std::mt19937 random(7);
    const auto below = [&](int64_t n) { return static_cast<int64_t>(random() % static_cast<uint64_t>(n)); };
    for (int round = 0; round < 600; round++) {
        startOver();
        const int kind = static_cast<int>(below(3));
        channel.uniform_frames = kind > 0;
        if (kind == 2)
            KRDBuffer_set_storage_convert(&channel, "sequential_float32", "sequential_float64", 1, nullptr);
        channel.no_position = 1;
        channel.min_samples = 1000;
        const int64_t start = below(30), limit = below(60) - 5, force = below(2);
        channel.position = start;
        channel.sample_limit = limit;
        std::vector<float> all;
        for (int64_t frames = 1 + below(5); frames > 0; frames--) {
            std::vector<float> values(static_cast<size_t>(below(7) + (frames == 1)));
            for (float &value : values)
                all.push_back(value = static_cast<float>(all.size()));
            queue(channel, values);
        }
        const int64_t offered = static_cast<int64_t>(all.size());
        const bool over = limit > 0 && start + offered > limit;
        int64_t stored = offered;
        if (limit == 0)
            stored = 0;
        else if (over)
            stored = std::max<int64_t>(limit - start, 0);
        const bool stays = !force && (limit < 0 || (limit > 0 && start + offered < limit));

        flushChannels(force);
        all.resize(static_cast<size_t>(stays ? 0 : stored));
        const std::string kept =
            kind == 2 ? bytesOf(std::vector<double>(all.begin(), all.end())) : bytesOf(all);
        if (all.empty())
            EXPECT_THAT(blocks(), IsEmpty());
        else
            EXPECT_THAT(blocks(), ElementsAre(Block{0, 2, kept}));
        EXPECT_EQ(channel.position, start + static_cast<int64_t>(all.size()));
        EXPECT_EQ(pipeHasFrames(channel.pipe), stays);
        EXPECT_EQ(channel.sample_limit, over ? 0 : limit);
        EXPECT_EQ(KRDBuffer_at_limit(&channel), over || limit < 1);
        ASSERT_FALSE(HasFailure()) << "round " << round;
    }
}

TEST_F(DataFile, RecordsOutOfUseKeepTheirFrames)
{
    const std::vector<float> sample = {1.0f};
    for (KRDBuffer &record : records)
        if (record.pipe)
            queue(record, sample);
    records[1].fd = 0; // good enough for bytes, not for frames
    records[2].idx = -1;
    index.pipe = nullptr;
    KRDWriter_flush_these(0, 0, records, 1);
    KRDWriter_flush_these(1, -1, records, 1);
    EXPECT_EQ(file(), "");
    KRDWriter_flush_these(1, 4, records, 1);
    EXPECT_THAT(blocks(), ElementsAre(Block{0, 5, std::string(8, '\0') + bytesOf(sample)}));
    for (const KRDBuffer *kept : {&records[0], &records[1], &records[2]})
        EXPECT_EQ(pipeHasFrames(kept->pipe), 1);
    channel.block_type = KRD_BLOCK_START;
    channel.position = INT64_MAX; // and no sum leaves its bounds
    channel.sample_limit = INT64_MAX;
    flushChannels();
    EXPECT_EQ(channel.position, INT64_MAX);
}

// Frames that do not hold what the sizing took them to hold, and a block that no size word can tell.
TEST_F(DataFile, BlockOfAnotherSizeThanAnnouncedIsDropped)
{
    const std::string where = ", idx: 0, group: 2, fd: " + std::to_string(fd);
    queue(channel, std::vector<double>(2));
    queue(channel, std::vector<float>(2));
    flushChannels();
    EXPECT_THAT(errors.texts(),
                ElementsAre("write_block_frames(): tot2write != block_len, 52 -> 60" + where));
    EXPECT_EQ(index.buffer.size, 12u); // listed all the same
    queue(channel, std::vector<float>(1));
    queue(channel, std::vector<double>(30));
    channel.sample_limit = 1; // what the clipping takes off is more than was counted
    flushChannels();
    EXPECT_THAT(errors.texts(),
                ElementsAre("write_block_frames(): tot2write != block_len, 20 -> -88" + where));
    channel.sample_limit = -1;
    Frame *huge = frameCreate(0x40000000, 4, &channel);
    huge->length = huge->capacity;
    pipeAddFrame(channel.pipe, huge);
    flushChannels();
    EXPECT_THAT(errors.texts(),
                ElementsAre("write_block_frames(): tot2write != block_len, 20 -> 4294967324" + where));
    EXPECT_EQ(pipeHasFrames(channel.pipe), 0);
    EXPECT_EQ(index.buffer.size, 12u);
    EXPECT_EQ(file(), "");
}
