// From stanzas and sentences to what every signal hears.
#include <random>

#include "libvu/core/callbacks.h"
#include "tests/gps/gps_fixture.h"
#include "tests/support/node_fixture.h"

namespace vu::test {
namespace {

// UTC channels share one status word that outlives every receiver: it is brought to a known state first.
void primeUtcStatus()
{
    Receiver receiver;
    receiver.listen({{"connector", "utc_hour"}});
    receiver.feed(sentence("$GPRMC"));
    receiver.feed(sentence("$GPGGA"));
}

TEST_F(Gps, EveryChannelOfBothTables)
{
    primeUtcStatus();
    for (const char *type : {"trkr-300", "TRKR-300-Plus", "Garmin GPS"}) {
        Receiver full;
        std::map<std::string, double> expected = channelsOf(type), heard;
        for (const auto &[name, value] : expected)
            ASSERT_TRUE(full.listen({{"source_database", type}, {"connector", name + "_and_a_tail"}}));
        for (const char *id : {"$GPRMC", "$GPGGA", "$GPGSA", "$PRTLH", "$PRTLS", "$PRTLR", "$PRTLV", "$PRTLA",
                               "$PRTLG", "$PRTLT", "$GPGLL", "$GPVTG", "$GPZDA"}) {
            const std::vector<double> values = full.say(sentence(id));
            for (size_t i = 0; i < values.size(); i++)
                if (values[i] != kSilent)
                    heard[full.signals[i]->extractor->name] = values[i];
        }
        EXPECT_EQ(heard, expected) << type;
    }
}

class Talk : public Gps {
protected:
    ~Talk() override { libvuRezeroCallback = callback; }

    static std::string joined(const Strings &words) { return fmt::format("{}", fmt::join(words, " ")); }
    static std::string numberText(double value) { return value == kSilent ? "-" : fmt::format("{}", value); }

    std::string signalOf(const json &changes)
    {
        const GpsSignal *signal = receiver->listen(changes);
        if (!signal)
            return reports(" or is not expected type.\n" + signalStanza(changes) + "\n");
        return fmt::format("{} {}", signal->width, signal->extractor ? signal->extractor->name : "none");
    }
    // One after the other, with `ending` cut down to a "?".
    std::string reports(const std::string &ending)
    {
        Strings all = errors.texts();
        for (std::string &text : all)
            if (text.ends_with(ending))
                text.replace(text.size() - ending.size(), ending.size(), "?");
        return joined(all);
    }
    std::string heard(const std::string &text)
    {
        Strings all;
        for (const double value : receiver->say(text, time += kSecond / 10)) {
            Pipe *pipe = receiver->signals[all.size()]->pipes.first;
            all.push_back(pipe ? textOf(pipe) : numberText(value));
        }
        return joined(all);
    }
    std::string textOf(Pipe *pipe)
    {
        for (const FrameCopy &frame : takeFrames(pipe)) {
            const std::string text(frame.data.begin() + 12, frame.data.end());
            EXPECT_EQ(frame.data, Bytes{}.le(static_cast<uint32_t>(text.size() + 8)).le(time).add(text));
            EXPECT_EQ(std::tuple(frame.start, frame.aux, frame.length, frame.capacity),
                      std::tuple(time, static_cast<float>(time), 1u, 1u));
            return text;
        }
        return "-";
    }
    std::string zeros()
    {
        Strings all;
        for (const auto &[name, zero] : errors.rezeros())
            all.push_back(name + "=" + numberText(zero));
        return joined(all);
    }
    std::string outcome(const std::string &word, const std::string &rest)
    {
        if (word == "receiver") {
            primeUtcStatus();
            receiver.emplace();
        } else if (word == "ask") {
            for (GpsSignal *signal : receiver->signals)
                signal->rezero_pending = 1;
        } else if (word == "deaf" || word == "hearing") {
            libvuRezeroCallback = word == "deaf" ? nullptr : callback;
        } else {
            return word == "signal"    ? signalOf(json::parse(rest))
                   : word == "reports" ? reports("\n")
                   : word == "zeros"   ? zeros()
                                       : heard(word == "raw" ? rest : sentence(word, rest));
        }
        return "";
    }

