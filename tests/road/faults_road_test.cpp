// A recording under bad conditions: killed, interrupted, on a full disk, from sources that misbehave.
#include <arpa/inet.h>
#include <csignal>
#include <gmock/gmock.h>
#include <random>

#include "tests/road/road.h"

namespace vu::test {
namespace {

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
        const auto got = samples<double>(name);
        for (size_t i = 0; i < got.size(); i++)
            if (got[i] != static_cast<double>(i)) {
                ADD_FAILURE() << name << " has " << got[i] << " at sample " << i;
                break;
            }
        return got.size();
    }

    // Samples in the whole blocks of group `group`, found by a walk that trusts the sizes alone.
    size_t samplesInBlocks(uint32_t group) const
    {
        const auto bytes = readBytes(file);
        size_t count = 0;
        const auto word = [&](size_t at) {
            uint32_t value;
            std::memcpy(&value, &bytes[at], 4);
            return ntohl(value);
        };
        for (size_t at = 0; at + 20 <= bytes.size() && at + word(at) <= bytes.size(); at += word(at))
            if (word(at + 4) == group)
                count += (word(at) - 28) / sizeof(double);
        return count;
    }

    void expectLedgersClose()
    {
        for (const Json &entry : summary["ledger"]) {
            uint64_t sum = entry["stored"];
            for (const auto &[cause, count] : entry["discarded"].items())
                sum += count.get<uint64_t>();
            EXPECT_EQ(entry["received"], sum) << entry;
        }
    }
};

TEST_F(FaultsRoad, KilledAtAnyMomentEveryWholeBlockIsRecovered)
{
    std::mt19937 random(20260315);
    addCounters(2, 20000);
    description["flush_interval"] = 0.01;
    for (int round = 0; round < 5; round++) {
        std::filesystem::remove(file);
        {
            RunningVu recorder({"run", descriptionFile(), "--force"});
            ASSERT_TRUE(recorder.waitForBytes(file, 1000 + random() % 200000)) << recorder.err();
            recorder.signal(SIGKILL);
            EXPECT_EQ(recorder.wait(), -SIGKILL);
        }
        const auto mended = folder.path("mended.krd");
        const CommandResult recovered = runVu({"recover", file, "-o", mended, "--force"});
        EXPECT_THAT(recovered.status, ::testing::AnyOf(0, 3)) << recovered.err;
        EXPECT_EQ(runVu({"verify", mended}).status, 0);
        const CommandResult exported = runVu({"export", mended, "-o", out, "--force", "--format", "npy"});
        ASSERT_EQ(exported.status, 0) << exported.err;
        EXPECT_EQ(countedTo("c0"), samplesInBlocks(2));
        EXPECT_EQ(countedTo("c1"), samplesInBlocks(3));
    }
}

TEST_F(FaultsRoad, SignalsEndItProperly)
{
    addCounters(3, 1000);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        std::filesystem::remove(file);
        RunningVu recorder({"run", descriptionFile(), "--json"});
        ASSERT_TRUE(recorder.waitForBytes(file, 8000));
        recorder.signal(number);
        EXPECT_EQ(recorder.wait(), 0) << recorder.err();
        summary = Json::parse(recorder.out());
        EXPECT_EQ(summary["end"], "stopped");
        verify();
        exportAs("npy");
        for (const char *name : {"c0", "c1", "c2"})
            EXPECT_EQ(countedTo(name), ledger(name)["received"]);
    }
}

TEST_F(FaultsRoad, FullDiskKeepsWhatItTookAndSaysWhatItLost)
{
    addCounters(3, 2000);
    description["duration"] = 3;
    for (const uint64_t limit : {30000u, 60001u, 90002u}) {
        RunningVu recorder({"run", descriptionFile(), "--force", "--json"}, limit);
        EXPECT_EQ(recorder.wait(), 3) << recorder.err();
        summary = Json::parse(recorder.out());
        EXPECT_EQ(summary["end"], "disk_full");
        EXPECT_GE(events("disk_full"), 1u);
        expectLedgersClose();
        runVu({"export", file, "-o", out, "--force", "--format", "npy"});
        for (const char *name : {"c0", "c1", "c2"}) {
            EXPECT_EQ(countedTo(name), ledger(name)["stored"]) << "limit " << limit;
            EXPECT_GT(ledger(name)["discarded"]["disk_full"], 0);
        }
    }
    {
        RunningVu recorder({"run", descriptionFile(), "--force"}, 600);
        EXPECT_EQ(recorder.wait(), 1);
        EXPECT_THAT(recorder.err(), ::testing::HasSubstr("no room for the catalogue"));
    }
}

