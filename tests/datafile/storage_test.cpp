#include <cmath>
#include <random>

#include "tests/datafile/data_file.h"
#include "tests/support/allocation_faults.h"

using namespace vu::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

struct Scaling {
    double scale, offset;
};

// Stored by the book, in whole numbers: halves away from zero, stopped at 32 or 64 bits, then cut.
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
    const long double size = std::fabs(static_cast<long double>(quotient)), whole = std::floor(size);
    const long double rounded = std::copysign(size - whole >= 0.5L ? whole + 1 : whole, quotient);
    return static_cast<T>(static_cast<__int128>(std::clamp(rounded, least, most)));
}

template <typename T, typename Source>
std::vector<T> slowEncoded(const std::vector<Source> &values, Scaling by, bool runs)
{
    std::vector<T> out;
    for (const Source value : values) {
        const T stored = slowStored<T>(value, by, runs);
        const size_t count = out.size() - 2; // of the open run
        const bool open = runs && !out.empty() && out.back() == stored;
        if (open && (std::is_floating_point_v<T> || out[count] != std::numeric_limits<T>::max()))
            out[count] = static_cast<T>(out[count] + 1);
        else if (runs)
            out.insert(out.end(), {T(1), stored});
        else
            out.push_back(stored);
    }
    return out;
}

template <typename Source>
std::vector<Source> edgeValues()
{
    std::vector<Source> values;
    const char *edges = "0 0.5 1.5 2.5 0.49999999999999994 2.3 127.5 128 200 255.5 256 300 32767.5 65535.5 "
                        "2147483646.5 2147483647.5 3e9 4294967295.5 5e9 4503599627370495.5 9007199254740993 "
                        "9.2233720368547748e18 9223372036854775808 1.8446744073709550e19 "
                        "18446744073709551616 1e38 1e300 4.9e-324 inf";
    for (char *end; *edges != '\0'; edges = end)
        values.push_back(static_cast<Source>(std::strtod(edges, &end)));
    std::mt19937_64 random(3);
    for (int i = 0; i < 200; i++)
        values.push_back(static_cast<Source>(std::ldexp(random() % 4096, int(random() % 60) - 12)));
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
        startOver();
        channel.scale = by.scale;
        channel.offset = by.offset;
        KRDBuffer_set_storage_convert(&channel, source.c_str(), destination.c_str(), 0, encoding);
    }

    // One batch in frames of 0, 1, 2 … samples, and some in a frame and a block of their own.
    template <typename Source, typename T>
    void expectStored(const std::vector<Source> &values, Scaling by, bool runs)
    {
        channel.index = nullptr;
        std::string expected, stored;
        const auto flush = [&](const std::vector<Source> &batch) {
            flushChannels();
            const auto encoded = slowEncoded<T>(batch, by, runs);
            EXPECT_EQ(channel.position - channel.prev_position, static_cast<int64_t>(encoded.size()));
            expected += bytesOf(encoded);
        };
        for (size_t at = 0, length = 0; at < values.size(); at += length++)
            queue(channel, std::vector(&values[at], &values[std::min(at + length, values.size())]));
        flush(values);
        for (size_t i = 0; i < std::min<size_t>(values.size(), 1000); i += 3) {
            queue<Source>(channel, {values[i]});
            flush({values[i]});
        }
        for (const Block &block : blocks())
            stored += block.payload;
        EXPECT_TRUE(stored == expected);
    }

    template <typename Source, typename T>
    void stores(const std::string &type)
    {
        SCOPED_TRACE(nameOf<Source>() + " to " + type);
        const std::string source = "sequential_" + nameOf<Source>(), destination = "sequential_" + type;
        std::vector<Source> plain = edgeValues<Source>(),
                            twice(70000, 5); // more than 8 and 16 bits can count
        for (const Source value : plain)
            twice.insert(twice.end(), 2, value);
        plain.push_back(NAN);
        for (const Scaling by : {Scaling{1, 0}, Scaling{0.5, 1}, Scaling{-0.01, 3}, Scaling{0, 0}}) {
            convertFrom(source, destination, nullptr, by);
            expectStored<Source, T>(plain, by, false);
            convertFrom(source, destination, "rle", by);
            if (by.scale != 0 || std::is_integral_v<T>) // a NaN may come first: told below
                expectStored<Source, T>(twice, by, true);
        }
        convertFrom("message_" + nameOf<Source>(), "message_" + type, "rle", {0.5, 1});
        EXPECT_THAT(log.lines(), ElementsAre(testing::Pair(12, HasSubstr("message_" + nameOf<Source>()))));
        std::string expected;
        for (const Source value : plain) {
            const std::string stamp = bytesOf<uint64_t>({expected.size()}),
                              entry = stamp + bytesOf<Source>({value});
            Frame *frame = queue(channel, std::vector<char>(entry.begin(), entry.end()));
            frame->element_size = std::exchange(frame->length, 1);
            expected += stamp + bytesOf<T>({slowStored<T>(value, {0.5, 1}, false)});
        }
        flushChannels();
        EXPECT_TRUE(blocks().at(0).payload == expected);
    }
    template <typename Source, typename... T>
    void storesAsEach()
    {
        (stores<Source, T>(nameOf<T>()), ...);
    }
};

} // namespace

