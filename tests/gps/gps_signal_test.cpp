// From stanzas and sentences to what every signal hears.
#include <fmt/format.h>
#include <random>

#include "libvu/core/callbacks.h"
#include "tests/gps/receiver.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/cases.h"
#include "tests/support/error_trap.h"
#include "tests/support/node_fixture.h"

namespace vu::test {
namespace {

// A sentence with every field that a row reads. `changes` is "9=,12=*6A" and the like; "#12" leaves 12
// fields.
std::string sentence(const std::string &id, const std::string &changes = "")
{
    const int own = id.back(); // so that no $PRTL sentence can pass for another
    const double third = own == 'T' ? 3.0 : own + 0.5;
    Strings fields =
        split(id == "$GPRMC"   ? "$GPRMC,101512.5,A,5230.5000,N,01322.7500,E,10.0,90.0,150324,2.0,E,A*6A"
              : id == "$GPGGA" ? "$GPGGA,101512.5,5230.5000,S,01322.7500,W,2,08,0.9,545.4,M,46.9,M,,*47"
              : id == "$GPGSA" ? "$GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1*39"
                               : fmt::format("{0},101512.5,{1}.25,{2},-{1}.75,7*55", id, own, third),
              ',');
    for (const std::string &change : split(changes, ',')) {
        const size_t number = std::stoul(change.substr(change[0] == '#'));
        if (change[0] == '#')
            fields.resize(number);
        else
            fields.at(number) = change.substr(change.find('=') + 1);
    }
    return fmt::format("{}", fmt::join(fields, ","));
}

class Gps : public testing::Test {
protected:
    ErrorTrap errors;
    AllocationFaults memory;
    Receiver receiver;
};

// UTC channels share one status word that outlives every receiver: it is brought to a known state first.
void primeUtcStatus()
{
    Receiver receiver;
    receiver.listen({{"connector", "utc_hour"}});
    receiver.feed(sentence("$GPRMC"));
    receiver.feed(sentence("$GPGGA"));
}

TEST_F(Gps, EveryChannelIsHeardAndNeedsNoMemory)
{
    primeUtcStatus();
    for (const char *type : {"trkr-300", "TRKR-300-Plus", "Garmin GPS"}) {
        Receiver full;
        std::map<std::string, double> expected = channelsOf(type), heard;
        for (const auto &[name, value] : expected)
            ASSERT_TRUE(full.listen({{"source_database", type}, {"connector", name + "_and_a_tail"}}));
        memory.reset();
        for (int64_t fix = 0; fix < 300; fix++)
            for (const std::string id :
                 {"$GPRMC", "$GPGGA", "$GPGSA", "$PRTLH", "$PRTLS", "$PRTLR", "$PRTLV", "$PRTLA", "$PRTLG",
                  "$PRTLT", "$GPGLL", "$GPVTG", "$GPZDA", "#pps", "#hb"}) {
                const auto values = full.say(id[0] == '#' ? id + "\r\n" : sentence(id), fix * kSecond / 10);
                for (size_t i = 0; i < values.size(); i++)
                    if (values[i] != kSilent)
                        heard[full.signals[i]->extractor->name] = values[i];
            }
        EXPECT_EQ(memory.count(), 0);
        EXPECT_EQ(heard, expected) << type;
    }
}

class Conversation : public Gps {
protected:
    ~Conversation() override { libvuRezeroCallback = callback; }

    static std::string numberText(double value) { return value == kSilent ? "-" : fmt::format("{}", value); }

