#include "libvu/bus/xcp_set.h"

#include <bit>

#include "tests/bus/bus_fixture.h"

using namespace vu::test;
using testing::Each;
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
    const char *little[] = {"MSB_LAST", "LSB_FIRST", "INTEL", "msb_last", "lsb_first", "intel", "little"};
    const char *big[] = {"MSB_FIRST", "Intel", "LITTLE", "little_endian", ""};
    const auto check = [](const auto &type, const char *order, double raw) {
        Measurements set;
        const auto *one = set.add({{"xcp_data_type", type.type},
                                   {"xcp_byte_order", order},
                                   {"scale", 0.1},
                                   {"offset", 7},
                                   {"rezero_offset", 9}});
        std::vector<uint8_t> message(2 + one->value_size);
        for (uint32_t i = 0; i < one->value_size; i++)
            message[2 + i] = static_cast<uint8_t>(type.bytes >> (56 - 8 * i));
        const volatile double product = raw * 0.1; // rounded before the sum, and no zero subtracted
        EXPECT_THAT(set.after(message), ElementsAre(product + 7)) << type.type << " " << order;
    };
    for (const auto &type : types) {
        for (const char *order : little)
            check(type, order, type.little);
        for (const char *order : big)
            check(type, order, type.big);
    }
}

TEST_F(Bus, MessagesCountUpToTheirFirstFault)
{
    Measurements set;
    for (int i = 0; i < 257; i++) // beyond three growths
        ASSERT_NE(set.add({{"xcp_data_type", i % 2 ? "UWORD" : "UBYTE"}}), nullptr);
    const auto held = [&](const std::vector<uint8_t> &message) {
        std::vector<double> values = set.after({0, 0, 0, 0, 1, 0, 0, 0, 32, 0, 1, 0, 0});
        values = set.after(message);
        return std::vector<double>{values[0], values[1], values[32], values[256]};
    };
    EXPECT_THAT(held({0, 32, 7, 1, 0, 9}), ElementsAre(0, 0, 7, 9)); // the index is big-endian
    EXPECT_THAT(held({0, 0, 5, 0, 0, 6, 0, 1, 1, 2, 0xFF}), ElementsAre(6, 0x102, 0, 0));
    EXPECT_THAT(held({0, 0, 5, 0, 1, 1}), ElementsAre(5, 0, 0, 0)); // cut short
    EXPECT_THAT(held({1, 1, 5, 0, 0, 5}), Each(0));                 // no such index ends the message
    EXPECT_THAT(held({0xFF, 0xFF}), Each(0));
    EXPECT_THAT(held({0xFE}), Each(0));
    EXPECT_THAT(held({}), Each(0));

    set.after({0, 1, 0, 0}, 8000000);
    EXPECT_EQ(set.samples(0), 0);
    EXPECT_EQ(set.samples(1), 2);
    set.after({0xFE}, 16000000);
    EXPECT_EQ(set.samples(1), 2);
    set.after({0xFF}, 16000000);
    EXPECT_EQ(set.samples(0) + set.samples(256), 8);
    set.after({0, 0, 3}, INT64_MIN);
    EXPECT_EQ(set.signals[0]->sequentializer->value, 3);
    memory.reset();
    for (int i = 0; i < 100; i++)
        set.after({0, 0, 3, 0, 1, 2, 2}, 17000000 + i * 4000000);
    EXPECT_EQ(memory.count(), 0);
}

TEST_F(Bus, ARefusedMeasurementTakesNoIndex)
{
    const char *keys[] = {"name",
                          "scale",
                          "offset",
                          "invalid_data_output_value",
                          "stale_data_expiration_time",
                          "sample_rate",
                          "pipe_rate",
                          "data_type",
                          "xcp_byte_order",
                          "xcp_data_type"};
    const std::string invalid = "Invalid XCP-over-IP configuration: ";
    Measurements set;
    json rest;
    for (size_t i = std::size(keys); i-- > 0;) { // from the last key on they go one by one
        rest[keys[i]] = false;
        EXPECT_EQ(set.add(rest), nullptr);
        EXPECT_THAT(errors.texts(), ElementsAre(invalid + "missing '" + keys[i] + "'"));
    }
    EXPECT_EQ(set.add({{"data_type", "u8"}, {"xcp_byte_order", 1}}), nullptr); // judged as it is read
    EXPECT_EQ(set.add({{"xcp_data_type", "UBYTE "}}), nullptr);
    EXPECT_EQ(set.add({{"pipe_rate", -1}}), nullptr);
    EXPECT_THAT(errors.texts(),
                ElementsAre(invalid + "invalid 'data_type'", invalid + "invalid 'xcp_data_type'",
                            "Invalid pipe rate: -1", invalid + "failed to create sequentializer"));
    EXPECT_EQ(xcp_ip_set_add_measurement(set.set, "{"), nullptr);
    EXPECT_THAT(errors.texts(),
                ElementsAre(testing::StartsWith("Invalid XCP-over-IP measurement JSON: parse error")));
    EXPECT_EQ(set.set->count, 0u);
    const auto *first = set.add({{"data_type", "float32"}, {"xcp_data_type", "FLOAT64_IEEE"}});
    EXPECT_EQ(first->element_size, 4u);
    EXPECT_EQ(first->state, 2);
    for (int n = 0; n < 2; n++) {
        set.set->capacity = 1; // full, so that an addition grows the array
        memory.failAt(n);
        EXPECT_EQ(set.add(), nullptr);
        EXPECT_THAT(errors.texts(), ElementsAre("Unable to allocate memory for XCP-over-IP measurement"));
    }
    memory.failAt(0);
    EXPECT_EQ(xcp_ip_set_create(), nullptr);
    xcp_ip_set_destroy(nullptr);
    EXPECT_NE(set.add(), nullptr);
    EXPECT_THAT(set.after({0, 1, 77}), ElementsAre(-1, 77));
}

} // namespace
