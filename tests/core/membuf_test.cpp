#include "libvu/core/membuf.h"

#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"

namespace {

using namespace testing;

class ABuffer : public Test {
protected:
    ~ABuffer() override { free(m.buf); }
    void hold(const char *text) { membufAppend(&m, text, static_cast<uint32_t>(strlen(text))); }
    std::string held(uint32_t bytes) const { return {reinterpret_cast<const char *>(m.buf), bytes}; }

    vu::test::ErrorTrap errors;
    vu::test::AllocationFaults memory;
    Membuf m{};
};

TEST_F(ABuffer, GrowsToThePowerOfTwoAndClearsWhatFollowsItsContentOnlyThen)
{
    hold("abcdefgh");
    membufRemove(&m, 0, 6);
    membufExpand(&m, 8);
    EXPECT_EQ(held(8), "ghcdefgh");
    membufExpand(&m, 9);
    EXPECT_EQ(held(16), std::string("gh") + std::string(14, '\0'));
    for (const uint32_t wanted : {5000u, 8192u, 1u}) {
        membufExpand(&m, wanted);
        EXPECT_EQ(m.capacity, 8192U);
    }
    membufAppend(&m, nullptr, 8190);
    membufAssureAvailable(&m);
    membufAssureAvailable(&m);
    EXPECT_EQ(m.capacity, 16384U);
}

TEST_F(ABuffer, CutsWhatItIsToldToAndNothingBeyondItsContent)
{
    hold("0123456789");
    for (const auto &[pos, len] : {std::pair{1U, 10U}, {1U, UINT32_MAX}, {UINT32_MAX, 1U}, {11U, 0U}}) {
        membufRemove(&m, pos, len);
        EXPECT_EQ(membufExtract(&m, pos, len), nullptr);
        const std::string text =
            fmt::format("Bad arguments to membuf:remove() pos={} + len={} > size=10", pos, len);
        EXPECT_THAT(errors.texts(), ElementsAre(text, text));
    }
    membufRemove(&m, 3, 4);
    auto *copy = static_cast<char *>(membufExtract(&m, 1, 2));
    EXPECT_EQ(std::string(copy, 2), "12");
    free(copy);
    EXPECT_EQ(held(m.size), "0789");
    memory.failAt(0);
    EXPECT_EQ(membufExtract(&m, 0, 1), nullptr); // no copy to be had, and the bytes go all the same
    EXPECT_EQ(held(m.size), "789");
}

TEST_F(ABuffer, StaysAsItIsWhenItCannotGrow)
{
    hold("01234567");
    memory.failAt(0);
    hold("89");
    membufExpand(&m, 0x80000001);
    membufAppend(&m, "x", UINT32_MAX);
    EXPECT_EQ(m.capacity, 8U);
    EXPECT_EQ(held(m.size), "01234567");
    Membuf full{0x80000000, 0x80000000, nullptr};
    membufAssureAvailable(&full);
    EXPECT_THAT(errors.texts(),
                ElementsAre(HasSubstr("size=8 to size=16 (max_size=10) failed\n"),
                            HasSubstr("size=8 to size=4294967296 (max_size=2147483649) failed\n"),
                            HasSubstr("size=8 to size=8589934592 (max_size=4294967303) failed\n"),
                            HasSubstr("to size=4294967296 (max_size=4294967296) failed\n")));
}

} // namespace
