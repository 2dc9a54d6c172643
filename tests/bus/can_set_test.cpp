#include <bit>

#include "tests/bus/bus_fixture.h"

using namespace vu::test;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Pair;

namespace {

constexpr const char *kInvalid = "Invalid CAN signal JSON: missing or invalid parameters";
constexpr const char *kNoMemory = "Unable to allocate memory for CAN set";

TEST_F(Bus, SetsRefuseWhatIsMissingOrInvalid)
{
    std::vector<json> refused = {{{"data_type", "float"}}, mode("ULSB", 64, 1, 0)};
    for (const std::string &key : split("db_msg_id name scale offset db_bit_start db_bit_length data_type "
                                        "invalid_data_output_value stale_data_expiration_time sample_rate "
                                        "pipe_rate db_data_format",
                                        ' '))
        refused.push_back({{key, json::object()}});
    for (const char *format : {"DLSB", "DMSB", "ULSBx", "ulsb", ""})
        refused.push_back({{"db_data_format", format}});
    for (const char *format : {"FLSB", "UMSB ", "x"})
        refused.push_back({{"db_mode_format", format}});
    for (const auto &[start, length] :
         {std::pair<json, json>{60, 5}, {-1, 1}, {0, 65}, {-1, -1}, {1e10, 8}, {0, 1e300}})
        refused.push_back(field("ULSB", start, length));
    refused.push_back(field("SMSB", 56, 2));
    refused.push_back(field("FMSB", 38, 32));
    Set set;
    for (const json &changes : refused)
        refuses(set, changes, ElementsAre(kInvalid));
    refuses(set, {{"pipe_rate", 0}}, ElementsAre("Invalid pipe rate: 0", kInvalid));
    refuses(set, "[1", ElementsAre(testing::StartsWith("Invalid CAN signal JSON: parse error")));

    // A number outside 32 bits is cut if it is an integer; a format that does not shift looks at no position.
    set.add({{"db_bit_start", (1ull << 32) + 8}, {"db_bit_length", 7.9}, {"db_mode_length", "8"}});
    set.add(field("FLSB", -1, 64));
    EXPECT_EQ(set.set->group_count, 1u); // all of these have one identifier; the one without made no group
    EXPECT_THAT(set.after(Batch().at(0, 0x100, 0x0182030405060708)),
                ElementsAre(2, std::bit_cast<double>(0x0807060504038201)));
    EXPECT_EQ(set.signals[0]->state, 2);
}

TEST_F(Bus, SetsSurviveAFailureAmongTenThousandSignals)
{
    memory.failAt(0);
    EXPECT_EQ(can_set_create(), nullptr);
    Set set;
    for (int i = 0; i < 10'000; i++) {
        const json id = {{"db_msg_id", std::to_string(i / 8)}};
        for (int n = 0; i == 5000 && n < 4; n++) { // every allocation of an addition fails once
            memory.failAt(n == 2 ? 3 : n);
            refuses(set, n < 2 ? json{{"db_msg_id", "FFFF"}} : id, Contains(n < 2 ? kNoMemory : kInvalid));
        }
        ASSERT_NE(set.add(id), nullptr);
    }
    memory.failAt(0);
    can_set_finalize(set.set);
    EXPECT_THAT(errors.texts(), ElementsAre(kNoMemory));
    const auto held =
        set.after(Batch().timeOnly(1).at(4000000, 0x1249, ~0ull).at(4000000, 0x624, 0x2Aull << 56));
    for (size_t i = 0; i < 10'000; i++)
        ASSERT_EQ(held[i], i / 8 == 1249 ? 255 : i / 8 == 624 ? 42 : -1) << i;
    memory.reset();
    Batch batch;
    for (int i = 0; i < 1250; i++)
        batch.at(4000000 + i, static_cast<uint32_t>(std::stoul(std::to_string(i), nullptr, 16)), 1);
    set.after(batch);
    EXPECT_EQ(memory.count(), 0);
}

TEST_F(Bus, EveryGroupThatMatchesIsTriedInItsOrder)
{
    Set set;
    const auto add = [&](const char *id, const json &mask) {
        set.add({{"db_msg_id", id}, {"db_msg_mask", mask}});
    };
    add("0", "0");
    add("18FEF100", "03FFFF00"); // bits 24 to 28 of the id go beyond it
    add("00FEF100", "03FFFF00");
    add("18FEF117", 9); // of another type: all bits count
    add("18FEF117", nullptr);
    EXPECT_EQ(set.set->group_count, 4u);
    const auto unready = [&](CanRecord *records, uint32_t n) { can_set_process(set.set, records, n); };
    EXPECT_THAT(set.behind(Batch().at(0, 0x18FEF117, 5ull << 56), unready), Each(-1)); // not finalized
    EXPECT_THAT(set.after(Batch().at(0, 0x18FEF117, 5ull << 56)), ElementsAre(5, -1, 5, 5, 5));
    EXPECT_THAT(set.after(Batch().at(0, 0x04FEF1FE, 6ull << 56)), ElementsAre(6, -1, 6, 5, 5));
    EXPECT_THAT(set.after(Batch().at(0, 0x100, 7ull << 56)), ElementsAre(7, -1, 6, 5, 5));
    for (const auto &[id, entries] : {std::pair{0x18FEF117u, 4u}, {0x18FEF118, 3}, {0x7FF, 3}})
        EXPECT_EQ(set.set->buckets[get_bucket_id(__builtin_bswap32(id))].count, entries);
    for (uint32_t id : {0u, 0x1Fu, 0x20u, 0x1C000000u, 0x1FFFFFFFu})
        EXPECT_EQ(get_bucket_id(__builtin_bswap32(id)), (id & 0x1F) | (id >> 26 & 7) << 5);
}

TEST_F(Bus, ModesDecideWhatIsDecoded)
{
    Set set;
    for (json changes : {mode("UMSB", 7, 4, 2), mode("UMSB", 7, 4, nullptr), // no value: mode 0
                         mode("SMSB", 7, 4, -1),               // never a signed field: 4294967295
                         mode("ULSB", nullptr, nullptr, 0)}) { // no field: reads 0
        changes["db_bit_start"] = 8;
        set.add(changes);
    }
    set.signals[0]->rezero_pending = 1;
    EXPECT_THAT(set.after(Batch().at(8000000, 0x100, 0xF009ull << 48)), ElementsAre(-1, -1, -1, 9));
    EXPECT_THAT(set.samples(), ElementsAre(0, 0, 0, 2)); // another mode: no value, no time, no zero
    EXPECT_EQ(set.signals[0]->rezero_pending, 1);
    EXPECT_THAT(set.after(Batch().at(8000001, 0x100, 0x0007ull << 48)), ElementsAre(-1, 7, -1, 7));
    EXPECT_THAT(set.after(Batch().at(8000001, 0x100, 0x2F05ull << 48)), ElementsAre(0, 7, -1, 5));
    EXPECT_THAT(errors.rezeros(), ElementsAre(Pair("s", 5)));
    set.after(Batch().timeOnly(16000000));
    EXPECT_THAT(set.samples(), Each(4));
}

} // namespace
