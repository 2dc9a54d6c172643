// Real recordings of samples through sources, sockets, library and data file and back, bit for bit.
#include "tests/road/road.h"

namespace vu::test {
namespace {

// The channel of a table that lies beside others in the file, as text; its rows begin with a tab.
std::vector<double> vibration(const std::filesystem::path &file)
{
    const std::string text = readText(file);
    std::vector<double> values;
    for (const std::string &line : split(text.substr(text.find('\n', text.find("X_Value")) + 1), '\n'))
        values.push_back(std::stod(line.substr(1)));
    EXPECT_EQ(values.size(), 16384u);
    return values;
}

// As many channels of the same source, all at once.
struct Replay {
    friend void PrintTo(const Replay &replay, std::ostream *out)
    {
        *out << replay.width << " " << replay.endian << (replay.tcp ? " tcp " : " unix ") << replay.channels;
    }
    const char *width;
    const char *endian;
    bool tcp;
    int channels;
};

class SamplesRoad : public Road, public ::testing::WithParamInterface<Replay> {
protected:
    void expectBack(const std::vector<double> &expected, Json source, double rate)
    {
        const Replay &replay = GetParam();
        description["channels"] = Json::array();
        source.update({{"endian", replay.endian}, {"speed", 0}});
        for (int i = 0; i < replay.channels; i++) {
            Json more = Json::object();
            if (replay.tcp)
                more["address"] = "tcp:127.0.0.1:" + std::to_string(12000 + getpid() * 4 % 20000 + i);
            addChannel("c" + std::to_string(i),
                       {{"data_type", std::string("sequential_float") + replay.width}, {"sample_rate", rate}},
                       source, more);
        }
        run();
        for (int i = 0; i < replay.channels; i++)
            ASSERT_EQ(samples("c" + std::to_string(i)), expected) << i;
        EXPECT_EQ(events["source_ended"], static_cast<size_t>(replay.channels));
    }
};

TEST_P(SamplesRoad, RecordingsComeBackWhole)
{
    SKIP_WITHOUT_RECORDINGS();
    const bool wide = GetParam().width == std::string("64");
    const auto sounds = recordings() / "samples_wav";
    const std::string name =
        wide ? "test-48000Hz-2ch-64bit-float-le-wavex.wav"
             : "test-44100Hz-2ch-32bit-float-" + std::string(GetParam().endian, 1) + "e.wav";
    std::vector<double> sound;
    for (const auto &row : table(sounds / "values.csv.gz"))
        if (row[0] == name && row[1] == "1")
            sound.push_back(std::stod(row[3]));
    expectBack(sound, {{"kind", "wav"}, {"file", sounds / name}, {"channel", 1}}, wide ? 48000 : 44100);

    const auto table = recordings() / "samples_vibration" / "long_single_header_multi_ch.lvm";
    auto values = vibration(table);
    for (double &value : values)
        value = wide ? value : static_cast<float>(value);
    expectBack(values, {{"kind", "csv"}, {"file", table}, {"column", "F"}}, 1023.5414534288639);
}

INSTANTIATE_TEST_SUITE_P(, SamplesRoad,
                         ::testing::Values(Replay{"32", "big", false, 1}, Replay{"32", "little", true, 3},
                                           Replay{"64", "big", true, 1}, Replay{"64", "little", false, 64}));

// Calibrated, converted and watched; the stored values come back within half a quantum.
TEST_F(Road, ConvertedAndWatchedVibration)
{
    SKIP_WITHOUT_RECORDINGS();
    Json source = R"({"kind": "csv", "column": "m_2", "speed": 0, "sample_rate": 1000})"_json;
    source["file"] = recordings() / "samples_vibration" / "long_single_header_multi_ch.lvm";
    const Json stores = R"({"plain": true,
                            "small": {"data_type": "int16", "scale": 0.001, "offset": 1},
                            "runs": {"data_type": "int8", "scale": 0.5, "encoding": "rle"},
                            "first": {"limit": 1000}})"_json;
    for (const auto &[name, store] : stores.items())
        addChannel(
            name, R"({"data_type": "sequential_float64", "sample_rate": 1000, "scale": 2, "offset": 1})"_json,
            source, {{"store", store}});
    description["monitors"] =
        R"([{"name": "watch", "rate": 10, "channels": [{"channel": "plain", "lower": -5, "upper": 14}]}])"_json;
    run();
    const auto plain = samples("plain"), small = samples("small"), runs = samples("runs");
    ASSERT_EQ(plain.size(), 16384u);
    ASSERT_TRUE(small.size() == plain.size() && runs.size() == plain.size());
    std::vector<double> windows(16384 / 100);
    for (size_t i = 0; i < plain.size(); i++) {
        ASSERT_LE(std::abs(small[i] - plain[i]), 0.0005 * (1 + 1e-9)) << i;
        ASSERT_LE(std::abs(runs[i] - plain[i]), 0.25 * (1 + 1e-9)) << i;
        if ((plain[i] < -5.0 || plain[i] > 14.0) && i / 100 < windows.size())
            windows[i / 100] = 1.0;
    }
    EXPECT_EQ(samples("watch"), windows);
    EXPECT_EQ(events["range"], 2u);
    EXPECT_EQ(samples("first").size(), 1000u);
    EXPECT_EQ(ledger["first"]["discarded"]["limit"], 15384);
}

TEST_F(Road, WhatIsTooRandomForRunsIsLostByName)
{
    addChannel("noise", {{"data_type", "sequential_float32"}, {"sample_rate", 1000}},
               {{"kind", "sim"}, {"signal", "noise"}, {"speed", 0}, {"duration", 2}},
               {{"store", {{"data_type", "int16"}, {"scale", 0.0001}, {"encoding", "rle"}}}});
    run(3);
    EXPECT_EQ(ledger["noise"]["stored"], 0);
    EXPECT_EQ(ledger["noise"]["discarded"]["conversion"], 2000);
    EXPECT_GE(events["error"], 1u);
}

} // namespace
} // namespace vu::test
