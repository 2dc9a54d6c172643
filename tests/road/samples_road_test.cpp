// Real recordings of samples through sources, sockets, library and data file and back, bit for bit.
#include <bit>
#include <gmock/gmock.h>

#include "tests/road/road.h"

namespace vu::test {
namespace {

struct Replay {
    const char *data_type;
    const char *endian;
    bool tcp;
    int channels;
};

class SamplesRoad : public Road, public ::testing::WithParamInterface<Replay> {
protected:
    // `replay.channels` times the same source, all at once.
    void record(const Replay &replay, Json source, double rate)
    {
        source.update({{"endian", replay.endian}, {"speed", 0}});
        for (int i = 0; i < replay.channels; i++) {
            Json more = Json::object();
            if (replay.tcp)
                more["address"] = "tcp:127.0.0.1:" + std::to_string(42000 + getpid() % 20000 + i);
            addChannel("c" + std::to_string(i), {{"data_type", replay.data_type}, {"sample_rate", rate}},
                       source, more);
        }
        run();
        exportAs("npy");
    }

    template <typename T>
    void expectBits(const std::vector<double> &expected)
    {
        for (size_t i = 0; i < description["channels"].size(); i++) {
            const std::vector<T> got = samples<T>("c" + std::to_string(i));
            ASSERT_EQ(got.size(), expected.size());
            for (size_t n = 0; n < got.size(); n++)
                ASSERT_EQ(got[n], static_cast<T>(expected[n])) << "channel " << i << ", sample " << n;
        }
    }
    void expectSamples(const std::vector<double> &expected)
    {
        if (std::string(GetParam().data_type) == "sequential_float32")
            expectBits<float>(expected);
        else
            expectBits<double>(expected);
    }
};

TEST_P(SamplesRoad, SoundComesBackWhole)
{
    SKIP_WITHOUT_RECORDINGS();
    const auto recording = recordings() / "samples_wav";
    const bool wide = GetParam().data_type == std::string("sequential_float64");
    const std::string name =
        wide ? "test-48000Hz-2ch-64bit-float-le-wavex.wav"
             : "test-44100Hz-2ch-32bit-float-" + std::string(GetParam().endian, 1) + "e.wav";
    std::vector<double> expected;
    for (const auto &row : table(recording / "values.csv.gz"))
        if (row[0] == name && row[1] == "1")
            expected.push_back(std::stod(row[3]));
    record(GetParam(), {{"kind", "wav"}, {"file", (recording / name).string()}, {"channel", 1}},
           wide ? 48000 : 44100);
    expectSamples(expected);
    EXPECT_EQ(events("source_ended"), description["channels"].size());
}

TEST_P(SamplesRoad, VibrationComesBackWhole)
{
    SKIP_WITHOUT_RECORDINGS();
    const auto recording = recordings() / "samples_vibration" / "long_single_header_multi_ch.lvm";
    std::vector<double> expected;
    const std::string text = readText(recording);
    for (size_t at = text.find("\n", text.find("X_Value")) + 1; at < text.size();
         at = text.find("\n", at) + 1)
        expected.push_back(std::stod(text.substr(at + 1, text.find('\t', at + 1) - at)));
    ASSERT_EQ(expected.size(), 16384u);
    record(GetParam(), {{"kind", "csv"}, {"file", recording.string()}, {"column", "F"}}, 1023.5414534288639);
    expectSamples(expected);
}

INSTANTIATE_TEST_SUITE_P(, SamplesRoad,
                         ::testing::Values(Replay{"sequential_float32", "big", false, 1},
                                           Replay{"sequential_float32", "little", true, 3},
                                           Replay{"sequential_float64", "big", true, 1},
                                           Replay{"sequential_float64", "little", false, 64}));

// Calibrated, converted and watched; the stored values come back within half a quantum.
TEST_F(Road, ConvertedAndWatchedVibration)
{
    SKIP_WITHOUT_RECORDINGS();
    const auto recording = recordings() / "samples_vibration" / "long_single_header_multi_ch.lvm";
    const Json source = {{"kind", "csv"}, {"file", recording.string()}, {"column", "m_2"}, {"speed", 0}};
    const Json stanza = {
        {"data_type", "sequential_float64"}, {"sample_rate", 1000}, {"scale", 2.0}, {"offset", 1.0}};
    addChannel("plain", stanza, source);
    addChannel("small", stanza, source,
               {{"store", {{"data_type", "int16"}, {"scale", 0.001}, {"offset", 1.0}}}});
    addChannel("runs", stanza, source,
               {{"store", {{"data_type", "int8"}, {"scale", 0.5}, {"encoding", "rle"}}}});
    addChannel("first", stanza, source, {{"store", {{"limit", 1000}}}});
    description["monitors"] = {{{"name", "watch"},
                                {"rate", 10},
                                {"channels", {{{"channel", "plain"}, {"lower", -5.0}, {"upper", 14.0}}}}}};
    run();
    exportAs("npy");
    const auto plain = samples<double>("plain"), small = samples<double>("small"),
               runs = samples<double>("runs");
    ASSERT_EQ(plain.size(), 16384u);
    ASSERT_EQ(small.size(), plain.size());
    ASSERT_EQ(runs.size(), plain.size());
    std::vector<double> windows(16384 / 100);
    for (size_t i = 0; i < plain.size(); i++) {
        ASSERT_LE(std::abs(small[i] - plain[i]), 0.0005 * (1 + 1e-9)) << i;
        ASSERT_LE(std::abs(runs[i] - plain[i]), 0.25 * (1 + 1e-9)) << i;
        if ((plain[i] < -5.0 || plain[i] > 14.0) && i / 100 < windows.size())
            windows[i / 100] = 1.0;
    }
    EXPECT_EQ(samples<double>("watch"), windows);
    EXPECT_EQ(events("range"), 2u);
    EXPECT_EQ(samples<double>("first").size(), 1000u);
    EXPECT_EQ(ledger("first")["discarded"]["limit"], 15384);
}

TEST_F(Road, WhatIsTooRandomForRunsIsLostByName)
{
    addChannel("noise", {{"data_type", "sequential_float32"}, {"sample_rate", 1000}},
               {{"kind", "sim"}, {"signal", "noise"}, {"speed", 0}, {"duration", 2}},
               {{"store", {{"data_type", "int16"}, {"scale", 0.0001}, {"encoding", "rle"}}}});
    run(3);
    EXPECT_EQ(ledger("noise")["stored"], 0);
    EXPECT_EQ(ledger("noise")["discarded"]["conversion"], 2000);
    EXPECT_GE(events("error"), 1u);
}

} // namespace
} // namespace vu::test
