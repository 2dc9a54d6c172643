// A recording under bad conditions: killed, interrupted, on a full disk, from sources that misbehave.
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <list>
#include <numeric>
#include <random>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "libvu/core/wire_private.h"
#include "tests/road/road.h"
#include "tests/support/node_fixture.h"
#include "vu/support/new_file.h"

namespace vu::test {
namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;

// A source that the test plays itself: it says the marker and then `bytes`, `times` times or until nobody
// reads any more.
class Peer {
public:
    Peer(const std::string &path, Bytes bytes, int times) : listener_(socket(AF_UNIX, SOCK_STREAM, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << path;
        listen(listener_, 1);
        sending_ = std::thread([this, bytes = std::move(bytes), times] { serve(bytes, times); });
    }
    ~Peer()
    {
        shutdown(listener_, SHUT_RDWR);
        sending_.join();
        close(listener_);
    }
    Peer(Peer &&) = delete;

private:
    static bool sendAll(int to, std::span<const uint8_t> bytes)
    {
        while (!bytes.empty()) {
            const ssize_t sent = send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0)
                return false;
            bytes = bytes.subspan(static_cast<size_t>(sent));
        }
        return true;
    }
    void serve(const Bytes &bytes, int times) const
    {
        const int to = accept(listener_, nullptr, nullptr);
        bool reads = sendAll(to, Bytes{0xFE, 0xED});
        for (int i = 0; reads && i < times; i++)
            reads = sendAll(to, bytes);
        shutdown(to, SHUT_WR);
        char word[8];
        while (recv(to, word, sizeof word, 0) > 0) {
        }
        close(to);
    }

    int listener_;
    std::thread sending_;
};

class FaultsRoad : public Road {
protected:
    // Channels that count their samples, so that each says where it belongs.
    void addCounters(int count, double rate, Json source = Json::object())
    {
        source.update({{"kind", "sim"}, {"signal", "counter"}});
        for (int i = 0; i < count; i++)
            addChannel("c" + std::to_string(i), {{"data_type", "sequential_float64"}, {"sample_rate", rate}},
                       source);
    }

    // Whatever was recorded of a counter is its beginning without a gap; returns how much.
    size_t countedTo(const std::string &name)
    {
        const auto got = samples(name);
        std::vector<double> counted(got.size());
        std::iota(counted.begin(), counted.end(), 0.0);
        EXPECT_EQ(got, counted) << name;
        return got.size();
    }

