#include <cmath>
#include <random>

#include "tests/datafile/data_file.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/cases.h"

using namespace testing;
using namespace vu::test;

namespace {

struct Scaling {
    double scale, offset;
};

// The stored value from a slow reference in wide numbers: halves away from zero, stopped at 32 or 64 bits,
// then cut.
template <typename T>
T slowStored(double value, Scaling by, bool runs)
{
    const volatile double difference = value - by.offset;
    const double quotient = difference / by.scale;
    if constexpr (std::is_floating_point_v<T>)
        return static_cast<T>(runs ? quotient : value);
    if (std::isnan(quotient))
        return 0;
    constexpr bool kSigned = std::is_signed_v<T>;
    constexpr int kBits = (sizeof(T) == 8 ? 64 : 32) - kSigned;
    const long double most = std::ldexp(1.0L, kBits) - 1, least = kSigned ? -most - 1 : 0;
    const long double rounded = std::round(static_cast<long double>(quotient));
    return static_cast<T>(static_cast<__int128>(std::clamp(rounded, least, most)));
}

// A NaN has a run of its own, and the first of a batch leaves a run with a count of 0 before it. Nothing is
// stored of a batch that has no room for its runs: there must be fewer than samples, or one.
template <typename T, typename Source>
std::vector<T> slowEncoded(const std::vector<Source> &values, Scaling by, bool runs)
{
    std::vector<T> out;
    for (const Source value : values) {
        const T stored = slowStored<T>(value, by, runs);
        if (runs && out.empty())
            out = {T(0), stored};
        const size_t count = out.size() - 2; // of the open run
        if (runs && out.back() == stored &&
            (std::is_floating_point_v<T> || out[count] != std::numeric_limits<T>::max()))
            out[count] = static_cast<T>(out[count] + 1);
        else if (runs)
            out.insert(out.end(), {T(1), stored});
        else
            out.push_back(stored);
    }
    return !runs || out.size() == 2 || out.size() < 2 * values.size() ? out : std::vector<T>();
}

// Around every power of two, halves and bounds among them, and some of every size.
template <typename Source>
std::vector<Source> edgeValues()
{
    std::vector<Source> values = {0,        Source(2.3), Source(1e38), Source(1e300), Source(4.9e-324),
                                  INFINITY, NAN};
    std::mt19937 random(3);
    for (int bit = -2; bit <= 65; bit++) {
        const Source power = std::ldexp(Source(1), bit);
        values.push_back(std::nextafter(power, Source(0)));
        for (const double away : {-1.0, -0.5, 0.0, 0.5, 1.0, 3.5, random() % 4096 * 0.25})
            values.push_back(static_cast<Source>(power + away));
    }
    for (size_t i = values.size(); i-- > 0;)
        values.push_back(-values[i]);
    return values;
}

template <typename T>
std::string nameOf()
{
    const char *const kind = std::is_floating_point_v<T> ? "float" : std::is_signed_v<T> ? "int" : "uint";
    return kind + std::to_string(8 * sizeof(T));
}

class Storage : public DataFile {
protected:
    void convertFrom(const std::string &source, const std::string &destination, const char *encoding,
                     Scaling by = {1, 0})
    {
        startOver(1 << 16);
        channel.scale = by.scale;
        channel.offset = by.offset;
        KRDBuffer_set_storage_convert(&channel, source.c_str(), destination.c_str(), 0, encoding);
    }

    // Each batch comes in frames of 0, 1, 2 … samples.
    template <typename Source, typename T>
    void expectStored(const std::vector<std::vector<Source>> &batches, Scaling by, bool runs)
    {
        convertFrom("sequential_" + nameOf<Source>(), "sequential_" + type, runs ? "rle" : nullptr, by);
        std::vector<Block> expected;
        for (const auto &batch : batches) {
            auto left = batch.begin();
            for (std::ptrdiff_t length = 0; left != batch.end(); left += length++) {
                length = std::min(length, batch.end() - left);
                queue(channel, std::vector<Source>(left, left + length));
            }
            libvuSetError("none");
            flushChannels();
            const auto encoded = slowEncoded<T>(batch, by, runs);
            EXPECT_STREQ(libvuLastError(),
                         encoded.empty() ? "RLE channel is too random for RLE encoding." : "none");
            EXPECT_EQ(channel.position - channel.prev_position, static_cast<int64_t>(encoded.size()));
            if (!encoded.empty())
                expected.push_back({expected.empty() ? 0 : expected.back().end(), 2, bytesOf(encoded)});
        }
        EXPECT_EQ(difference(blocks(), expected), "");
        EXPECT_EQ(index.buffer.size, 12 * expected.size());
    }

