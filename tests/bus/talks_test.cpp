// Conversations with signals of every kind: what records make of them.
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

void tell(Signals &signals, const Strings &words)
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
        else if (words[0] == "deaf" || words[0] == "hearing")
            libvuRezeroCallback = words[0] == "deaf" ? nullptr : callback;
        else if (words[0] == "ask")
            *signals.pending.at(std::stoul(words[1])) = 1;
        else
            tell(signals, words);
        if (line.size() == 1)
            continue;
        std::string held = fmt::format("{} / {}", fmt::join(signals.each(&Sequentializer::value), " "),
                                       fmt::join(signals.each(&Sequentializer::sample_count), " "));
        for (const char *sign = " !"; const auto &[name, zero] : errors.rezeros())
            held += fmt::format("{} {} {}", std::exchange(sign, ""), name, zero);
        EXPECT_EQ(held, line[1]) << line[0];
    }
}

TEST_F(Bus, EveryTalkGoesAsItWasWritten)
{
    const std::vector<Case> lines = cases("bus/talks.txt").rows();
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
