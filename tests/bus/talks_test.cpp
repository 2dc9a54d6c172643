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

void play(const std::string &kind, const Strings &lines, ErrorTrap &errors)
{
    Signals signals(kind);
    const auto callback = libvuRezeroCallback;
    for (const std::string &line : lines) {
        const size_t end = line.find(" > ");
        const Strings words = split(line.substr(0, end), ' ');
        if (words[0] == "signal")
            ASSERT_TRUE(signals.add(json::parse(line.substr(7)))) << line;
        else if (words[0] == "deaf" || words[0] == "hearing")
            libvuRezeroCallback = words[0] == "deaf" ? nullptr : callback;
        else if (words[0] == "ask")
            *signals.pending.at(std::stoul(words[1])) = 1;
        else
            tell(signals, words);
        if (end == std::string::npos)
            continue;
        std::string held = fmt::format("{} / {}", fmt::join(signals.each(&Sequentializer::value), " "),
                                       fmt::join(signals.each(&Sequentializer::sample_count), " "));
        for (const char *sign = " !"; const auto &[name, zero] : errors.rezeros())
            held += fmt::format("{} {} {}", std::exchange(sign, ""), name, zero);
        EXPECT_EQ(held, line.substr(end + 3)) << line;
    }
}

TEST_F(Bus, EveryTalkGoesAsItWasWritten)
{
    const Strings lines = linesOf("talks.txt");
    const auto begins = [](const std::string &line) {
        return line.starts_with("set") || line.starts_with("list") || line.starts_with("xcp");
    };
    for (auto at = lines.begin(); at != lines.end();) {
        const auto end = std::find_if(at + 1, lines.end(), begins);
        for (const std::string &kind : split(*at, ' '))
            play(kind, Strings(at + 1, end), errors);
        at = end;
    }
}

} // namespace
