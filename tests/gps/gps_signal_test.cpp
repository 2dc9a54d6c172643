// From stanzas and sentences to what every signal hears.
#include <charconv>
#include <random>

#include "libvu/core/callbacks.h"
#include "tests/gps/receiver.h"
#include "tests/support/node_fixture.h"
#include "tests/support/temp_dir.h"

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
    const std::string common = kUtcChannels + std::string(kCommonChannels);
    const std::pair<const char *, std::string> tables[] = {
        {"trkr-300", common + kTrkrChannels},
        {"TRKR-300-Plus", common + kTrkrChannels + kPlusChannels},
        {"Garmin GPS", common + kGarminChannels}};
    primeUtcStatus();
    for (const auto &[type, channels] : tables) {
        Receiver full;
        std::map<std::string, double> expected, heard;
        for (const std::string &channel : split(channels, ' ')) {
            const std::string name = channel.substr(0, channel.find('='));
            expected[name] = std::strtod(channel.c_str() + name.size() + 1, nullptr);
            ASSERT_TRUE(full.listen({{"source_database", type}, {"connector", name + "_and_a_tail"}}));
        }
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

    std::string signalOf(const json &changes)
    {
        const std::string stanza = " or is not expected type.\n" + signalStanza(changes) + "\n";
        GpsSignal *signal = receiver->listen(changes);
        if (signal && signal->width < 0)
            pipeAttachPipe(&signal->pipes);
        return signal ? std::to_string(signal->width) + " " +
                            (signal->extractor ? signal->extractor->name : "none")
                      : reports(stanza);
    }
    // One after the other, with `ending` cut down to a "?".
    std::string reports(const std::string &ending)
    {
        std::string all;
        for (const std::string &text : errors.texts())
            all += (all.empty() ? "" : " ") +
                   (text.ends_with(ending) ? text.substr(0, text.size() - ending.size()) + "?" : text);
        return all;
    }
    std::string heard(const std::string &text)
    {
        std::string all;
        const std::vector<double> values = receiver->say(text, time += kSecond / 10);
        for (size_t i = 0; i < values.size(); i++)
            all += (i ? " " : "") + (receiver->signals[i]->pipes.first
                                         ? textOf(receiver->signals[i]->pipes.first)
                                         : numberText(values[i]));
        return all;
    }
    static std::string numberText(double value)
    {
        char text[32] = "-";
        return value == kSilent ? text : std::string(text, std::to_chars(text, std::end(text), value).ptr);
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
        std::string all;
        for (const auto &[name, zero] : errors.rezeros())
            all += (all.empty() ? "" : " ") + name + "=" + numberText(zero);
        return all;
    }
    std::string outcome(const std::string &said)
    {
        const std::string word = said.substr(0, said.find(' ')),
                          rest = said.substr(std::min(word.size() + 1, said.size()));
        if (word == "receiver")
            primeUtcStatus(), receiver.emplace();
        else if (word == "ask")
            std::for_each(receiver->signals.begin(), receiver->signals.end(),
                          [](auto *signal) { signal->rezero_pending = 1; });
        else if (word == "deaf" || word == "hearing")
            libvuRezeroCallback = word == "deaf" ? nullptr : callback;
        else
            return word == "signal"    ? signalOf(json::parse(rest))
                   : word == "reports" ? reports("\n")
                   : word == "zeros"   ? zeros()
                                       : heard(word == "raw" ? rest : sentence(word, rest));
        return "";
    }

    std::optional<Receiver> receiver;
    int64_t time = 0;
    decltype(libvuRezeroCallback) callback = libvuRezeroCallback;
};

TEST_F(Talk, EveryLineOfTheFile)
{
    for (const std::string &line : split(readText(VU_SOURCE_DIR "/tests/gps/talks.txt"), '\n')) {
        const size_t said = std::min(line.find(" > "), line.size());
        if (line.empty() || line[0] == '/')
            continue;
        EXPECT_EQ(outcome(line.substr(0, said)), line.substr(std::min(said + 3, line.size()))) << line;
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
    const GpsSignal *signal = receiver.listen({{"connector", "fix_type"}});
    const auto timeOf = [&] {
        return signal->sequentializer->last_target + signal->sequentializer->half_period_ticks;
    };
    receiver.feed("#hb\r\n", kSecond);
    EXPECT_EQ(timeOf(), kSecond);
    const auto *adjust = static_cast<GpsTsAdjust *>(receiver.channel.channel_aux);
    EXPECT_EQ(adjust->last_output, -1000.0);
    receiver.feed("#hb", 2 * kSecond); // not of five characters: the times of the channel go on instead
    EXPECT_EQ(timeOf(), kSecond);
    EXPECT_EQ(adjust->last_output, 2.0 - 0.33333);
}

TEST_F(Gps, RecordsAreRewrittenInPlace)
{
    receiver.listen({{"connector", "fix_type"}});
    // "!" stands for a NUL that was a comma or a carriage return; an unknown sentence is not cut.
    for (const std::string &row : split("$GPGSA,A,2,3>$GPGSA!A!2!3|$GPGSA,A,2,3\r\n>$GPGSA!A!2!3!\n|"
                                        "$GPGSA,A,2,3\r,7>$GPGSA!A!2!3!,7|$GPZZZ,A,2\r\n>$GPZZZ,A,2!\n|>",
                                        '|')) {
        const std::string text = row.substr(0, row.find('>'));
        std::string left = row.substr(text.size() + 1);
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
    for (const std::string &channel :
         split(kUtcChannels + std::string(kCommonChannels) + kGarminChannels, ' '))
        receiver.listen({{"connector", channel.substr(0, channel.find('='))}});
    memory.reset();
    for (int64_t fix = 0; fix < 300; fix++)
        for (const char *text : {"$GPRMC", "$GPGGA", "$GPGSA", "#pps\r\n", "#hb\r\n"})
            receiver.feed(text[0] == '#' ? text : sentence(text), fix * kSecond / 10);
    EXPECT_EQ(memory.count(), 0);

    GpsSignal *text = receiver.listen({{"connector", "utc_date_time"}, {"data_type", "message_raw"}});
    pipeAttachPipe(&text->pipes);
    receiver.listen({{"connector", "utc_day"}});
    memory.failAt(1); // the frame; its text has been made
    EXPECT_EQ(receiver.say(sentence("$GPRMC"), 40 * kSecond).back(), 15.0);
    EXPECT_EQ(errors.texts().size(), 1u);
}

} // namespace
} // namespace vu::test
