// Every way to sum up a piece, beside zlib.
#include <gtest/gtest.h>
#include <random>
#include <vector>
#include <zlib.h>

#include "libvu/datafile/checksum_private.h"

namespace {

// Chains of pieces at every alignment, some of them empty, one after the other.
void expectLikeZlib(libvu::SumPiece sum)
{
    std::mt19937 random(17);
    std::vector<uint8_t> bytes(1 << 18);
    for (uint8_t &byte : bytes)
        byte = static_cast<uint8_t>(random());
    for (int chain = 0; chain < 400; chain++) {
        uint32_t running = 0, expected = 0;
        for (unsigned piece = random() % 8; piece-- > 0;) {
            const size_t at = random() % 4096;
            const size_t most = chain % 40 == 0 ? bytes.size() - at : size_t{4} << random() % 10;
            const size_t length = random() % 5 ? random() % most : 0;
            running = libvu::checksum(running, length ? &bytes[at] : nullptr, length, sum);
            running = libvu::checksum(running, nullptr, 5, sum); // a buffer that nobody gave memory
            expected = static_cast<uint32_t>(crc32_z(expected, &bytes[at], length));
            ASSERT_EQ(running, expected) << "chain " << chain << ", " << length << " bytes at " << at % 64;
        }
    }
    for (size_t at = 0; at < 64; at++)
        for (size_t length = 0; length < 300; length++)
            ASSERT_EQ(libvu::checksum(0x12345678, &bytes[at], length, sum),
                      crc32_z(0x12345678, &bytes[at], length))
                << length << " bytes at " << at;
}

} // namespace

TEST(Checksum, ZlibsWayTakesEmptyPiecesAndChains)
{
    expectLikeZlib(libvu::sumWithZlib);
}

TEST(Checksum, FoldedWayAgreesWithZlibToTheBit)
{
    if (!libvu::foldedSum())
        GTEST_SKIP() << "this machine cannot fold";
    expectLikeZlib(libvu::foldedSum());
}

TEST(Checksum, PiecesBeyondTheLengthThatOneCallTakesAreSplit)
{
    static size_t calls, summed;
    const auto counting = [](uint32_t running, const uint8_t *, uint32_t bytes) {
        calls++;
        summed += bytes;
        return running + 1;
    };
    const size_t bytes = (size_t{5} << 30) + 7;
    EXPECT_EQ(libvu::checksum(0, &calls, bytes, counting), 6u); // counting reads nothing
    EXPECT_EQ(summed, bytes);
}