    std::optional<Receiver> receiver;
    int64_t time = 0;
    decltype(libvuRezeroCallback) callback = libvuRezeroCallback;
};

TEST_F(Talk, EveryLineOfTheFile)
{
    for (const std::string &line : split(readText(VU_SOURCE_DIR "/tests/gps/talks.txt"), '\n')) {
        const size_t said = std::min(line.find(" > "), line.size()), word = line.find(' ');
        const std::string rest = word < said ? line.substr(word + 1, said - word - 1) : "";
        if (line.empty() || line[0] == '/')
            continue;
        EXPECT_EQ(outcome(line.substr(0, word), rest), line.substr(std::min(said + 3, line.size()))) << line;
    }
}

// Whatever stands in a field is read as the C library reads it, bit by bit.
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
        ASSERT_EQ(loadHost<uint64_t>(&signal->extractor->value), loadHost<uint64_t>(&expected)) << text;
    }
}

TEST_F(Gps, ShortMemoryIsReportedAndLeavesNothing)
{
    GpsSignal *signal = nullptr;
    for (int64_t n = 0; !signal; n++) { // ends where only frames of the pool are missing
        memory.failAt(n);
        signal = gpsSignalInit(&receiver.channel, signalStanza(json::object()).c_str());
        EXPECT_FALSE(errors.texts().empty()) << n;
    }
    memory.failNone();
    release(signal);
}

TEST_F(Gps, HeartbeatsMoveEveryStream)
{
    const Sequentializer *stream = receiver.listen({{"connector", "fix_type"}})->sequentializer;
    const auto *adjust = static_cast<GpsTsAdjust *>(receiver.channel.channel_aux);
    // One that is not of five characters moves the times of the channel instead.
    for (const auto &[text, time, output] : {std::tuple("#hb\r\n", 1, -1000.0), {"#hb", 2, 2.0 - 0.33333}}) {
        receiver.feed(text, time * kSecond);
        EXPECT_EQ(stream->last_target + stream->half_period_ticks, kSecond);
        EXPECT_EQ(adjust->last_output, output);
    }
}

TEST_F(Gps, RecordsAreRewrittenInPlace)
{
    receiver.listen({{"connector", "fix_type"}});
    // "!" stands for a NUL that was a comma or a carriage return; an unknown sentence is not cut.
    const std::pair<std::string, std::string> rows[] = {{"$GPGSA,A,2,3", "$GPGSA!A!2!3"},
                                                        {"$GPGSA,A,2,3\r\n", "$GPGSA!A!2!3!\n"},
                                                        {"$GPGSA,A,2,3\r,7", "$GPGSA!A!2!3!,7"},
                                                        {"$GPZZZ,A,2\r\n", "$GPZZZ,A,2!\n"},
                                                        {"", ""}};
    for (auto [text, left] : rows) {
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

TEST_F(Gps, NumbersNeedNoMemory)
{
    for (const auto &[name, value] : channelsOf("Garmin GPS"))
        receiver.listen({{"connector", name}});
    memory.reset();
    for (int64_t fix = 0; fix < 300; fix++)
        for (const char *text : {"$GPRMC", "$GPGGA", "$GPGSA", "#pps\r\n", "#hb\r\n"})
            receiver.feed(text[0] == '#' ? text : sentence(text), fix * kSecond / 10);
    EXPECT_EQ(memory.count(), 0);

    receiver.listen({{"connector", "utc_date_time"}, {"data_type", "message_raw"}});
    receiver.listen({{"connector", "utc_day"}});
    memory.failAt(1); // the frame; its text has been made
    EXPECT_EQ(receiver.say(sentence("$GPRMC"), 40 * kSecond).back(), 15.0);
    EXPECT_EQ(errors.texts().size(), 1u);
}

} // namespace
} // namespace vu::test