    // Samples in the whole blocks of group `group`, found by a walk that trusts the sizes alone.
    size_t samplesInBlocks(uint32_t group) const
    {
        const auto bytes = readBytes(file);
        size_t count = 0;
        for (size_t at = 0, size; at + 20 <= bytes.size(); at += size) {
            size = libvu::loadBig<uint32_t>(&bytes[at]);
            if (at + size <= bytes.size() && libvu::loadBig<uint32_t>(&bytes[at + 4]) == group)
                count += (size - 28) / sizeof(double);
        }
        return count;
    }
};

TEST_F(FaultsRoad, KilledAtAnyMomentEveryWholeBlockIsRecovered)
{
    std::mt19937 random(20260315);
    addCounters(2, 20000);
    description["flush_interval"] = 0.01;
    for (int round = 0; round < 5; round++) {
        start();
        ASSERT_TRUE(recorder->waitForBytes(file, 1000 + random() % 200000)) << recorder->err();
        recorder->signal(SIGKILL);
        EXPECT_EQ(recorder->wait(), -SIGKILL);
        const size_t whole[] = {samplesInBlocks(2), samplesInBlocks(3)};
        const CommandResult recovered = runVu({"recover", file, "-o", folder.path("again"), "--force"});
        EXPECT_THAT(recovered.status, AnyOf(0, 3)) << recovered.err;
        std::filesystem::rename(folder.path("again"), file);
        exportAll();
        EXPECT_EQ(countedTo("c0"), whole[0]);
        EXPECT_EQ(countedTo("c1"), whole[1]);
    }
}

TEST_F(FaultsRoad, WhateverEndsItWhatItTookIsThereAndTheRestIsTold)
{
    addCounters(3, 2000);
    description["duration"] = 3;
    for (const int cause : {SIGINT, SIGTERM, SIGHUP, 30000, 60001, 90002}) { // a signal, or a full disk
        SCOPED_TRACE(cause);
        const bool full = cause > 1000;
        start(full ? static_cast<uint64_t>(cause) : 0);
        if (!full) {
            ASSERT_TRUE(recorder->waitForBytes(file, 8000));
            recorder->signal(cause);
        }
        finish(full ? 3 : 0);
        EXPECT_EQ(summary["end"], full ? "disk_full" : "stopped");
        EXPECT_EQ(events["disk_full"] > 0, full);
        exportAll(full ? AnyOf(0, 3) : Status(0));
        for (const char *name : {"c0", "c1", "c2"}) {
            EXPECT_EQ(countedTo(name), ledger[name]["stored"]);
            EXPECT_EQ(ledger[name]["received"] == ledger[name]["stored"], !full);
        }
    }
    start(600);
    EXPECT_EQ(recorder->wait(), 1);
    EXPECT_THAT(recorder->err(), HasSubstr("no room for the catalogue"));
}

TEST_F(FaultsRoad, SourcesThatMisbehave)
{
    const std::tuple<const char *, Status, const char *> cases[] = {{"split=2", 0, "source_ended"},
                                                                    {"stall=0.7@0.5", 0, "source_ended"},
                                                                    {"split=3,close=9", 3, "source_lost"},
                                                                    {"garble=7", AnyOf(0, 3), nullptr}};
    for (const auto &[faults, status, event] : cases) {
        SCOPED_TRACE(faults);
        description["channels"] = Json::array();
        addCounters(2, 1000, {{"faults", faults}, {"duration", 1.5}});
        run(status);
        if (!event)
            continue;
        EXPECT_EQ(events[event], 2u);
        EXPECT_EQ(countedTo("c0"), ledger["c0"]["received"]);
        EXPECT_GT(countedTo("c1"), 0u);
    }
}

// A time years ahead would fill the memory with held values. It is left out and reported; true ones go on.
TEST_F(FaultsRoad, AbsurdTimesFillNothing)
{
    const auto addSim = [this](const std::string &name, const std::string &type, Json source, Json signal) {
        source.update({{"kind", "sim"}, {"duration", 0.5}});
        Json more = Json::object();
        if (!signal.empty()) {
            signal.update({{"data_type", "float64"}, {"scale", 1}, {"offset", 0}});
            more["signals"] = {held(1000, signal)};
        }
        const char *connector = type.starts_with("message") ? "x" : "pd806k";
        addChannel(name, held(1000, {{"data_type", type}, {"connector", connector}}), source, more);
    };
    addSim("ntp", "message_float64_ntp", {{"start_time", "2036-03-15T10:15:30"}}, {});
    addSim("late", "sequential_float32", {{"start_time", "2031-03-15T10:15:30"}}, {{"name", "sig0"}});
    addSim("good", "sequential_float32", {{"names", {"sig1"}}}, {{"name", "sig1"}});
    run(3);
    EXPECT_GE(events["error"], 2u) << summary["events"];
    EXPECT_EQ(ledger["ntp"]["received"], 0);
    EXPECT_EQ(ledger["sig0"]["received"], 0);
    EXPECT_GT(ledger["sig1"]["received"], 450);
    // Garbled frames: whatever times they hold, the recording ends, and what is stored is sound.
    description["channels"] = Json::array();
    addSim(
        "can0", "message_can", {{"speed", 0}, {"faults", "garble=3"}},
        R"({"name": "s", "db_msg_id": "100", "db_data_format": "SLSB", "db_bit_start": 0, "db_bit_length": 16})"_json);
    run(AnyOf(0, 3));
}

TEST_F(FaultsRoad, AMonitorEndsWithTheFirstOfItsChannelsAndSaysSo)
{
    const Json stanza = {{"data_type", "sequential_float64"}, {"sample_rate", 1000}};
    addChannel("brief", stanza, {{"kind", "sim"}, {"duration", 0.5}});
    addChannel("long", stanza, {{"kind", "sim"}, {"duration", 2}});
    addChannel("slow", stanza, {{"kind", "sim"}, {"signal", "counter"}, {"duration", 50}, {"speed", 0}},
               {{"pipe_rate", 0.02}}); // a frame of all of it, and more windows than the detector holds
    description["monitors"] =
        R"([{"name": "both", "rate": 100, "channels": [{"channel": "brief", "mode": "upper", "upper": 9},
                                                       {"channel": "long", "mode": "upper", "upper": 9}]},
            {"name": "many", "rate": 100, "channels": [{"channel": "slow", "mode": "upper", "upper": 9}]}])"_json;
    run();
    EXPECT_EQ(events["monitor_ended"], 2u);
    EXPECT_THAT(recorder->err(), HasSubstr("both  its track ends, since 'brief' brings no more samples"));
    EXPECT_EQ(ledger["both"]["received"], 49); // the last window has no sample at its end
    EXPECT_EQ(ledger["many"]["received"], 4999);
    EXPECT_EQ(ledger["many"]["stored"], 4999);
    EXPECT_EQ(samples("many").size(), 4999);
}

