#include "libvu/core/stanza_private.h"

#include <clocale>
#include <cmath>
#include <gmock/gmock.h>

namespace {

using testing::Optional;
using vu::Stanza;

TEST(AStanza, TakesNumbersAsIntegersElseAsDoubles)
{
    char error[Stanza::kErrorSize];
    setlocale(LC_NUMERIC, "de_DE.UTF-8"); // where there is such a locale, its decimal comma changes nothing
    const Stanza stanza(
        R"({"i":9007199254740993,"d":1.5,"huge":1e400,"tiny":1e-310,"long":99999999999999999999,
                            "t":"1","yes":true,"no":false,"n":null})",
        error);
    setlocale(LC_NUMERIC, "C");
    ASSERT_TRUE(stanza.parsed()) << error;
    EXPECT_THAT(stanza.number("d"), Optional(1.5));
    EXPECT_THAT(stanza.number("huge"), Optional(HUGE_VAL));
    EXPECT_THAT(stanza.number("tiny"), Optional(1e-310));
    EXPECT_THAT(stanza.number("long"), Optional(1e20));
    EXPECT_EQ(stanza.root().member("huge").floatingForm(), std::nullopt);
    EXPECT_THAT(stanza.root().member("i").floatingForm(), Optional(9007199254740992.0));
    EXPECT_STREQ(stanza.text("t"), "1");
    EXPECT_EQ(stanza.text("d"), nullptr);
    EXPECT_TRUE(stanza.isTrue("yes"));
    for (const char *key : {"t", "no", "n", "missing"}) {
        EXPECT_EQ(stanza.number(key), std::nullopt) << key;
        EXPECT_FALSE(stanza.isTrue(key)) << key;
    }
}

} // namespace
