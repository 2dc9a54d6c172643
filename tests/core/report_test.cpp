#include "libvu/core/report.h"

#include <clocale>
#include <csignal>
#include <gmock/gmock.h>

#include "libvu/core/callbacks.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/interpose.h"

namespace {

using namespace testing;

std::vector<std::string> offered;
int32_t answer;

class Reporting : public Test {
protected:
    Reporting()
    {
        offered.clear();
        libvuErrorCallback = libvuCriticalErrorCallback = [](const char *text) {
            offered.emplace_back(text);
            return answer;
        };
        vu::test::calls.raise = [this](int signal) { return raised.push_back(signal), 0; };
    }
    ~Reporting() override { libvuErrorCallback = libvuCriticalErrorCallback = nullptr; }

    vu::test::ScopedCalls scope;
    vu::test::LogTrap log;
    std::vector<int> raised;
    vu::test::AllocationFaults memory;
};

TEST_F(Reporting, HostTakesAnErrorOrItIsLoggedAndRaised)
{
    for (const auto report : {libvuError, libvuCriticalError}) {
        answer = 7;
        report("taken %d%%", 5);
        EXPECT_THAT(log.lines(), ElementsAre());
        EXPECT_THAT(raised, ElementsAre());
        answer = 0;
        report("%s", "left 100% %n");
        EXPECT_THAT(log.lines(), ElementsAre(Pair(11, "left 100% %n")));
        EXPECT_THAT(std::exchange(raised, {}), ElementsAre(SIGINT));
        EXPECT_THAT(std::exchange(offered, {}), ElementsAre("taken 5%", "left 100% %n"));
    }
    memory.failAt(0);
    libvuError("text %d", 1);
    EXPECT_THAT(offered, ElementsAre("Unable to format error message"));
    libvuErrorCallback = nullptr;
    libvuError("nobody there");
    EXPECT_THAT(log.lines(),
                ElementsAre(Pair(11, "Unable to format error message: text %d"), Pair(11, "nobody there")));
    EXPECT_THAT(raised, ElementsAre(SIGINT, SIGINT));
}

TEST_F(Reporting, NumbersHaveADecimalPointInEveryLocale)
{
    if (!setlocale(LC_ALL, "de_DE.UTF-8"))
        GTEST_SKIP() << "no such locale on this machine";
    answer = 1;
    libvuError("rate %g", 1.5);
    libvuCriticalError("rate %g", 2.5);
    libvuSetError("rate %g", 3.5);
    logWarning("rate %g", 4.5);
    char hosts[8];
    std::snprintf(hosts, sizeof hosts, "%g", 5.5);
    setlocale(LC_ALL, "C");
    EXPECT_STREQ(hosts, "5,5") << "the host keeps its own";
    EXPECT_THAT(offered, ElementsAre("rate 1.5", "rate 2.5"));
    EXPECT_STREQ(libvuLastError(), "rate 3.5");
    EXPECT_THAT(log.lines(), ElementsAre(Pair(11, "rate 3.5"), Pair(12, "rate 4.5")));
}

TEST_F(Reporting, LastErrorMayQuoteItselfAndSurvivesAFailure)
{
    libvuSetError("first %d%%", 1);
    libvuSetError("second after %s", libvuLastError());
    memory.failAt(0);
    libvuSetError("third %d", 3);
    EXPECT_STREQ(libvuLastError(), "second after first 1%");
    EXPECT_THAT(log.lines(), ElementsAre(Pair(11, "first 1%"), Pair(11, "second after first 1%"),
                                         Pair(11, "Unable to format error message: third %d")));
    EXPECT_THAT(offered, ElementsAre());
    EXPECT_THAT(raised, ElementsAre());
}

TEST_F(Reporting, FormattingOrDeathEndsTheProcess)
{
    char *text = nullptr;
    memory.failAt(0); // inherited by the process that dies
    EXPECT_EXIT(asprintf_or_die(&text, "%d", 1), ExitedWithCode(-42 & 0xFF), "");
    memory.failNone();
    asprintf_or_die(&text, "%s-%d", "a", 1);
    EXPECT_STREQ(text, "a-1");
    free(text);
}

} // namespace
