// The sources of a recording: how they come, what they hand over, and how their end is taken.
#include <csignal>
#include <cstdio>
#include <fstream>
#include <thread>
#include <unistd.h>

#include "tests/road/road.h"

namespace vu::test {
namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

class SourcesRoad : public Road {
protected:
    void addCounter(const std::string &name, const Json &more = Json::object())
    {
        Json source = {{"kind", "sim"}, {"signal", "counter"}};
        source.update(more);
        addChannel(name, {{"data_type", "sequential_float32"}, {"sample_rate", 1000}}, source);
    }
    void addCan(const std::string &log, const Json &more = Json::object())
    {
        writeText(folder.path("bus.log"), log);
        Json source = {{"kind", "candump"}, {"file", "bus.log"}, {"speed", 0}};
        source.update(more);
        addChannel("can0", {{"data_type", "message_can"}}, source);
    }
    // Processes whose command line names this test's folder, but for the recorder itself.
    size_t sourcesAlive() const
    {
        size_t count = 0;
        for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
            std::ifstream in(entry.path() / "cmdline");
            const std::string line{std::istreambuf_iterator<char>(in), {}};
            count += line.find(folder.path()) < line.size() && line.find("source") < line.size();
        }
        return count;
    }
    // As a terminal does it: to every process of this group, which is the recorder's too.
    static void signalGroup(int number)
    {
        const auto before = std::signal(number, SIG_IGN);
        kill(0, number);
        std::signal(number, before);
    }
    std::string eventText(const char *kind) const
    {
        for (const Json &event : summary["events"])
            if (event["kind"] == kind)
                return event["text"];
        return "";
    }
};

TEST_F(SourcesRoad, NoneIsLeftBehindWheneverTheRecorderIsKilled)
{
    writeText(folder.path("steps.csv"), "1\n2\n3\n");
    for (const char *name : {"a", "b"})
        addChannel(name, {{"data_type", "sequential_float64"}, {"sample_rate", 0.1}},
                   {{"kind", "csv"}, {"file", "steps.csv"}});
    for (int milliseconds = 0; milliseconds < 40; milliseconds += 3) {
        start();
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        recorder->signal(SIGKILL);
        EXPECT_EQ(recorder->wait(), -SIGKILL);
        std::this_thread::sleep_for(100ms); // what was forked has become a source by now, if it does
        for (int tries = 0; tries < 100 && sourcesAlive() > 0; tries++)
            std::this_thread::sleep_for(10ms);
        EXPECT_EQ(sourcesAlive(), 0u) << "killed after " << milliseconds << " ms";
    }
}

TEST_F(SourcesRoad, CtrlCAtAnyMomentIsTheRecordersAlone)
{
    for (const char *name : {"a", "b", "c"})
        addCounter(name);
    setpgid(0, 0);
    for (int milliseconds = 20; milliseconds < 140; milliseconds += 15) {
        start();
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        signalGroup(SIGINT);
        // Before it listens to signals it dies of one; before the recording began there is none.
        EXPECT_THAT(recorder->wait(), AnyOf(-SIGINT, 1, 0)) << recorder->err();
        EXPECT_EQ(recorder->err().find("source_lost"), std::string::npos) << recorder->err();
    }
}

TEST_F(SourcesRoad, SignalsAskAndNoneKillsTheRecorder)
{
    addCounter("a");
    for (const int number : {SIGQUIT, SIGALRM, SIGPWR, SIGRTMIN + 1}) {
        start();
        ASSERT_TRUE(recorder->waitForBytes(file, 4000));
        recorder->signal(SIGUSR1);
        recorder->signal(SIGUSR2);
        std::this_thread::sleep_for(100ms);
        recorder->signal(number);
        finish();
        EXPECT_EQ(summary["end"], "stopped");
        EXPECT_THAT(recorder->err(), HasSubstr("1 of 1 sources are there, 0 events"));
        EXPECT_THAT(recorder->err(), HasSubstr("SIGUSR2: a new file cannot be begun"));
        EXPECT_EQ(runVu({"verify", file}).status, 0);
    }
}

TEST_F(SourcesRoad, TheEndOfTheTestIsNoLossForASourceAtFullSpeed)
{
    for (const char *name : {"a", "b"})
        addCounter(name, {{"speed", 0}});
    description["duration"] = 0.4;
    run();
    EXPECT_EQ(summary["end"], "duration");
    EXPECT_EQ(events["source_lost"], 0u) << summary["events"];
}

