#include "libvu/core/membuf.h"

#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using vu::test::AllocationFaults;
using vu::test::ErrorTrap;

class ABuffer : public testing::Test {
protected:
    ~ABuffer() override { free(m.buf); }
    void hold(const char *text) { membufAppend(&m, text, static_cast<uint32_t>(strlen(text))); }
    std::string held() const { return {reinterpret_cast<const char *>(m.buf), m.size}; }

    ErrorTrap errors;
    Membuf m{};
};

TEST_F(ABuffer, GrowsToThePowerOfTwo)
{
    for (const auto &[wanted, capacity] :
         {std::pair{5000U, 8192U}, {8192U, 8192U}, {8193U, 16384U}, {1U, 16384U}}) {
        membufExpand(&m, wanted);
        EXPECT_EQ(m.capacity, capacity);
    }
    membufAssureAvailable(&m);
    EXPECT_EQ(m.capacity, 16384U);
    membufAppend(&m, nullptr, 16384);
    membufAssureAvailable(&m);
    EXPECT_EQ(m.capacity, 32768U);
}

TEST_F(ABuffer, ClearsEverythingBehindItsContentWhenItGrowsAndOnlyThen)
{
    hold("abcdefgh");
    membufRemove(&m, 0, 6);
    membufExpand(&m, 8);
    EXPECT_EQ(m.buf[2], 'c');
    membufExpand(&m, 16);
    EXPECT_EQ(std::string(m.buf, m.buf + 16), std::string("gh") + std::string(14, '\0'));
}

TEST_F(ABuffer, CutsExactlyWhatItIsToldToAndNothingBeyondItsContent)
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
    EXPECT_EQ(held(), "012789");
    auto *copy = static_cast<char *>(membufExtract(&m, 1, 2));
    EXPECT_EQ(std::string(copy, 2), "12");
    free(copy);
    EXPECT_EQ(held(), "0789");
    AllocationFaults memory;
    memory.failAt(0);
    EXPECT_EQ(membufExtract(&m, 0, 1), nullptr); // no copy to be had, and the bytes go all the same
    EXPECT_EQ(held(), "789");
    membufRemove(&m, 0, 3);
    EXPECT_EQ(m.size, 0U);
}

TEST_F(ABuffer, StaysAsItIsWhenItCanNotGrow)
{
    hold("01234567");
    const auto refused = [&](auto &&grow, const char *sizes) {
        grow();
        EXPECT_THAT(errors.texts(), ElementsAre(HasSubstr(sizes)));
        EXPECT_EQ(m.capacity, 8U);
        EXPECT_EQ(held(), "01234567");
    };
    AllocationFaults memory;
    memory.failAt(0);
    refused([&] { hold("89"); }, "size=8 to size=16 (max_size=10) failed\n");
    memory.failNone();
    refused([&] { membufExpand(&m, 0x80000001); },
            "size=8 to size=2147483648 (max_size=2147483649) failed\n");
    refused([&] { membufAppend(&m, "x", UINT32_MAX); }, "(max_size=4294967295) failed\n");
    Membuf full{0x80000000, 0x80000000, nullptr};
    membufAssureAvailable(&full);
    EXPECT_EQ(full.capacity, 0x80000000);
    EXPECT_THAT(errors.texts(), ElementsAre(HasSubstr("(max_size=4294967295) failed\n")));
}

TEST_F(ABuffer, IsMadeWithOrWithoutContent)
{
    EXPECT_EQ(membufInitialize(&m, 100, nullptr, 7), &m);
    EXPECT_EQ(m.capacity, 128U);
    EXPECT_EQ(m.size, 0U);
    for (const auto &[length, size] : {std::pair{3, 3U}, {0, 0U}, {-5, 0U}}) {
        Membuf *made = membufNew("123", length);
        EXPECT_EQ(made->size, size);
        free(made->buf);
        free(made);
    }
    AllocationFaults memory;
    memory.failAt(0);
    EXPECT_EQ(membufNew("123", 3), nullptr);
    EXPECT_THAT(errors.texts(), ElementsAre("Unable to allocate 16 bytes for membuf"));
}

} // namespace
