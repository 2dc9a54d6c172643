// A test from its sources to exported values, by the built command alone.
#pragma once

#include <cstring>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/command.h"
#include "tests/support/running_vu.h"
#include "tests/support/temp_dir.h"

namespace vu::test {

using Json = nlohmann::ordered_json;

class Road : public ::testing::Test {
protected:
    // A channel of the test with its source; `more` is merged into it.
    void addChannel(const std::string &name, const Json &stanza, const Json &source,
                    const Json &more = Json::object())
    {
        Json channel = {{"address", "unix:" + folder.path(name + ".sock").string()}, {"source", source}};
        channel["stanza"] = stanza;
        channel["stanza"]["name"] = name;
        channel["stanza"].emplace("connector", "x");
        channel.update(more);
        description["channels"].push_back(channel);
    }

    std::string descriptionFile()
    {
        writeText(folder.path("test.json"), description.dump(1));
        return folder.path("test.json");
    }

    // `vu run`, then `vu verify`.
    void run(int status = 0)
    {
        const CommandResult ran = runVu({"run", descriptionFile(), "--force", "--json"});
        ASSERT_EQ(ran.status, status) << ran.err;
        summary = Json::parse(ran.out);
        verify();
    }

    void verify()
    {
        const CommandResult verified = runVu({"verify", file});
        EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
    }

    void exportAs(const std::string &format, const std::vector<std::string> &more = {})
    {
        std::vector<std::string> arguments = {"export", file, "-o", out, "--force", "--format", format};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const CommandResult exported = runVu(arguments);
        ASSERT_EQ(exported.status, 0) << exported.err;
    }

    // The samples of an exported .npy file; an empty vector if they are of another type.
    template <typename T>
    std::vector<T> samples(const std::string &name) const
    {
        const std::string bytes = readText(out / (name + ".npy"));
        if (bytes.size() < 10 || bytes.find(sizeof(T) == 4 ? "'<f4'" : "'<f8'") == std::string::npos)
            return {};
        const size_t head = 10u + static_cast<uint8_t>(bytes[8]) + 256u * static_cast<uint8_t>(bytes[9]);
        std::vector<T> values((bytes.size() - head) / sizeof(T));
        if (!values.empty())
            std::memcpy(values.data(), bytes.data() + head, values.size() * sizeof(T));
        return values;
    }

    const Json &ledger(const std::string &name) const
    {
        static const Json none;
        for (const Json &entry : summary["ledger"])
            if (entry["name"] == name)
                return entry;
        return none;
    }
    size_t events(const std::string &kind) const
    {
        size_t count = 0;
        for (const Json &event : summary["events"])
            count += event["kind"] == kind;
        return count;
    }

    TempDir folder;
    const std::filesystem::path file = folder.path("road.krd");
    const std::filesystem::path out = folder.path("out");
    Json description = {{"name", "road"},
                        {"start_time", "2026-03-15T10:15:30.0"},
                        {"duration", 60},
                        {"file", file.string()},
                        {"channels", Json::array()}};
    Json summary;
};

// The text of a file, unpacked if it is gzip.
std::string unpacked(const std::filesystem::path &file);
// Its lines, split at every comma.
std::vector<std::vector<std::string>> table(const std::filesystem::path &file);

} // namespace vu::test
