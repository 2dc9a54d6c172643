// Every way from payload to value, against decoders that go bit by bit.
#include <bit>
#include <cmath>
#include <random>

#include "tests/bus/bus_fixture.h"
#include "tests/support/effort.h"

using namespace vu::test;

namespace {

struct Field {
    std::string format;
    int start, length;
    double scale, offset, zero;
};

// The field's bits from its most significant one down.
uint64_t bitsOf(const Field &field, const uint8_t *payload)
{
    const bool motorola = field.format.substr(1) == "MSB";
    int position = motorola ? field.start : field.start + field.length - 1;
    uint64_t bits = 0;
    for (int i = 0; i < field.length; i++) {
        bits = bits << 1 | (payload[position / 8] >> position % 8 & 1);
        position += motorola && position % 8 == 0 ? 15 : -1;
    }
    return bits;
}

// A number of so many bits: unsigned, signed or a float.
double numberOf(char kind, int length, uint64_t bits)
{
    if (kind == 'F')
        return length == 64 ? std::bit_cast<double>(bits) : std::bit_cast<float>(static_cast<uint32_t>(bits));
    const bool isNegative = kind == 'S' && length > 0 && bits >> (length - 1) & 1;
    const __int128 weight = static_cast<__int128>(1) << length;
    return static_cast<double>(static_cast<__int128>(bits) - (isNegative ? weight : 0));
}

double valueOf(const Field &field, const uint8_t *payload)
{
    volatile double value = numberOf(field.format[0], field.length, bitsOf(field, payload));
    value = value * field.scale; // each step rounded by itself
    value = value + field.offset;
    return value - field.zero;
}

json stanzaOf(const Field &of)
{
    json changes = field(of.format, of.start, of.length);
    changes.update({{"scale", of.scale}, {"offset", of.offset}, {"rezero_offset", of.zero}});
    return changes;
}

// A field that lies in the payload: a length of 0 counts as one.
Field randomField(std::mt19937_64 &random)
{
    const auto upTo = [&](int most) { return static_cast<int>(random() % static_cast<uint64_t>(most + 1)); };
    const char *formats[] = {"ULSB", "UMSB", "SLSB", "SMSB", "FLSB", "FMSB"};
    Field field;
    field.format = formats[upTo(5)];
    field.length = field.format[0] == 'F' ? 32 << upTo(1) : upTo(64);
    const int before = upTo(std::min(63, 64 - field.length)); // bits left over in front, from the top
    field.start = field.format.substr(1) == "MSB" ? before / 8 * 8 + 7 - before % 8 : before;
    const auto number = [&] {
        return std::ldexp(static_cast<double>(static_cast<int64_t>(random())), -upTo(70));
    };
    field.scale = number();
    field.offset = number();
    field.zero = upTo(1) ? number() : 0.0;
    return field;
}

TEST_F(Bus, DecodesEveryFieldLikeAWalkOverItsBits)
{
    std::mt19937_64 random(4);
    Signals set("set"), list("list");
    std::vector<Field> fields;
    for (int i = 0; i < effort(1000, 200); i++) {
        fields.push_back(randomField(random));
        ASSERT_TRUE(set.add(stanzaOf(fields.back())) && list.add(stanzaOf(fields.back())));
    }
    const auto same = [](double a, double b) {
        return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b) || (a != a && b != b);
    };
    can_set_finalize(set.set);
    memory.reset();
    for (int64_t payload = 0; payload < effort(10'000, 500); payload++) {
        const Batch batch = Batch().at(payload * 1'000'000, 0x100, random());
        const auto values = set.after(batch), alone = list.after(batch);
        for (size_t i = 0; i < fields.size(); i++) {
            const Field &one = fields[i];
            const double expected = valueOf(one, batch.records[0].payload);
            // The single way takes a 32-bit Motorola float at a byte of its own choice.
            const bool odd = one.format == "FMSB" && one.length == 32 && one.start % 32 != 7;
            ASSERT_TRUE(same(values[i], expected) && (odd || same(alone[i], expected)))
                << stanzaOf(one) << values[i] << " " << alone[i];
        }
    }
    EXPECT_EQ(memory.count(), 0);
}

TEST_F(Bus, MeasurementsReadEveryTypeInBothOrders)
{
    const std::tuple<const char *, char, int> types[] = {
        {"UBYTE", 'U', 8},         {"SBYTE", 'S', 8},        {"UWORD", 'U', 16},    {"SWORD", 'S', 16},
        {"ULONG", 'U', 32},        {"SLONG", 'S', 32},       {"A_UINT64", 'U', 64}, {"A_INT64", 'S', 64},
        {"FLOAT32_IEEE", 'F', 32}, {"FLOAT64_IEEE", 'F', 64}};
    constexpr size_t kLittle = 6; // of the names are little-endian, all others big
    const Strings orders = split("MSB_LAST LSB_FIRST INTEL msb_last lsb_first intel "
                                 "MSB_FIRST Intel LITTLE little_endian x",
                                 ' ');
    std::mt19937_64 random(6);
    Signals set("xcp");
    std::vector<double> expected;
    std::vector<uint8_t> message;
    for (const auto &[type, kind, length] : types)
        for (size_t k = 0; k < orders.size(); k++) {
            ASSERT_TRUE(set.add({{"xcp_data_type", type},
                                 {"xcp_byte_order", orders[k]},
                                 {"scale", 0.1},
                                 {"offset", 7},
                                 {"rezero_offset", 9}}));
            message.insert(message.end(), {0, static_cast<uint8_t>(expected.size())});
            const uint64_t bits = random() >> (64 - length);
            for (int at = 0; at < length; at += 8)
                message.push_back(static_cast<uint8_t>(bits >> (k < kLittle ? at : length - 8 - at)));
            // The product is rounded before the sum, and no zero subtracted.
            const volatile double product = numberOf(kind, length, bits) * 0.1;
            expected.push_back(product + 7);
        }
    EXPECT_EQ(set.after(message), expected);
    memory.reset();
    for (int64_t second = 0; second < 100; second++)
        set.after(message, second * 40'000'000);
    EXPECT_EQ(memory.count(), 0);
}

} // namespace