    Strings heard(const std::string &text)
    {
        Strings all;
        for (const double value : receiver->say(text, time += kSecond / 10)) {
            all.push_back(numberText(value));
            Pipe *pipe = receiver->signals[all.size() - 1]->pipes.first;
            for (const FrameCopy &frame : pipe ? takeFrames(pipe) : std::vector<FrameCopy>()) {
                all.back().assign(frame.data.begin() + 12, frame.data.end());
                const auto length = static_cast<uint32_t>(all.back().size() + 8);
                EXPECT_EQ(frame.data, Bytes{}.le(length).le(time).add(all.back()));
                EXPECT_EQ(std::pair(frame.start, frame.length), std::pair(time, 1u));
                EXPECT_EQ(frame.aux, static_cast<float>(time));
            }
        }
        return all;
    }
    std::string outcome(const std::string &word, const std::string &rest)
    {
        Strings all;
        std::string ending = "\n"; // of a report, cut down to a "?"
        if (word == "receiver") {
            primeUtcStatus();
            receiver.emplace();
            for (const std::string &name : split(rest, ' ')) {
                const Strings parts = split(name, ':'); // its kind of receiver before it
                receiver->listen({{"connector", parts.back()},
                                  {"source_database", parts.size() > 1 ? parts[0] : "Garmin GPS"}});
            }
        } else if (word == "ask") {
            for (GpsSignal *signal : receiver->signals)
                signal->rezero_pending = 1;
        } else if (word == "without_callback" || word == "with_callback") {
            libvuRezeroCallback = word == "without_callback" ? nullptr : callback;
        } else if (word == "signal") {
            const json changes = json::parse(rest);
            ending = " or is not expected type.\n" + signalStanza(changes) + ending;
            if (const GpsSignal *signal = receiver->listen(changes))
                all = {std::to_string(signal->width), signal->extractor ? signal->extractor->name : "none"};
        } else {
            all = heard(word == "raw" ? rest : sentence(word, rest));
        }
        for (const std::string &text : errors.texts())
            all.push_back(text.ends_with(ending) ? text.substr(0, text.size() - ending.size()) + "?" : text);
        for (const auto &[name, zero] : errors.rezeros())
            all.push_back(name + "=" + numberText(zero));
        return fmt::format("{}", fmt::join(all, " "));
    }

    std::optional<Receiver> receiver;
    int64_t time = 0;
    decltype(libvuRezeroCallback) callback = libvuRezeroCallback;
};

TEST_F(Conversation, SignalsHearWhatTheirSentencesSayAndMistakesAreReported)
{
    for (const Case &line : cases("gps/sentences.txt")) {
        const size_t word = line[0].find(' ');
        const std::string rest = word < line[0].size() ? line[0].substr(word + 1) : "";
        EXPECT_EQ(outcome(line[0].substr(0, word), rest), line.size() > 1 ? line[1] : "") << line[0];
    }
}

// Whatever is in a field is read as the C library reads it, bit by bit.
TEST_F(Gps, NumbersAreThoseOfTheCLibrary)
{
    const GpsSignal *signal = receiver.listen({{"connector", "geoidal_height"}});
    std::mt19937 random(5);
    const std::string letters = "0123456789012345678901234567890123456789....--++eExXaAnNiIfFpP ";
    for (int i = 0; i < 20000; i++) {
        const size_t kinds = random() % 4 ? 44 : letters.size(); // mostly digits and points
        std::string text(1 + random() % (random() % 8 ? 10 : 40), ' ');
        for (char &letter : text)
            letter = letters[random() % kinds];
        receiver.feed(sentence("$GPGGA", "11=" + text));
        const double expected = std::strtod(text.c_str(), nullptr);
        ASSERT_EQ(libvu::loadHost<uint64_t>(&signal->extractor->value), libvu::loadHost<uint64_t>(&expected))
            << text;
    }
}

TEST_F(Gps, ShortMemoryIsReportedAndLeavesNothing)
{
    for (int64_t n = 0; receiver.signals.empty(); n++) { // ends where only frames of the pool are missing
        memory.failAt(n);
        receiver.listen(json::object());
        EXPECT_FALSE(errors.texts().empty()) << n;
    }
}

TEST_F(Gps, RecordsAreRewrittenInPlace)
{
    receiver.listen({{"connector", "fix_type"}});
    // "!" is a NUL that was a comma or a carriage return; an unknown sentence is not cut.
    for (auto [text, left] : {std::pair<std::string, std::string>("$GPGSA,A,2,3", "$GPGSA!A!2!3"),
                              {"$GPGSA,A,2,3\r,7", "$GPGSA!A!2!3!,7"},
                              {"$GPZZZ,A,2\r\n", "$GPZZZ,A,2!\n"},
                              {"", ""}}) {
        std::replace(left.begin(), left.end(), '!', '\0');
        const Bytes expected = Bytes{}.le(static_cast<uint32_t>(text.size() + 8)).le(kSecond).add(left);
        EXPECT_EQ(receiver.feed(text, kSecond), std::string(expected.begin(), expected.end())) << text;
        EXPECT_EQ(receiver.say(text, kSecond)[0], text.starts_with("$GPGSA") ? 2.0 : kSilent) << text;
    }
    for (const uint32_t length : {0u, 7u, 0xFFFFFFFFu}) {
        Bytes record = Bytes{}.be(length);
        gpsProcessSignals(receiver.channel.gps_set, record.data(), 0);
        EXPECT_EQ(record, Bytes{}.le(length)); // no room for a timestamp, or more than there can be
    }
    free(std::exchange(receiver.channel.channel_aux, nullptr));
    EXPECT_EQ(receiver.say("$GPGSA,A,3,")[0], kSilent);
}

} // namespace
} // namespace vu::test