TEST_F(Storage, EveryEntryOfTheTableStoresToTheBit)
{
    storesAsEach<float, uint8_t, int8_t, uint16_t, int16_t, uint32_t, int32_t, uint64_t, int64_t, double>();
    storesAsEach<double, uint8_t, int8_t, uint16_t, int16_t, uint32_t, int32_t, uint64_t, int64_t, float>();
    stores<float, int32_t>("float32"); // a type's own name is no conversion to itself
    stores<double, int64_t>("float64");
}

TEST_F(Storage, NamesChooseTheConvertor)
{
    constexpr uint32_t kNone = 0, kUntouched = 4;
    struct Row {
        std::string source, destination;
        int32_t sequential;
        const char *encoding;
        uint32_t element_size, rle_extra;
    };
    const std::string f32 = "sequential_float32", f64 = "sequential_float64";
    for (const auto &[source, destination, sequential, encoding, element_size, rle_extra] :
         {Row{f32, "sequential_int16", 0, "rle", 2, 2}, Row{f32, "sequential_int16", 0, nullptr, 2, 0},
          Row{f64, "sequential_uint8", 0, "RLE", 1, 0}, Row{f64, "sequential_uint8", 0, "rle ", 1, 0},
          Row{"message_float32_ntp", "message_int64", 0, nullptr, 8, 0},
          Row{"message_float32", "message_int64", 1, "rle", 8, 2}, // bare values, says the flag
          Row{"message_float", "message_uint8", 0, "rle", 1, 0},
          Row{"message_raw", "message_uint8", 0, "rle", kUntouched, 2},
          Row{"message_float32", "sequential_int16", 1, "", kUntouched, 2},
          Row{f32, "sequential_int24", 0, "", kNone, 2}, Row{f32, "sequential_int", 0, "", kNone, 2},
          Row{f32, "sequential_int4294967312", 0, "", kNone, 2}}) {
        SCOPED_TRACE(source + " to " + destination);
        convertFrom(f64, f32, "rle");
        libvuSetError("none");
        const auto filter = channel.pipe_filter;
        KRDBuffer_set_storage_convert(&channel, source.c_str(), destination.c_str(), sequential, encoding);
        EXPECT_EQ(channel.convertor->element_size, element_size == kNone ? kUntouched : element_size);
        EXPECT_EQ(channel.rle_extra, rle_extra);
        EXPECT_EQ(channel.pipe_filter == nullptr, element_size == kNone);
        EXPECT_TRUE(element_size != kUntouched || channel.pipe_filter == filter);
        const auto refusal = "No storage convertor to convert from '" + source + "' to '" + destination + "'";
        EXPECT_EQ(element_size == kNone, refusal == libvuLastError());
    }
}

