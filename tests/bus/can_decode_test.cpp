// Both ways from payload to value, against a decoder that walks the field bit by bit.
#include <bit>
#include <cstring>
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
    float narrow;
    double wide;
    std::memcpy(&narrow, &bits, sizeof narrow);
    std::memcpy(&wide, &bits, sizeof wide);
    return field.length == 64 ? wide : narrow;
}

double valueOf(const Field &field, const uint8_t *payload)
{
    volatile double value = rawOf(field, payload) * field.scale; // each step rounded by itself
    value = value + field.offset;
    return value - field.zero;
}

json stanzaOf(const Field &field)
{
    return {{"db_data_format", field.format}, {"db_bit_start", field.start}, {"db_bit_length", field.length},
            {"scale", field.scale},           {"offset", field.offset},      {"rezero_offset", field.zero}};
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
    std::vector<Field> fields, singles;
    for (int i = 0; i < effort(1000, 200); i++) {
        fields.push_back(randomField(random));
        ASSERT_TRUE(set.add(stanzaOf(fields.back()))) << fields.back().format << fields.back().start;
        // The single way takes a 32-bit Motorola float at a byte of its own choice.
        if (fields.back().format == "FMSB" && fields.back().length == 32 && fields.back().start % 32 != 7)
            continue;
        singles.push_back(fields.back());
        list.add(stanzaOf(fields.back()));
    }
    can_set_finalize(set.set);
    const auto same = [](double a, double b) {
        return std::memcmp(&a, &b, sizeof a) == 0 || (a != a && b != b);
    };
    const int payloads = static_cast<int>(effort(10'000, 500));
    for (int k = 0; k < payloads; k++) {
        const Batch batch = Batch().at(0, 0x100, random());
        const uint8_t *payload = batch.records[0].payload;
        const auto values = set.after(batch), alone = list.after(batch);
        for (size_t i = 0; i < fields.size(); i++)
            ASSERT_TRUE(same(values[i], valueOf(fields[i], payload))) << stanzaOf(fields[i]) << values[i];
        for (size_t i = 0; i < singles.size(); i++)
            ASSERT_TRUE(same(alone[i], valueOf(singles[i], payload))) << stanzaOf(singles[i]) << alone[i];
    }
}

TEST_F(Bus, DecodesKnownFields)
{
    const struct {
        const char *format;
        int start, length;
        uint64_t payload;
        double raw;
    } known[] = {{"ULSB", 8, 16, 0x0102030405060708, 770},  {"UMSB", 7, 16, 0x0102030405060708, 258},
                 {"UMSB", 15, 16, 0x0102030405060708, 515}, {"UMSB", 3, 12, 0x0102030405060708, 258},
                 {"SLSB", 0, 8, 0xFF00000000000000, -1},    {"ULSB", 0, 8, 0xFF00000000000000, 255},
                 {"SMSB", 7, 12, 0xFFF0000000000000, -1},   {"FMSB", 7, 32, 0x3FC0000000000000, 1.5},
                 {"FMSB", 39, 32, 0x000000003FC00000, 1.5}, {"ULSB", 0, 64, 0xFFFFFFFFFFFFFFFF, 0x1p64}};
    Set set;
    List list;
    for (const auto &field : known) {
        const json changes = {
            {"db_data_format", field.format}, {"db_bit_start", field.start}, {"db_bit_length", field.length}};
        set.add(changes);
        list.add(changes);
    }
    can_set_finalize(set.set);
    for (size_t i = 0; i < std::size(known); i++) {
        const Batch batch = Batch().at(0, 0x100, known[i].payload);
        EXPECT_EQ(set.after(batch)[i], known[i].raw) << known[i].format;
        EXPECT_EQ(list.after(batch)[i], known[i].raw) << known[i].format;
    }
}

// The single way: what the set refuses or reads otherwise.
TEST_F(Bus, SingleSignalsReadOddFieldsAsTheyAlwaysDid)
{
    const auto wide = [](uint64_t bits) { return std::bit_cast<double>(bits); };
    const auto narrow = [](uint32_t bits) { return double{std::bit_cast<float>(bits)}; };
    const struct {
        const char *format;
        double start, length, raw;
    } odd[] = {{"FLSBx", 0, 64, wide(0x0807060504030201)},
               {"FLSB", 0, 48, wide(0x0807060504030201)},
               {"FMSB", 0, 32.5, wide(0x0102030405060708)},
               {"DMSB", 3, 1, wide(0x0102030405060708)},
               {"DLSB", 1e300, 1, wide(0x0807060504030201)},
               {"FMSB", 15, 16, narrow(0x05060708)},
               {"FMSB", 7, 16, narrow(0x01020304)},
               {"FLSB", 8, 16, narrow(0x0302)},
               {"ULSB", 0, 0, 0},
               {"SMSB", 7, 0, 0},
               {"ULSB", 60, 8, 0},
               {"ULSB", -1, 8, 2},
               {"UMSB", -1, 8, 0},
               {"UMSB", -8, 8, 0},
               {"UMSB", 64, 8, 0},
               {"SLSB", 1e300, 8, 0},
               {"SMSB", -1e300, 8, 0},
               {"ULSB", 0, -5, 0},
               {"ULSB", 0, 1e300, 0},
               {"ULSB", 8.5, 7.5, 1}};
    List list;
    for (const auto &field : odd)
        list.add({{"db_data_format", field.format},
                  {"db_bit_start", field.start},
                  {"db_bit_length", field.length}});
    const auto values = list.after(Batch().at(0, 0x100, 0x0102030405060708));
    for (size_t i = 0; i < std::size(odd); i++)
        EXPECT_EQ(values[i], odd[i].raw) << odd[i].format << " " << odd[i].start << " " << odd[i].length;
}

} // namespace