    template <typename Source, typename T>
    void stores()
    {
        SCOPED_TRACE(nameOf<Source>() + " to " + type);
        const std::vector<Source> values = edgeValues<Source>();
        // Also more of a kind than 8 and 16 bits can count, all batches of up to six out of three samples,
        // which may be too random for runs, and some values in a batch of their own.
        std::vector<std::vector<Source>> batches = {values, std::vector<Source>(70000, 5), {1}, {2}, {NAN}};
        for (size_t i = 2; batches[i].size() < 6; i++)
            for (const Source next : {Source(1), Source(2), Source(NAN)}) {
                batches.push_back(batches[i]);
                batches.back().push_back(next);
            }
        for (size_t i = 0; i < values.size(); i++) {
            batches[1].insert(batches[1].end(), 2, values[i]);
            if (i % 3 == 0)
                batches.push_back({values[i]});
        }
        auto &lengths =
            batches.emplace_back(); // runs of every length up to 80, wherever a step of the search ends
        for (size_t length = 1; length <= 80; length++)
            lengths.insert(lengths.end(), length, Source(length % 3));
        for (const Scaling by : {Scaling{1, 0}, Scaling{0.5, 1}, Scaling{-0.01, 3}, Scaling{0, 0}}) {
            expectStored<Source, T>(batches, by, false);
            expectStored<Source, T>(batches, by, true);
        }
        log.lines();
        convertFrom("message_" + nameOf<Source>(), "message_" + type, "rle", {0.5, 1});
        EXPECT_THAT(log.lines(), ElementsAre(Pair(12, HasSubstr("message_" + nameOf<Source>()))));
        std::string expected;
        for (const Source value : values) {
            const std::string stamp = bytesOf<uint64_t>({expected.size()}),
                              entry = stamp + bytesOf<Source>({value});
            Frame *frame = queue(channel, std::vector<char>(entry.begin(), entry.end()));
            frame->element_size = std::exchange(frame->length, 1);
            expected += stamp + bytesOf<T>({slowStored<T>(value, {0.5, 1}, false)});
        }
        flushChannels();
        EXPECT_EQ(difference(blocks(), {{0, 2, expected}}), "");
    }
    template <typename Source, typename... T>
    void storesAsEach()
    {
        ((type = nameOf<T>(), stores<Source, T>()), ...);
    }
    std::string type; // of what is stored, as names have it
};

} // namespace

TEST_F(Storage, EveryEntryOfTheTableStoresToTheBit)
{
    storesAsEach<float, uint8_t, int8_t, uint16_t, int16_t, uint32_t, int32_t, uint64_t, int64_t, double>();
    storesAsEach<double, uint8_t, int8_t, uint16_t, int16_t, uint32_t, int32_t, uint64_t, int64_t, float>();
    type = "float32";
    stores<float, int32_t>(); // a type's own name is no conversion to itself
}

TEST_F(Storage, ACountOfFloatsStaysWhereOneMoreChangesNothing)
{
    convertFrom("sequential_float64", "sequential_float32", "rle");
    float runs[4] = {0x1p24f - 1, 5};
    for (int sample = 0; sample < 3; sample++) {
        EXPECT_EQ(channel.convertor->convert(&channel, runs, 5), 0);
        EXPECT_EQ(runs[0], 0x1p24f);
    }
    EXPECT_EQ(channel.convertor->convert(&channel, runs, 6), 8);
    EXPECT_THAT(runs, ElementsAre(0x1p24f, 5, 1, 6));
}

TEST_F(Storage, NamesChooseTheConvertor)
{
    for (const Case &row : cases("datafile/conversions.txt")) {
        const std::string &line = row.text;
        std::istringstream words(line);
        std::string source, destination, bare, encoding, outcome;
        std::getline(words >> source >> destination >> bare >> encoding >> std::ws, outcome);
        convertFrom("sequential_float64", "sequential_float32", "rle");
        const auto before = channel.convertor;
        libvuSetError("none");
        KRDBuffer_set_storage_convert(&channel, source.c_str(), destination.c_str(), bare == "yes",
                                      encoding == "plain" ? nullptr : encoding.c_str());
        EXPECT_EQ(!channel.pipe_filter          ? "refused"
                  : channel.convertor == before ? "kept"
                                                : std::to_string(channel.convertor->element_size) + " " +
                                                      std::to_string(channel.rle_extra),
                  outcome);
        const auto text = "No storage convertor to convert from '" + source + "' to '" + destination + "'";
        EXPECT_EQ(libvuLastError(), outcome == "refused" ? text : "none");
    }
}

TEST_F(Storage, SteadyStateAllocatesTheConvertedFrameAndNothingElse)
{
    AllocationFaults allocations;
    for (const char *encoding : {"none", "plain", "rle"}) {
        convertFrom("sequential_float32", encoding[0] == 'n' ? "" : "sequential_int16", encoding);
        for (int flush = 0; flush <= 50; flush++) {
            queue(channel, std::vector<float>(1000));
            if (flush == 0)
                allocations.reset();
            flushChannels();
        }
        EXPECT_EQ(allocations.count(), encoding[0] == 'n' ? 50 : 101); // the queued frames, too
    }
}