TEST_F(FaultsRoad, SourcesThatMisbehave)
{
    struct {
        const char *faults;
        int status;
        const char *event;
        bool whole;
    } const cases[] = {
        {"split=2", 0, "source_ended", true},        {"stall=0.7@0.5", 0, "source_ended", true},
        {"close=20", 3, "source_lost", true},        {"garble=7", -1, nullptr, false},
        {"split=3,close=9", 3, "source_lost", true},
    };
    for (const auto &fault : cases) {
        SCOPED_TRACE(fault.faults);
        description["channels"] = Json::array();
        addCounters(2, 1000, {{"faults", fault.faults}, {"duration", 1.5}});
        const CommandResult ran = runVu({"run", descriptionFile(), "--force", "--json"});
        EXPECT_TRUE(fault.status < 0 ? ran.status == 0 || ran.status == 3 : ran.status == fault.status)
            << ran.err;
        summary = Json::parse(ran.out);
        if (fault.event) {
            EXPECT_EQ(events(fault.event), 2u);
        }
        expectLedgersClose();
        verify();
        exportAs("npy");
        if (fault.whole) {
            EXPECT_EQ(countedTo("c0"), ledger("c0")["received"]);
            EXPECT_GT(countedTo("c1"), 0u);
        }
    }
}

// A time years ahead would fill the memory with held values. It is left out and told; true ones go on.
TEST_F(FaultsRoad, AbsurdTimesFillNothing)
{
    const Json held = {
        {"sample_rate", 1000}, {"invalid_data_output_value", -1}, {"stale_data_expiration_time", 1}};
    Json ntp = {{"data_type", "message_float64_ntp"}},
         stream = {{"data_type", "sequential_float32"}, {"connector", "pd806k"}};
    ntp.update(held);
    addChannel("ntp", ntp, {{"kind", "sim"}, {"duration", 0.5}, {"start_time", "2036-03-15T10:15:30"}});
    Json signal = {{"name", "sig0"}, {"data_type", "float64"}, {"scale", 1}, {"offset", 0}};
    signal.update(held);
    addChannel("late", stream, {{"kind", "sim"}, {"duration", 0.5}, {"start_time", "2031-03-15T10:15:30"}},
               {{"signals", {signal}}});
    signal["name"] = "sig0 again";
    addChannel("good", stream, {{"kind", "sim"}, {"duration", 0.5}, {"names", {"sig0 again"}}},
               {{"signals", {signal}}});
    run(3);
    EXPECT_GE(events("error"), 2u) << summary["events"];
    EXPECT_EQ(ledger("ntp")["received"], 0);
    EXPECT_EQ(ledger("sig0")["received"], 0);
    EXPECT_GT(ledger("sig0 again")["received"], 450);
    // Garbled frames: whatever times they hold, the recording ends, and what is stored is sound.
    description["channels"] = Json::array();
    signal.update(
        {{"db_msg_id", "100"}, {"db_data_format", "SLSB"}, {"db_bit_start", 0}, {"db_bit_length", 16}});
    addChannel("can0", {{"data_type", "message_can"}},
               {{"kind", "sim"}, {"duration", 20}, {"speed", 0}, {"faults", "garble=3"}},
               {{"signals", {signal}}});
    const CommandResult garbled = runVu({"run", descriptionFile(), "--force", "--json"});
    EXPECT_THAT(garbled.status, ::testing::AnyOf(0, 3)) << garbled.err;
    verify();
}

TEST_F(FaultsRoad, ZeroAskedForWhileItRuns)
{
    addChannel("weight", {{"data_type", "sequential_float32"}, {"sample_rate", 1000}},
               {{"kind", "sim"}, {"signal", "square"}, {"amplitude", 0}, {"bias", 5}});
    addChannel("level",
               {{"data_type", "message_float64"},
                {"sample_rate", 100},
                {"invalid_data_output_value", -1},
                {"stale_data_expiration_time", 10}},
               {{"kind", "sim"}, {"signal", "square"}, {"amplitude", 0}, {"bias", 3}, {"rate", 100}});
    description["duration"] = 3;
    RunningVu recorder({"run", descriptionFile(), "--force", "--json"});
    ASSERT_TRUE(recorder.waitForBytes(file, 3000));
    recorder.write("zero weight\n\nzero nothing\nnonsense\nzero level\n");
    EXPECT_EQ(recorder.wait(), 0) << recorder.err();
    summary = Json::parse(recorder.out());
    EXPECT_EQ(events("zero"), 2u);
    EXPECT_THAT(recorder.err(), ::testing::AllOf(::testing::HasSubstr("there is no channel nothing"),
                                                 ::testing::HasSubstr("expected a line: zero CHANNEL")));
    exportAs("npy");
    EXPECT_EQ(samples<float>("weight").front(), 5.0f);
    EXPECT_EQ(samples<float>("weight").back(), 0.0f);
    EXPECT_EQ(samples<double>("level").back(), 0.0);
}

TEST_F(FaultsRoad, NothingIsOverwrittenUnasked)
{
    addCounters(1, 100);
    writeText(file, "precious");
    const CommandResult ran = runVu({"run", descriptionFile()});
    EXPECT_EQ(ran.status, 2);
    EXPECT_THAT(ran.err, ::testing::HasSubstr("--force"));
    EXPECT_EQ(readText(file), "precious");
    description["channels"][0].erase("source");
    description["connect_timeout"] = 0.1;
    const auto other = folder.path("other.krd");
    EXPECT_EQ(runVu({"run", descriptionFile(), "-o", other}).status, 1) << "no source listens";
    EXPECT_FALSE(std::filesystem::exists(other));
}

} // namespace
} // namespace vu::test
