// Whatever happens to the bytes of a data file: it is noticed, and every block that is still whole comes out.
#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <zlib.h>

#include "tests/support/krd_builder.h"
#include "vu/krdfile/check.h"
#include "vu/krdfile/rewrite.h"

namespace vu::test {
namespace {

using krd::BlockWalk;
using krd::Bytes;
using krd::InputFile;
using krd::Piece;
using krd::Recording;

std::vector<Piece> walk(Bytes file)
{
    std::vector<Piece> pieces;
    const InputFile input(file, "file");
    BlockWalk blocks(input);
    while (const auto piece = blocks.next())
        pieces.push_back(*piece);
    return pieces;
}

// What `recover` makes of a file, in memory; proves that it is sound and holds every whole block of the old
// one.
Recording recovered(const Recording &damaged, std::vector<uint8_t> &bytes)
{
    bytes.clear();
    krd::rewrite(damaged, [&bytes](Bytes more) { bytes.insert(bytes.end(), more.begin(), more.end()); });
    Recording again = krd::scan(bytes, "recovered");
    EXPECT_EQ(krd::compareRewritten(damaged, again), "");
    EXPECT_THAT(krd::check(again).problems, ::testing::IsEmpty());
    return again;
}

// A file of 64 KiB and a little more, channels of every kind, blocks of 30 to 1300 bytes.
class Damage : public ::testing::Test {
protected:
    Damage()
    {
        KrdBuilder builder(folder.path("whole.krd"), everyKind(), {}, 120);
        int64_t sample = 0;
        while (builder.bytes().size() < 60'000) {
            builder.samples(0, std::vector<double>(static_cast<size_t>(sample % 300 + 1), 0.5), sample);
            sample += sample % 300 + 1;
        }
        buildEverything(builder, sample);
        file = builder.bytes();
        whole = walk(file);
        EXPECT_GT(file.size(), size_t{1} << 16);
        EXPECT_THAT(krd::check(krd::scan(file, "whole")).problems, ::testing::IsEmpty());
    }

    TempDir folder;
    std::vector<uint8_t> file, scratch;
    std::vector<Piece> whole;
};

TEST_F(Damage, EveryFlippedBitCostsItsOwnBlockAndNoOther)
{
    for (size_t i = 0; i < whole.size(); ++i) {
        // A walk depends on nothing before the block it is at, so that what is after two more is as it was.
        const Bytes rest = Bytes(file).subspan(whole[i].offset);
        for (uint64_t bit = 0; bit < 8 * whole[i].bytes; ++bit) {
            uint8_t &byte = file[whole[i].offset + bit / 8];
            byte = static_cast<uint8_t>(byte ^ 1u << bit % 8);
            const InputFile input(rest, "rest");
            BlockWalk blocks(input);
            const auto damage = blocks.next(), next = blocks.next();
            byte = static_cast<uint8_t>(byte ^ 1u << bit % 8);
            ASSERT_NE(damage->kind, Piece::kBlock) << "bit " << bit << " of the block at " << whole[i].offset;
            ASSERT_EQ(damage->bytes, whole[i].bytes);
            ASSERT_EQ(next.has_value(), i + 1 < whole.size());
            ASSERT_TRUE(!next || next->kind == Piece::kBlock);
        }
    }
}

TEST_F(Damage, EveryCutLeavesTheWholeBlocksBeforeIt)
{
    size_t before = 0; // blocks that end within the cut file
    for (size_t length = 1; length < file.size(); ++length) {
        const auto pieces = walk(Bytes(file).first(length));
        before += length == whole[before].offset + whole[before].bytes;
        const bool ragged = length != whole[before].offset;
        ASSERT_EQ(pieces.size(), before + ragged) << length;
        ASSERT_TRUE(!ragged || pieces.back().kind == Piece::kUnfinished) << length;
        if (length % 911 == 0 && before > 0) {
            const Recording cut = krd::scan(Bytes(file).first(length), "cut");
            EXPECT_FALSE(krd::check(cut).sound());
            recovered(cut, scratch);
        }
    }
}

TEST_F(Damage, RecoveryKeepsTheLedgerClosedAndIsItselfWhole)
{
    for (size_t at = 5; at < file.size(); at += 613) {
        SCOPED_TRACE(at);
        std::vector<uint8_t> damaged = file;
        std::fill_n(damaged.begin() + static_cast<ptrdiff_t>(at),
                    std::min<size_t>(at % 900, file.size() - at), 0x4B);
        const Recording found = krd::scan(damaged, "damaged");
        EXPECT_EQ(found.damagedBytes + found.unfinishedBytes > 0, at % 900 > 0);
        EXPECT_EQ(krd::check(found).sound(), at % 900 == 0);
        const Recording again = recovered(found, scratch);
        for (const krd::LedgerEntry &entry : again.closing->ledger)
            EXPECT_EQ(entry.stored + entry.discardedSum(), entry.received);
    }
}

TEST_F(Damage, ALostCatalogueComesFromItsCopy)
{
    KrdBuilder copied(folder.path("copied.krd"), everyKind());
    const KrdBuilder::Json copy = krd::toJson(*krd::scan(copied.bytes(), "begun").catalogue);
    copied.close({{"/catalogue", copy}});
    std::vector<uint8_t> bytes = copied.bytes();
    bytes[100] ^= 1;
    const Recording found = krd::scan(bytes, "copied");
    EXPECT_TRUE(found.catalogueIsCopy);
    EXPECT_EQ(krd::toJson(*found.catalogue), copy);
    EXPECT_FALSE(krd::check(found).sound());
}

// Whatever a later version says of a file, its channels and its end is there again in the recovered one.
TEST_F(Damage, KeysThatNobodyKnowsSurviveARecovery)
{
    const auto catalogue =
        R"({"/new": [1], "/id": "u", "/recorder": {"program": "p", "version": "2", "host": "h", "new": 2},
        "/start_utc": "z", "/follows": {"id": "v", "part": 2, "new": {}}, "/attachments": [{"name": "n"}],
        "/channels/0/new": null, "/channels/0/invalid": -1.5, "/channels/0/values": {"1": "on"},
        "/channels/0/comment": "c", "/channels/0/calibration": {"scale": 2.0, "offset": 1.0, "zero": 0.5, "new": 3}})";
    const auto closing =
        R"({"/new": "n", "/ledger/0/new": 4, "/ledger/0/never": true, "/ledger/0/discarded/new": 0,
        "/ledger/1/group": 3, "/events/0": {"time": 1.0, "kind": "new", "new": 1}, "/events_left_out": 3,
        "/accounts": [{"channel": "a", "source": "s", "known": true, "final": true, "read": 3, "sent": 2, "lost": 0,
                       "left_out": {"new": 1}, "can_fd_wanted_out": true, "new": 6}]})";
    KrdBuilder built(folder.path("later.krd"), everyKind(), KrdBuilder::Json::parse(catalogue));
    built.samples(0, {1, 2}, 0);
    built.close(KrdBuilder::Json::parse(closing));
    const std::vector<uint8_t> later = built.bytes();
    Recording damaged = krd::scan(later, "later");
    damaged.catalogueIsCopy = true; // so that it is written anew, and not copied byte by byte
    const auto jsonOf = [](const krd::Block &block) {
        return krd::parseJson(krd::BlockReader().payload(block), "block");
    };
    const Recording again = recovered(damaged, scratch);
    EXPECT_EQ(KrdBuilder::Json::diff(jsonOf(damaged.blocks.front()), jsonOf(again.blocks.front())),
              KrdBuilder::Json::array());
    KrdBuilder::Json before = jsonOf(damaged.blocks.back()), after = jsonOf(again.blocks.back());
    EXPECT_EQ(after["events"].size(), 2u) << "the recovery is one more";
    after["events"].erase(1);
    before.erase("index_blocks"), after.erase("index_blocks");
    EXPECT_EQ(KrdBuilder::Json::diff(before, after), KrdBuilder::Json::array());
}