// Sources from elsewhere: one that was killed has not sent everything.
TEST_F(SourcesRoad, OneFromElsewhereThatIsKilledIsLostAndOneThatEndsIsNot)
{
    const std::string port = std::to_string(20000 + getpid() % 20000);
    const std::string addresses[] = {"unix:" + folder.path("a.sock").string(), "tcp:127.0.0.1:" + port};
    for (const std::string &address : addresses)
        for (const bool killed : {true, false}) {
            SCOPED_TRACE(address + (killed ? ", killed" : ", ends"));
            description["channels"] = Json::array();
            addCounter("a");
            description["channels"][0].erase("source");
            description["channels"][0]["address"] = address;
            RunningVu source({"source", "sim", "--data-type", "sequential_float32", "--listen", address,
                              "--duration", killed ? "0" : "0.5"});
            std::filesystem::remove(file);
            recorder.emplace(Strings{"record", descriptionFile(), "--json"});
            ASSERT_TRUE(recorder->waitForBytes(file, 2000)) << recorder->err();
            if (killed)
                source.signal(SIGKILL);
            finish(killed ? 3 : 0);
            EXPECT_EQ(events["source_lost"], killed ? 1u : 0u) << summary["events"];
            EXPECT_EQ(events["source_ended"], killed ? 0u : 1u) << summary["events"];
            EXPECT_EQ(summary["accounts"][0]["known"], false);
        }
}

TEST_F(SourcesRoad, WhatWasLostBeforeTheSocketIsInSummaryAndStatus)
{
    const std::string log = "(1.0) can0 123#11\n# note\n(1.1) can0 123##0112233445566778899\n";
    addCan(log);
    run(3);
    EXPECT_EQ(summary["accounts"][0]["left_out"], R"({"can_fd": 1, "comments": 1})"_json);
    EXPECT_EQ(summary["accounts"][0]["lost"], 1);
    EXPECT_THAT(eventText("left_out"), HasSubstr("can_fd 1"));
    EXPECT_EQ(summary["complete"], false);

    description["channels"] = Json::array();
    addCan(log, {{"leave_out", {"can_fd"}}});
    run(0);
    EXPECT_EQ(summary["accounts"][0]["lost"], 0);

    description["channels"] = Json::array();
    addCan(log + "(100000001.0) can0 123#11\n", {{"leave_out", {"can_fd"}}});
    run(3);
    EXPECT_THAT(eventText("note"), HasSubstr("bus.log:4: the time steps forth by 100000000 s"));
}

TEST_F(SourcesRoad, APulseThatIsLostAndFoundIsAnEvent)
{
    // Fixes a second apart, and never quite: by the rules of the pulse the lock falls out at each late one.
    const Json gps = {{"receiver", "Garmin GPS"},
                      {"signals", {"altitude"}},
                      {"sample_rate", 10},
                      {"stale", 2},
                      {"invalid", 0}};
    addChannel("gps0", R"({"data_type": "message_raw", "connector": "gps1"})"_json,
               {{"kind", "sim"}, {"speed", 20}, {"jitter", 0.02}, {"duration", 30}}, {{"gps", gps}});
    run();
    EXPECT_GE(events["pps_found"], 2u) << summary["events"];
    EXPECT_GE(events["pps_lost"], 1u) << summary["events"];
}

TEST_F(SourcesRoad, ALimitOfDescriptorsIsRaisedOrNamed)
{
    for (int i = 0; i < 30; i++)
        addCounter("c" + std::to_string(i), {{"duration", 0.2}});
    const auto limited = [this](const std::string &limit) {
        const std::string said = folder.path("said");
        const auto vu = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "vu";
        const std::string line = "ulimit " + limit + " && exec " + vu.string() + " run --force " +
                                 descriptionFile() + " > /dev/null 2> " + said;
        const int status = pclose(popen(line.c_str(), "r"));
        return std::pair(WEXITSTATUS(status), readText(said));
    };
    EXPECT_EQ(limited("-Sn 70").first, 0);
    const auto [status, said] = limited("-n 70");
    EXPECT_EQ(status, 2);
    EXPECT_THAT(said, HasSubstr("30 channels need 154 open descriptors, and this process may have 70"));
}

} // namespace
} // namespace vu::test
