// Sequences of records for signals of every kind, and what the signals hold after each.
#include <fmt/ranges.h>

#include "libvu/core/callbacks.h"
#include "tests/bus/bus_fixture.h"

using namespace vu::test;

namespace {

std::vector<uint8_t> bytesOf(const std::string &hex)
{
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at < hex.size(); at += 2)
        bytes.push_back(static_cast<uint8_t>(hexNumber(hex.substr(at, 2))));
    return bytes;
}

void process(Signals &signals, const Strings &words)
{
    Batch batch;
    for (const std::string &word : words) {
        Strings parts = split(word, ':');
        parts.resize(3);
        const int64_t time = std::stoll(parts[0]);
        if (signals.kind == "xcp")
            signals.after(bytesOf(parts[1]), time);
        else if (parts[1] == "time")
            batch.timeOnly(time);
        else
            batch.at(time, hexNumber(parts[1]), payloadOf(parts[2]));
    }
    if (signals.kind != "xcp")
        signals.after(batch);
}

void addFields(Signals &signals, const Strings &words)
{
    for (size_t i = 1; i < words.size(); i++) {
        const Strings parts = split(words[i], ':');
        ASSERT_TRUE(signals.add(field(parts[0], json::parse(parts[1]), json::parse(parts[2])))) << words[i];
    }
}

void play(const std::string &kind, std::span<const Case> lines, ErrorTrap &errors)
{
    Signals signals(kind);
    const auto callback = libvuRezeroCallback;
    for (const Case &line : lines) {
        const ::testing::ScopedTrace trace(line.file.c_str(), line.line, kind);
        const Strings words = split(line[0], ' ');
        if (words[0] == "signal")
            ASSERT_TRUE(signals.add(json::parse(line[0].substr(7)))) << line[0];
        else if (words[0] == "fields")
            addFields(signals, words);
        else if (words[0] == "callback")
            libvuRezeroCallback = words[1] == "off" ? nullptr : callback;
        else if (words[0] == "ask")
            *signals.pending.at(std::stoul(words[1])) = 1;
        else
            process(signals, words);
        if (line.size() == 1)
            continue;
        std::string held = fmt::format("{} / {}", fmt::join(signals.each(&Sequentializer::value), " "),
                                       fmt::join(signals.each(&Sequentializer::sample_count), " "));
        for (const char *sign = " !"; const auto &[name, zero] : errors.rezeros())
            held += fmt::format("{} {} {}", std::exchange(sign, ""), name, zero);
        EXPECT_EQ(held, line[1]) << line[0];
    }
}

// What a callback writes into the record counts at once: in a set for scale, offset and zero, while a single
// signal's value has been formed before and is 0.
TEST_F(Bus, AZeroedValueIsFormedFromWhatTheCallbackLeaves)
{
    static CanSetSignal *asked;
    Signals set("set"), list("list");
    for (Signals *signals : {&set, &list}) {
        signals->add({{"scale", 2}, {"offset", 1}});
        *signals->pending[0] = 1;
    }
    asked = set.set->groups[0].signals[0];
    const auto callback = libvuRezeroCallback;
    libvuRezeroCallback = [](const char *, double zero) {
        EXPECT_EQ(zero, 21.0);
        asked->scale = 3.0;
        asked->offset = 5.0;
        asked->rezero_offset = 7.0;
        return 1;
    };
    const Batch batch = Batch().at(0, 0x100, payloadOf("0A"));
    EXPECT_THAT(set.after(batch), testing::ElementsAre(28.0));
    EXPECT_THAT(list.after(batch), testing::ElementsAre(0.0));
    libvuRezeroCallback = callback;
}

TEST_F(Bus, SequencesOfRecordsLeaveTheValuesAndZerosOfTheTable)
{
    const std::vector<Case> lines = cases("bus/record_sequences.txt").rows();
    const auto begins = [](const Case &line) {
        return line[0].starts_with("set") || line[0].starts_with("list") || line[0].starts_with("xcp");
    };
    for (auto at = lines.begin(); at != lines.end();) {
        const auto end = std::find_if(at + 1, lines.end(), begins);
        for (const std::string &kind : split((*at)[0], ' '))
            play(kind, {at + 1, end}, errors);
        at = end;
    }
}

} // namespace
