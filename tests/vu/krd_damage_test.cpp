// Whatever happens to the bytes of a data file: it is noticed, and every block that is still whole comes out.
#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include "tests/support/command.h"
#include "tests/support/krd_builder.h"
#include "vu/krdfile/check.h"
#include "vu/krdfile/rewrite.h"

namespace vu::test {
namespace {

using krd::Block;
using krd::BlockWalk;
using krd::Bytes;
using krd::Piece;
using krd::Recording;
using ::testing::HasSubstr;

std::vector<Piece> walk(Bytes file)
{
    std::vector<Piece> pieces;
    BlockWalk blocks(file);
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
        // A walk depends on nothing before the block it is at, so that what is behind two more is as it was.
        const Bytes rest = Bytes(file).subspan(whole[i].offset);
        for (uint64_t bit = 0; bit < 8 * whole[i].bytes; ++bit) {
            uint8_t &byte = file[whole[i].offset + bit / 8];
            byte = static_cast<uint8_t>(byte ^ 1u << bit % 8);
            BlockWalk blocks(rest);
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

TEST_F(Damage, ALostCatalogueComesFromItsCopyOrFromAnotherFileOrIsInvented)
{
    file[100] ^= 1;
    Recording lost = krd::scan(file, "lost");
    ASSERT_FALSE(lost.catalogue);
    const Recording invented = recovered(lost, scratch);
    EXPECT_EQ(invented.catalogue->byGroup(2)->name, "plain"); // the ledger knows the names
    EXPECT_EQ(invented.catalogue->byGroup(2)->kind, krd::Kind::kUnknown);
    writeBytes(folder.path("lost.krd"), file);

    KrdBuilder donor(folder.path("donor.krd"), everyKind());
    const KrdBuilder::Json copy = krd::toJson(*krd::scan(donor.bytes(), "donor").catalogue);
    donor.close({{"/catalogue", copy}});
    const auto result = runVu({"recover", folder.path("lost.krd"), "--catalogue-of", folder.path("donor.krd"),
                               "-o", folder.path("mended.krd")});
    EXPECT_EQ(result.status, 3) << result.err;
    EXPECT_EQ(runVu({"verify", folder.path("mended.krd")}).status, 0);

    std::vector<uint8_t> copied = donor.bytes();
    copied[100] ^= 1;
    const Recording found = krd::scan(copied, "copied");
    EXPECT_TRUE(found.catalogueIsCopy);
    EXPECT_EQ(krd::toJson(*found.catalogue), copy);
    EXPECT_FALSE(krd::check(found).sound());
}

// The command on a few of the same, with what it says and how it ends.
TEST_F(Damage, TheCommandTellsDamageFromARaggedEnd)
{
    const uint64_t middle = whole[whole.size() / 2].offset, size = whole[whole.size() / 2].bytes;
    const std::string text(file.begin(), file.end());
    struct Case {
        std::string name;
        uint64_t at, gone; // bytes that are taken out,
        std::string put;   // and what is there instead
        int status;
        const char *said;
    };
    const Case cases[] = {{"whole", 0, 0, "", 0, "whole: every checksum"},
                          {"payload", middle + 14, 1, {char(text[middle + 14] ^ 4)}, 3, "damage: "},
                          {"removed", middle, size, "", 3, "are not in the file"},
                          {"inserted", middle, 0, std::string(7, '\0'), 3, "damage: 7 bytes at"},
                          {"ragged", text.size() - 9, 9, "", 3, "ends inside a block"}};
    for (const auto &[name, at, gone, put, status, said] : cases) {
        SCOPED_TRACE(name);
        const std::string path = folder.path(name), mended = path + " mended";
        writeText(path, std::string(text).replace(at, gone, put));
        const auto verified = runVu({"verify", path});
        EXPECT_EQ(verified.status, status);
        EXPECT_THAT(verified.out, HasSubstr(said));
        EXPECT_EQ(runVu({"recover", path, "-o", mended}).status, status);
        EXPECT_EQ(runVu({"verify", mended}).status, 0);
        EXPECT_EQ(runVu({"recover", path, "-o", mended}).status, 2) << "nothing is overwritten unasked";
    }
    const auto info = runVu({"info", folder.path("ragged")});
    EXPECT_EQ(info.status, 3);
    EXPECT_THAT(info.err, HasSubstr("no closing block"));
    writeText(folder.path("other"), "This is no data file.");
    for (const char *subcommand : {"info", "verify", "recover"}) {
        EXPECT_EQ(runVu({subcommand, folder.path("other")}).status, 2) << subcommand;
        EXPECT_EQ(runVu({subcommand, folder.path("absent")}).status, 2) << subcommand;
    }
}

// Blocks of 64 MiB that are holes: a file beyond 4 GiB that takes no room.
TEST_F(Damage, FilesBeyondFourGiBAreReadWhole)
{
    constexpr uint32_t kPayload = 64 << 20, kBlocks = 65, kSize = __builtin_bswap32(kPayload + 20);
    const std::string path = folder.path("big.krd");
    KrdBuilder builder(path, R"([{"name":"big","element":"uint8","element_size":1,"encoding":"rle"}])");
    const std::string head = bytesOf(kSize, __builtin_bswap32(2)) + "KRD1";
    const std::vector<Bytef> hole(kPayload);
    const uLong checksum =
        crc32(crc32(0, reinterpret_cast<const Bytef *>(head.data()), 12), hole.data(), kPayload);
    const std::string trailer = bytesOf(__builtin_bswap32(static_cast<uint32_t>(checksum)), kSize);
    const int fd = open(path.c_str(), O_WRONLY);
    for (off_t i = 0, end = lseek(fd, 0, SEEK_END); i < kBlocks; ++i, end += kPayload + 20) {
        ASSERT_EQ(pwrite(fd, head.data(), head.size(), end), 12);
        ASSERT_EQ(pwrite(fd, trailer.data(), trailer.size(), end + kPayload + 12), 8);
    }
    close(fd);
    builder.samples(0, {5, 5, 5}, 0);

    const krd::MappedFile mapped(path);
    const Recording found = krd::scan(mapped.bytes(), "big");
    ASSERT_EQ(found.blocksOf(2).size(), kBlocks + 1);
    EXPECT_GT(found.blocksOf(2).back().offset, uint64_t{1} << 32);
    EXPECT_EQ(found.damagedBytes, 0u);
}

} // namespace
} // namespace vu::test
