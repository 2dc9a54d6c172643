// A test from its sources to exported values, by the built command alone.
#pragma once

#include <cstring>
#include <gmock/gmock.h>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "tests/road/table.h"
#include "tests/support/running_vu.h"

namespace vu::test {

using Json = nlohmann::json;
using namespace nlohmann::literals;
using Status = ::testing::Matcher<int>;

class Road : public ::testing::Test {
protected:
    // A channel of the test with its source; `more` is merged into it.
    void addChannel(const std::string &name, Json stanza, const Json &source,
                    const Json &more = Json::object())
    {
        stanza.emplace("connector", "x");
        stanza["name"] = name;
        Json channel = {{"address", "unix:" + name + ".sock"}, {"stanza", stanza}, {"source", source}};
        channel.update(more);
        description["channels"].push_back(channel);
    }
    // A stanza with what makes a stream of values that come when they like.
    static Json held(double rate, Json stanza)
    {
        stanza.update(
            {{"sample_rate", rate}, {"invalid_data_output_value", -1}, {"stale_data_expiration_time", 10}});
        return stanza;
    }

    std::string descriptionFile()
    {
        writeText(folder.path("test.json"), description.dump(1));
        return folder.path("test.json");
    }

    // `vu run`, which can write no file beyond `fileLimit`, and its end.
    void start(uint64_t fileLimit = 0)
    {
        std::filesystem::remove(file);
        recorder.emplace(Strings{"run", descriptionFile(), "--json"}, fileLimit);
    }
    void finish(const Status &status = 0)
    {
        ASSERT_THAT(recorder->wait(), status) << recorder->err();
        summary = Json::parse(recorder->out());
        ledger.clear();
        events.clear();
        for (const Json &event : summary["events"])
            events[event["kind"]]++;
        for (const Json &entry : summary["ledger"]) {
            ledger[entry["name"]] = entry;
            uint64_t sum = entry["stored"];
            for (const auto &[cause, count] : entry["discarded"].items())
                sum += count.get<uint64_t>();
            EXPECT_EQ(entry["received"], sum) << entry;
        }
    }
    // Both, then `vu verify` and `vu export`.
    void run(const Status &status = 0)
    {
        start();
        finish(status);
        exportAll();
    }
    void exportAll(const Status &status = 0, const Strings &arguments = {"--format", "npy"})
    {
        const CommandResult verified = runVu({"verify", file});
        EXPECT_THAT(verified.status, status) << verified.out << verified.err;
        Strings all = {"export", file, "-o", out, "--force"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const CommandResult exported = runVu(all);
        EXPECT_THAT(exported.status, status) << exported.err;
    }

    // The samples of an exported .npy file, float32 or float64.
    std::vector<double> samples(const std::string &name) const
    {
        const std::string bytes = readText(out / (name + ".npy"));
        const size_t size = bytes.find("'<f4'") < bytes.size() ? 4 : 8;
        std::vector<double> values;
        for (size_t at = bytes.find('\n') + 1; at != 0 && at + size <= bytes.size(); at += size) {
            float narrow;
            std::memcpy(&narrow, &bytes[at], 4);
            std::memcpy(&values.emplace_back(narrow), &bytes[at], size == 8 ? 8 : 0);
        }
        return values;
    }

    TempDir folder;
    const std::filesystem::path file = folder.path("road.krd"), out = folder.path("out");
    Json description = {{"name", "road"},
                        {"start_time", "2026-03-15T10:15:30.0"},
                        {"duration", 60},
                        {"file", file.string()},
                        {"channels", Json::array()}};
    std::optional<RunningVu> recorder;
    Json summary;
    std::map<std::string, Json> ledger;   // of the summary, by channel
    std::map<std::string, size_t> events; // how many of each kind
};

} // namespace vu::test
