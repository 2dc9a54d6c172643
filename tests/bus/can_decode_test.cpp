// Both ways from payload to value, against a decoder that walks the field bit by bit.
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

double rawOf(const Field &field, const uint8_t *payload)
{
    const uint64_t bits = bitsOf(field, payload);
    if (field.format[0] == 'U')
        return static_cast<double>(bits);
    if (field.format[0] == 'S') {
        const bool negative = field.length > 0 && bits >> (field.length - 1) & 1;
        const __int128 weight = static_cast<__int128>(1) << field.length;
        return static_cast<double>(static_cast<__int128>(bits) - (negative ? weight : 0));
    }
    return field.length == 64 ? std::bit_cast<double>(bits)
                              : std::bit_cast<float>(static_cast<uint32_t>(bits));
}

double valueOf(const Field &field, const uint8_t *payload)
{
    volatile double value = rawOf(field, payload) * field.scale; // each step rounded by itself
    value = value + field.offset;
    return value - field.zero;
}

json stanzaOf(const Field &of)
{
    json changes = field(of.format, of.start, of.length);
    changes.update({{"scale", of.scale}, {"offset", of.offset}, {"rezero_offset", of.zero}});
    return changes;
}

// A field that lies in the payload: a length of 0 is one, too.
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
    Set set;
    List list;
    std::vector<Field> fields;
    for (int i = 0; i < effort(1000, 200); i++) {
        fields.push_back(randomField(random));
        ASSERT_TRUE(set.add(stanzaOf(fields.back())) && list.add(stanzaOf(fields.back())));
    }
    const auto same = [](double a, double b) {
        return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b) || (a != a && b != b);
    };
    for (int64_t payloads = effort(10'000, 500); payloads > 0; payloads--) {
        const Batch batch = Batch().at(0, 0x100, random());
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
}

// Worked out by hand; then what the single way alone takes, as it always did.
TEST_F(Bus, DecodesKnownAndOddFields)
{
    const auto wide = [](uint64_t bits) { return std::bit_cast<double>(bits); };
    const auto narrow = [](uint32_t bits) { return double{std::bit_cast<float>(bits)}; };
    constexpr size_t kKnown = 7;
    const std::tuple<const char *, double, double, double> fields[] = {
        {"ULSB", 8, 16, 770},
        {"UMSB", 15, 16, 515},
        {"UMSB", 3, 12, 258},
        {"SLSB", 0, 8, -15},
        {"SMSB", 7, 12, -240},
        {"FMSB", 39, 32, narrow(0x3FC00080)},
        {"ULSB", 0, 64, 0x8000C03F040302F1},
        {"FLSBx", 0, 64, wide(0x8000C03F040302F1)},
        {"FLSB", 0, 48, wide(0x8000C03F040302F1)},
        {"FMSB", 0, 32.5, wide(0xF10203043FC00080)},
        {"DMSB", 3, 1, wide(0xF10203043FC00080)},
        {"DLSB", 1e300, 1, wide(0x8000C03F040302F1)},
        {"FMSB", 15, 16, narrow(0x3FC00080)},
        {"FMSB", 7, 16, narrow(0xF1020304)},
        {"FLSB", 8, 16, narrow(0x0302)},
        {"ULSB", 60, 8, 0},
        {"ULSB", -1, 8, 226},
        {"UMSB", -1, 8, 0},
        {"SLSB", 1e300, 8, 0},
        {"SMSB", -1e300, 8, 0},
        {"ULSB", 0, 1e300, 0},
        {"ULSB", 8.5, 7.5, 1},
    };
    Set set;
    List list;
    for (const auto &[format, start, length, raw] : fields) {
        list.add(field(format, start, length));
        if (list.signals.size() <= kKnown)
            set.add(field(format, start, length));
    }
    const Batch batch = Batch().at(0, 0x100, 0xF10203043FC00080);
    const auto values = set.after(batch), alone = list.after(batch);
    for (size_t i = 0; i < std::size(fields); i++) {
        EXPECT_EQ(alone[i], std::get<3>(fields[i])) << i;
        EXPECT_TRUE(i >= kKnown || values[i] == alone[i]) << i;
    }
}

} // namespace