// A header every 12 bytes, each with a second size word in its place 2 MiB or 8 kB after it: proved one by
// one, hours, or half a minute.
class Headers : public Damage, public ::testing::WithParamInterface<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(Claims, Headers, ::testing::Values((2 << 20) / 12, 8000 / 12));

TEST_P(Headers, ThatAllClaimTheSameBytesCostNoTime)
{
    constexpr uint32_t kHeaders = (4 << 20) / 12;
    const std::string header = bytesOf(__builtin_bswap32(GetParam() * 12 + 4), 0) + "KRD1";
    std::vector<uint8_t> hostile;
    for (uint32_t i = 0; i < kHeaders; ++i)
        hostile.insert(hostile.end(), header.begin(), header.end());
    const size_t before = hostile.size();
    KrdBuilder large(folder.path("large.krd"), everyKind());
    large.samples(0, std::vector<double>(5000, 0.5), 0);
    const std::vector<uint8_t> sound = large.bytes();
    hostile.insert(hostile.end(), sound.begin(), sound.end());
    const auto pieces = walk(hostile), expected = walk(sound);
    ASSERT_EQ(pieces.size(), expected.size() + 1);
    EXPECT_EQ(pieces[0].kind, Piece::kDamage);
    EXPECT_EQ(pieces[0].bytes, before);
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(pieces[i + 1].offset, before + expected[i].offset);
    EXPECT_GT(std::ranges::max(expected, {}, &Piece::bytes).bytes, 16384u); // beyond what is summed directly
}

// Blocks of 64 MiB that are holes: a file beyond 4 GiB that takes no room.
TEST_F(Damage, FilesBeyondFourGiBAreReadWhole)
{
    constexpr uint32_t kPayload = 64 << 20, kBlocks = 65, kSize = __builtin_bswap32(kPayload + 20);
    KrdBuilder builder(folder.path("big.krd"),
                       R"([{"name":"big","element":"uint8","element_size":1,"encoding":"rle"}])");
    const std::string head = bytesOf(kSize, __builtin_bswap32(2)) + "KRD1", hole(kPayload, '\0');
    const auto crc = [](uLong before, const std::string &of) {
        return crc32(before, reinterpret_cast<const Bytef *>(of.data()), static_cast<uInt>(of.size()));
    };
    const auto checksum = static_cast<uint32_t>(crc(crc(0, head), hole));
    std::fstream big(builder.path, std::ios::in | std::ios::out | std::ios::binary);
    big.seekp(0, std::ios::end);
    for (uint32_t i = 0; i < kBlocks; ++i)
        (big << head).seekp(kPayload, std::ios::cur) << bytesOf(__builtin_bswap32(checksum), kSize);
    big.close();
    builder.samples(0, {5, 5, 5}, 0);
    const Recording found = krd::scan(krd::openInput(builder.path));
    ASSERT_EQ(found.blocksOf(2).size(), kBlocks + 1);
    EXPECT_GT(found.blocksOf(2).back().offset, uint64_t{1} << 32);
    EXPECT_EQ(found.damagedBytes, 0u);
}

} // namespace
} // namespace vu::test