TEST_F(FaultsRoad, SignalsThatNeverHadAValueAreNamed)
{
    addChannel("can0", {{"data_type", "message_can"}},
               {{"kind", "sim"}, {"can_ids", {"100"}}, {"rate", 100}, {"duration", 1}, {"speed", 0}});
    for (const std::string id : {"100", "200"})
        description["channels"][0]["signals"].push_back(held(100, {{"name", "s" + id},
                                                                   {"data_type", "float64"},
                                                                   {"db_msg_id", id},
                                                                   {"db_data_format", "SLSB"},
                                                                   {"db_bit_start", 0},
                                                                   {"db_bit_length", 16},
                                                                   {"scale", 1},
                                                                   {"offset", 0}}));
    run();
    EXPECT_EQ(ledger["s200"].value("never", false), true);
    EXPECT_FALSE(ledger["s100"].contains("never"));
    for (const char *command : {"info", "verify"}) {
        EXPECT_THAT(runVu({command, file}).out, HasSubstr("1 of 2 signals never had a value: s200\n"));
        EXPECT_EQ(Json::parse(runVu({command, file, "--json"}).out)["never"], Json({"s200"}));
    }
}

// Whatever the others send: what an honest channel brings is there, and words about them are few.
TEST_F(FaultsRoad, HostilePeersCostTheirNeighbourNothing)
{
    constexpr int kForEver = 1 << 30;
    const auto repeated = [](const Bytes &bytes, int times) {
        Bytes all;
        for (int i = 0; i < times; i++)
            all.add(bytes);
        return all;
    };
    const auto metainfo = [](std::string_view text) {
        return Bytes().be(uint32_t{2} << 28).be(static_cast<uint32_t>(4 + text.size())).zeros(4).add(text);
    };
    const std::tuple<const char *, const char *, const char *, Bytes> peers[] = {
        {"tiny", "message_raw", "x", repeated(record(Bytes().be(int64_t{1}).zeros(1)), 5000)},
        {"short", "message_raw", "x", repeated(record(Bytes{1, 2, 3}), 5000)}, // a log line each
        {"words", "sequential_float32", "pd806h",
         repeated(metainfo("{\"method\":\n\x1b[2J" + std::string(600, 'x')), 100)},
        {"full", "sequential_float32", "pd806h",
         repeated(metainfo(R"({"method":"fill","params":[80]})"), 500)},
        {"vast", "message_can", "x", Bytes().be(uint32_t{256} << 20).zeros(256 << 20)},
        {"long", "message_raw", "x", Bytes().be(uint32_t{256} << 20).zeros(256 << 20)}};
    std::list<Peer> playing;
    for (const auto &[name, type, connector, bytes] : peers) {
        Json more = {{"store", false}};
        if (connector != std::string("x"))
            more["signals"] = {held(100, {{"name", std::string("of ") + name},
                                          {"data_type", "float64"},
                                          {"scale", 1},
                                          {"offset", 0}})};
        addChannel(name, {{"data_type", type}, {"connector", connector}}, {}, more);
        description["channels"].back().erase("source");
        playing.emplace_back(folder.path(std::string(name) + ".sock"), bytes, kForEver);
    }
    addCounters(1, 1000);
    description["duration"] = 2;
    run(3);
    EXPECT_EQ(summary["end"], "duration");
    EXPECT_GT(countedTo("c0"), 1500u);
    EXPECT_EQ(ledger["c0"]["received"], ledger["c0"]["stored"]);
    EXPECT_GE(events["error"], 2u) << "bad words and a message too long";
    EXPECT_LT(summary["events"].size(), 40u);
    EXPECT_EQ(recorder->err().find('\x1b'), std::string::npos);
    EXPECT_LT(recorder->err().size(), 40'000u);
}

TEST_F(FaultsRoad, WhatAPeriodicSourceDropsIsSeenByTheTimesOfItsRecords)
{
    Bytes bytes;
    for (const int64_t first : {0, 10, 20, 45, 55})
        bytes.add(record(Bytes().be(first * 40'000).zeros(10 * sizeof(float))));
    const Peer peer(folder.path("seq.sock"), bytes, 1);
    addChannel("seq", {{"data_type", "sequential_float32"}, {"sample_rate", 1000}}, {});
    description["channels"].back().erase("source");
    run(3);
    EXPECT_EQ(events["gap"], 1u);
    for (const Json &event : summary["events"])
        EXPECT_TRUE(event["kind"] != "gap" || event["value"] == 15) << event;
    EXPECT_EQ(ledger["seq"]["stored"], 50);
}

TEST_F(FaultsRoad, ZeroAskedForWhileItRuns)
{
    const Json source = R"({"kind": "sim", "signal": "square", "amplitude": 0, "bias": 5, "rate": 100})"_json;
    addChannel("weight", {{"data_type", "sequential_float32"}, {"sample_rate", 1000}}, source);
    addChannel("level", held(100, {{"data_type", "message_float64"}}), source);
    description["duration"] = 3;
    start();
    ASSERT_TRUE(recorder->waitForBytes(file, 3000));
    recorder->write("zero weight\n\nzero nothing\nnonsense\nzero level\n");
    finish();
    EXPECT_EQ(events["zero"], 2u);
    EXPECT_THAT(recorder->err(), HasSubstr("there is no channel nothing"));
    EXPECT_THAT(recorder->err(), HasSubstr("expected a line: zero CHANNEL"));
    exportAll();
    for (const char *name : {"weight", "level"}) {
        EXPECT_EQ(samples(name).at(5), 5.0);
        EXPECT_EQ(samples(name).back(), 0.0);
    }
}

// What the caller closed never becomes a file of ours, and what is printed never goes into one.
TEST_F(FaultsRoad, ClosedDescriptorsAreNoDataFile)
{
    addCounters(1, 2000, {{"duration", 0.3}});
    for (const std::string closed : {"", "0", "1", "2", "01", "02", "12", "012"}) {
        SCOPED_TRACE("closed: " + closed);
        const bool printed = closed.find('1') == std::string::npos;
        std::filesystem::remove(file);
        RunningVu running({"run", descriptionFile(), "--json"}, 0, closed);
        EXPECT_THAT(running.wait(), printed ? Status(0) : AnyOf(0, 1)) << running.err();
        exportAll();
        EXPECT_EQ(countedTo("c0"), 600u);
        const std::string npy = readText(out / "c0.npy");
        RunningVu verify({"verify", file}, 0, closed);
        EXPECT_THAT(verify.wait(), printed ? Status(0) : AnyOf(0, 1));
        RunningVu exported({"export", file, "-o", out, "--force", "--format", "npy"}, 0, closed);
        EXPECT_THAT(exported.wait(), printed ? Status(0) : AnyOf(0, 1));
        EXPECT_EQ(readText(out / "c0.npy"), npy);
    }
}

// A name belongs to who records into it; what had it before is untouched until a new recording begins, and
// whoever reads it then keeps it.
TEST_F(FaultsRoad, ARecordingTakesANameOnlyWhenItBegins)
{
    addCounters(1, 2000, {{"duration", 0.2}});
    run();
    const auto old = readBytes(file);
    const Json test = std::exchange(description["channels"], Json::array());
    addChannel("nobody", {{"data_type", "sequential_float32"}, {"sample_rate", 10}}, {});
    description["channels"][0].erase("source");
    description["connect_timeout"] = 0.1;
    EXPECT_EQ(runVu({"run", descriptionFile(), "--force"}).status, 1);
    EXPECT_EQ(readBytes(file), old) << "the test could not start";

    const int reader = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    void *mapped = mmap(nullptr, old.size(), PROT_READ, MAP_SHARED, reader, 0);
    ASSERT_NE(mapped, MAP_FAILED);
    description["channels"] = test;
    description.erase("connect_timeout");
    description["channels"][0]["source"]["duration"] = 60;
    recorder.emplace(Strings{"run", descriptionFile(), "--json", "--force"});
    for (int tries = 0; tries < 1000 && recorderOf(file) == 0; tries++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(recorderOf(file), recorder->pid());
    EXPECT_EQ(std::memcmp(mapped, old.data(), old.size()), 0) << "as its reader has it";
    munmap(mapped, old.size());
    close(reader);

    description["channels"][0]["address"] = "unix:other.sock";
    for (const char *option : {"--json", "--force"}) {
        const CommandResult second = runVu({"run", descriptionFile(), option});
        EXPECT_EQ(second.status, 2);
        EXPECT_THAT(second.out + second.err,
                    HasSubstr("recorded by process " + std::to_string(recorder->pid())));
    }
    EXPECT_EQ(runVu({"recover", folder.path("none"), "-o", file, "--force"}).status, 2);
    recorder->signal(SIGINT);
    finish();
    exportAll();
    EXPECT_GT(countedTo("c0"), 0u);
    EXPECT_EQ(recorderOf(file), 0);
    for (const auto &entry : std::filesystem::directory_iterator(folder.path()))
        EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path() << " is left behind";
}

// Without memory for what waits samples are lost and reported, and the end is written all the same.
TEST_F(FaultsRoad, AnEndIsWrittenWithoutMemory)
{
    if (VU_SANITIZED)
        GTEST_SKIP() << "a sanitizer needs all the memory there is";
    addCounters(8, 100000); // each wants six frames of 40 kB before any of them is written
    description["flush_interval"] = 3600;
    start();
    for (int tries = 0; tries < 1000 && recorderOf(file) == 0; tries++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    uint64_t pages = 0;
    std::ifstream("/proc/" + std::to_string(recorder->pid()) + "/statm") >> pages;
    const rlimit limit{pages * 4096 + 600'000, RLIM_INFINITY};
    ASSERT_EQ(prlimit(recorder->pid(), RLIMIT_AS, &limit, nullptr), 0);
    std::this_thread::sleep_for(std::chrono::seconds(3));
    recorder->signal(SIGINT);
    finish(3);
    exportAll(AnyOf(0, 3));
    EXPECT_GT(ledger["c0"]["stored"], 0);
    EXPECT_GT(events["error"], 0u);
}

TEST_F(FaultsRoad, NothingIsOverwrittenOrMadeInVain)
{
    addCounters(1, 100);
    writeText(file, "precious");
    const CommandResult ran = runVu({"run", descriptionFile()});
    EXPECT_EQ(ran.status, 2);
    EXPECT_THAT(ran.err, HasSubstr("--force"));
    EXPECT_EQ(readText(file), "precious");
    description["channels"][0].erase("source");
    description["connect_timeout"] = 0.1;
    start();
    EXPECT_EQ(recorder->wait(), 1) << "no source listens";
    EXPECT_FALSE(exists(file));
}

} // namespace
} // namespace vu::test