// A NaN opens a run of its own, and the first of a batch leaves a run of none before it.
TEST_F(Storage, BatchThatCannotBeHeldIsDroppedWithoutABlock)
{
    const float nan = NAN;
    const std::string random = "RLE channel is too random for RLE encoding.";
    const std::string overrun = "Storage datatype converted channel frame buffer overrun.";
    struct Row {
        const char *encoding;
        std::vector<float> values; // a frame each
        uint32_t lengthened;       // samples of the last frame, which came in with one
        std::string failure;
        std::vector<size_t> elements; // of the blocks, that of a last batch of two alike among them
    };
    for (const auto &[encoding, values, lengthened, failure, elements] :
         {Row{"rle", {nan}, 1, random, {2}}, Row{"rle", {1, 2, 3}, 1, random, {2}},
          Row{"rle", {1, 2, 3, 4, 5, 6, 7}, 1, random, {2}}, Row{"rle", {nan, 1, 1}, 1, random, {2}},
          Row{"rle", {1, 1, 2}, 1, "none", {4, 2}}, Row{"rle", {nan, 1, 1, 1}, 1, "none", {6, 2}},
          Row{"rle", {1, 1}, 3, "none", {2, 2}}, Row{"plain", {1, 2}, 2, "none", {3, 2}},
          Row{"plain", {1, 2}, 3, overrun, {2}}}) {
        convertFrom("sequential_float32", "sequential_float64", encoding);
        libvuSetError("none");
        for (const float value : values) {
            queue<float>(channel, {value, value, value})->length = 1;
            channel.pipe->queued -= 2;
        }
        channel.pipe->newest->length = lengthened;
        flushChannels();
        EXPECT_EQ(libvuLastError(), failure);
        EXPECT_EQ(index.buffer.size, 12 * (elements.size() - 1));
        queue<float>(channel, {4, 4});
        flushChannels();
        std::vector<size_t> stored;
        for (const Block &block : blocks())
            stored.push_back(block.payload.size() / sizeof(double));
        EXPECT_EQ(stored, elements);
        EXPECT_EQ(blocks().back().payload, bytesOf<double>({encoding[0] == 'r' ? 2.0 : 4.0, 4.0}));
    }
}

// Frames that are no whole records, hold nothing, or hold more than a frame can be made for.
TEST_F(Storage, OddFramesAreReadNoFurtherThanTheyReach)
{
    convertFrom("message_float", "message_uint8", nullptr);
    queue(channel, std::vector<char>(30)); // two records of 12 bytes, and a piece
    queue(channel, std::vector<int32_t>(2));
    flushChannels();
    for (const char *encoding : {"message", "rle", "plain"}) {
        if (encoding[0] != 'm')
            KRDBuffer_set_storage_convert(&channel, "sequential_int16", "sequential_int8", 0, encoding);
        queue(channel, std::vector<int16_t>(1));
        queue(channel, std::vector<int16_t>());
        flushChannels();
    }
    EXPECT_THAT(blocks(), ElementsAre(Block{0, 2, std::string(18, '\0')}));
    queue(channel, std::vector<float>(2), 7)->aux[1] = 5;
    EXPECT_EQ(channel.pipe_filter(&channel), 2.0); // bytes
    EXPECT_EQ(channel.pipe->oldest->start, 7);
    EXPECT_EQ(channel.pipe->oldest->aux[1], 5u);
    Frame *huge = frameCreate(0x80000000, 4, &channel);
    huge->length = huge->capacity;
    pipeAddFrame(channel.pipe, huge);
    flushChannels();
    EXPECT_STREQ(libvuLastError(), "Storage datatype converted channel frame buffer overrun.");
}

TEST_F(Storage, SteadyStateAllocatesTheConvertedFrameAndNothingElse)
{
    AllocationFaults allocations;
    using Storing = std::pair<const char *, const char *>;
    for (const auto &[destination, encoding] :
         {Storing{"", nullptr}, {"sequential_int16", nullptr}, {"sequential_int16", "rle"}}) {
        convertFrom("sequential_float32", destination, encoding);
        for (int flush = 0; flush <= 50; flush++) {
            queue(channel, std::vector<float>(1000));
            if (flush == 0)
                allocations.reset();
            flushChannels();
        }
        EXPECT_EQ(allocations.count(), 50 + (destination[0] ? 51 : 0)); // the queued frames, too
    }
}
