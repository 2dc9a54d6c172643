#include "libvu/bus/xcp_set.h"

#include <bit>

#include "tests/bus/bus_fixture.h"

using namespace vu::test;
using testing::ElementsAre;

namespace {

struct Measurements : Held<XcpMeasurement> {
    ~Measurements()
    {
        release();
        xcp_ip_set_destroy(set);
    }
    XcpMeasurement *add(const json &changes = {})
    {
        return keep(xcp_ip_set_add_measurement(set, stanza(changes).c_str()));
    }
    std::vector<double> after(const std::vector<uint8_t> &message, int64_t time = 0)
    {
        xcp_ip_set_process(set, time, message.data(), static_cast<uint32_t>(message.size()));
        return values();
    }
    XcpIpSet *set = xcp_ip_set_create();
};

TEST_F(Bus, MeasurementsReadEveryTypeInBothOrders)
{
    const struct {
        const char *type;
        uint64_t bytes; // first to last, from the top
        double little, big;
    } types[] = {
        {"UBYTE", 0xFF00000000000000, 255, 255},
        {"SBYTE", 0xFF00000000000000, -1, -1},
        {"UWORD", 0x1234000000000000, 13330, 4660},
        {"SWORD", 0xFFFE000000000000, -257, -2},
        {"ULONG", 0x80010203FFFFFFFF, 0x03020180, 0x80010203},
        {"SLONG", 0x8001020300000000, 0x03020180, -2147417597.0},
        {"A_UINT64", 0xFFFFFFFFFFFFFFFF, 0x1p64, 0x1p64},
        {"A_INT64", 0xFEFFFFFFFFFFFFFF, -2.0, -72057594037927937.0},
        {"FLOAT32_IEEE", 0x3FC0000000000000, std::bit_cast<float>(0x0000C03F), 1.5},
        {"FLOAT64_IEEE", 0x3FF8000000000000, std::bit_cast<double>(uint64_t{0xF83F}), 1.5},
    };
    constexpr size_t kLittle = 7; // of the names are little-endian, all others big
    const char *orders[] = {"MSB_LAST", "LSB_FIRST", "INTEL", "msb_last", "lsb_first",     "intel",
                            "little",   "MSB_FIRST", "Intel", "LITTLE",   "little_endian", ""};
    const json changes = {{"scale", 0.1}, {"offset", 7}, {"rezero_offset", 9}};
    for (const auto &type : types) {
        Measurements set;
        std::vector<double> expected;
        std::vector<uint8_t> message;
        for (uint8_t k = 0; k < std::size(orders); k++) {
            json one = changes;
            one.update({{"xcp_data_type", type.type}, {"xcp_byte_order", orders[k]}});
            message.insert(message.end(), {0, k});
            for (int bits = static_cast<int>(set.add(one)->value_size) * 8, at = 0; at < bits; at += 8)
                message.push_back(static_cast<uint8_t>(type.bytes >> (56 - at)));
            // The product is rounded before the sum, and no zero subtracted.
            const volatile double product = (k < kLittle ? type.little : type.big) * 0.1;
            expected.push_back(product + 7);
        }
        EXPECT_EQ(set.after(message), expected) << type.type;
    }
}

TEST_F(Bus, MessagesCountUpToTheirFirstFault)
{
    Measurements set;
    for (int i = 0; i < 257; i++) // beyond three growths
        ASSERT_NE(set.add({{"xcp_data_type", i % 2 ? "UWORD" : "UBYTE"}}), nullptr);
    const std::pair<std::vector<uint8_t>, std::vector<double>> messages[] = {
        {{0, 32, 7, 1, 0, 9}, {0, 0, 7, 9}}, // the index is big-endian
        {{0, 0, 5, 0, 0, 6, 0, 1, 1, 2, 0xFF}, {6, 0x102, 0, 0}},
        {{0, 0, 5, 0, 1, 1}, {5, 0, 0, 0}}, // cut short
        {{1, 1, 5, 0, 0, 5}, {0, 0, 0, 0}}, // no such index ends the message
        {{0xFF, 0xFF}, {0, 0, 0, 0}},
        {{0xFE}, {0, 0, 0, 0}},
        {{}, {0, 0, 0, 0}}};
    for (const auto &[message, taken] : messages) {
        set.after({0, 0, 0, 0, 1, 0, 0, 0, 32, 0, 1, 0, 0});
        const auto values = set.after(message);
        EXPECT_THAT(taken, ElementsAre(values[0], values[1], values[32], values[256]));
    }
    const std::tuple<std::vector<uint8_t>, int64_t, int64_t, int64_t> times[] = {
        {{0, 1, 0, 0}, 8000000, 0, 2}, // a value moves its own stream, 0xFF moves them all
        {{0xFF}, 16000000, 4, 4},
        {{0, 0, 3}, INT64_MIN, 4, 4}};
    for (const auto &[message, time, first, second] : times) {
        set.after(message, time);
        EXPECT_EQ(std::pair(set.samples()[0], set.samples()[1]), std::pair(first, second));
    }
    EXPECT_EQ(set.values()[0], 3);
    memory.reset();
    for (int i = 0; i < 100; i++)
        set.after({0, 0, 3, 0, 1, 2, 2}, 17000000 + i * 4000000);
    EXPECT_EQ(memory.count(), 0);
}

TEST_F(Bus, ARefusedMeasurementTakesNoIndex)
{
    const auto keys =
        split("name scale offset invalid_data_output_value stale_data_expiration_time sample_rate "
              "pipe_rate data_type xcp_byte_order xcp_data_type",
              ' ');
    const std::string invalid = "Invalid XCP-over-IP configuration: ";
    Measurements set;
    json rest;
    for (size_t i = keys.size(); i-- > 0;) { // from the last key on they go one by one
        rest[keys[i]] = false;
        refuses(set, rest, ElementsAre(invalid + "missing '" + keys[i] + "'"));
    }
    refuses(set, {{"data_type", "u8"}, {"xcp_byte_order", 1}}, // judged as it is read
            ElementsAre(invalid + "invalid 'data_type'"));
    refuses(set, {{"xcp_data_type", "UBYTE "}}, ElementsAre(invalid + "invalid 'xcp_data_type'"));
    refuses(set, {{"pipe_rate", -1}},
            ElementsAre("Invalid pipe rate: -1", invalid + "failed to create sequentializer"));
    refuses(set, "{", ElementsAre(testing::StartsWith("Invalid XCP-over-IP measurement JSON: parse error")));
    EXPECT_EQ(set.set->count, 0u);
    const auto *first = set.add({{"data_type", "float32"}, {"xcp_data_type", "FLOAT64_IEEE"}});
    EXPECT_EQ(std::pair(first->element_size, first->state), std::pair(4u, 2));
    for (int n = 0; n < 2; n++) {
        set.set->capacity = 1; // full, so that an addition grows the array
        memory.failAt(n);
        refuses(set, {}, ElementsAre("Unable to allocate memory for XCP-over-IP measurement"));
    }
    memory.failAt(0);
    EXPECT_EQ(xcp_ip_set_create(), nullptr);
    xcp_ip_set_destroy(nullptr);
    EXPECT_NE(set.add(), nullptr);
    EXPECT_THAT(set.after({0, 1, 77}), ElementsAre(-1, 77));
}

} // namespace
