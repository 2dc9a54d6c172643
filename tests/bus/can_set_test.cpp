#include <bit>

#include "tests/bus/bus_fixture.h"

using namespace vu::test;
using testing::Each;
using testing::ElementsAre;
using testing::Pair;

namespace {

constexpr const char *kInvalid = "Invalid CAN signal JSON: missing or invalid parameters";

TEST_F(Bus, SetsRefuseWhatIsMissingOrInvalid)
{
    std::vector<json> refused;
    for (const char *key : {"db_msg_id", "name", "scale", "offset", "db_bit_start", "db_bit_length",
                            "invalid_data_output_value", "stale_data_expiration_time", "sample_rate",
                            "pipe_rate", "data_type", "db_data_format"})
        refused.push_back({{key, json::object()}});
    for (const char *format : {"DLSB", "DMSB", "ULSBx", "ulsb", ""})
        refused.push_back({{"db_data_format", format}});
    for (const char *format : {"FLSB", "UMSB ", "x"})
        refused.push_back({{"db_mode_format", format}});
    for (const auto &[start, length] :
         {std::pair<json, json>{60, 5}, {-1, 1}, {0, 65}, {-1, -1}, {1e10, 8}, {0, 1e300}})
        refused.push_back({{"db_bit_start", start}, {"db_bit_length", length}});
    refused.push_back({{"db_data_format", "SMSB"}, {"db_bit_start", 56}, {"db_bit_length", 2}});
    refused.push_back({{"db_data_format", "FMSB"}, {"db_bit_start", 38}, {"db_bit_length", 32}});
    refused.push_back({{"db_mode_format", "ULSB"}, {"db_mode_start", 64}, {"db_mode_length", 1}});
    refused.push_back({{"data_type", "float"}});
    Set set;
    for (const json &changes : refused) {
        EXPECT_EQ(set.add(changes), nullptr) << changes;
        EXPECT_THAT(errors.texts(), ElementsAre(kInvalid)) << changes;
    }
    EXPECT_EQ(set.add({{"pipe_rate", 0}}), nullptr);
    EXPECT_THAT(errors.texts(), ElementsAre("Invalid pipe rate: 0", kInvalid));
    EXPECT_EQ(can_set_add_signal(set.set, "[1"), nullptr);
    EXPECT_THAT(errors.texts(), ElementsAre(testing::StartsWith("Invalid CAN signal JSON: parse error")));

    // A number outside 32 bits is cut if it is an integer; a format that does not shift looks at no position.
    EXPECT_NE(set.add({{"db_bit_start", (1ull << 32) + 8}, {"db_bit_length", 7.9}, {"db_mode_length", "8"}}),
              nullptr);
    EXPECT_NE(set.add({{"db_data_format", "FLSB"}, {"db_bit_start", -1}, {"db_bit_length", 64}}), nullptr);
    EXPECT_EQ(set.signals[0]->left_shift, 49u);
    EXPECT_EQ(set.signals[0]->state, 2);
    EXPECT_EQ(set.set->group_count, 1u); // all of these have one identifier; the one without made no group
    can_set_finalize(set.set);
    EXPECT_THAT(set.after(Batch().at(0, 0x100, 0x0102030405060708)),
                ElementsAre(2, std::bit_cast<double>(0x0807060504030201)));
}

TEST_F(Bus, SetsSurviveAFailureAmongTenThousandSignals)
{
    Set set;
    for (int i = 0; i < 10'000; i++) {
        const json id = {{"db_msg_id", std::to_string(i / 8)}};
        if (i == 5000) { // every allocation of the addition fails once, then a bad stanza comes
            for (int n = 0; n < 2; n++) {
                memory.failAt(n);
                EXPECT_EQ(set.add({{"db_msg_id", "FFFF"}}), nullptr);
                EXPECT_THAT(errors.texts(), ElementsAre("Unable to allocate memory for CAN set"));
            }
            memory.failAt(3);
            EXPECT_EQ(set.add(id), nullptr);
            EXPECT_EQ(errors.texts().back(), kInvalid);
            memory.failNone();
            EXPECT_EQ(set.add({{"db_msg_id", "624"}, {"scale", nullptr}}), nullptr);
            errors.texts();
        }
        ASSERT_NE(set.add(id), nullptr);
    }
    can_set_finalize(set.set);
    can_set_finalize(set.set); // again: no signal twice
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
    set.add({{"db_msg_id", "0"}, {"db_msg_mask", "0"}});
    set.add({{"db_msg_id", "18FEF100"}, {"db_msg_mask", "03FFFF00"}}); // bits 24 to 28 of the id go beyond it
    set.add({{"db_msg_id", "00FEF100"}, {"db_msg_mask", "03FFFF00"}});
    set.add({{"db_msg_id", "18FEF117"}, {"db_msg_mask", 9}});
    set.add({{"db_msg_id", "18FEF117"}});
    EXPECT_EQ(set.set->group_count, 4u);
    EXPECT_THAT(set.after(Batch().at(0, 0x18FEF117, 5ull << 56)),
                Each(-1)); // not finalized: only time passes
    can_set_finalize(set.set);
    const auto entries = [&](uint32_t id) {
        return set.set->buckets[get_bucket_id(__builtin_bswap32(id))].count;
    };
    EXPECT_EQ(entries(0x18FEF117), 4u);
    EXPECT_EQ(entries(0x18FEF118), 3u);
    EXPECT_EQ(entries(0x7FF), 3u);
    EXPECT_THAT(set.after(Batch().at(0, 0x18FEF117, 5ull << 56)), ElementsAre(5, -1, 5, 5, 5));
    EXPECT_THAT(set.after(Batch().at(0, 0x04FEF1FE, 6ull << 56)), ElementsAre(6, -1, 6, 5, 5));
    EXPECT_THAT(set.after(Batch().at(0, 0x100, 7ull << 56)), ElementsAre(7, -1, 6, 5, 5));
    for (uint32_t id : {0u, 0x1Fu, 0x20u, 0x1C000000u, 0x1FFFFFFFu})
        EXPECT_EQ(get_bucket_id(__builtin_bswap32(id)), (id & 0x1F) | (id >> 26 & 7) << 5);
}

TEST_F(Bus, ModesDecideWhatIsDecoded)
{
    Set set;
    const auto add = [&](const char *format, json start, json length, json value) {
        set.add({{"db_bit_start", 8},
                 {"db_mode_format", format},
                 {"db_mode_start", start},
                 {"db_mode_length", length},
                 {"db_mode_value", value}});
    };
    add("UMSB", 7, 4, 2);
    add("UMSB", 7, 4, nullptr);       // no value: mode 0
    add("SMSB", 7, 4, -1);            // 4294967295 is never a signed field
    add("ULSB", nullptr, nullptr, 0); // no field: reads 0
    set.signals[0]->rezero_pending = 1;
    can_set_finalize(set.set);
    EXPECT_THAT(set.after(Batch().at(8000000, 0x100, 0xF009ull << 48)), ElementsAre(-1, -1, -1, 9));
    EXPECT_EQ(set.samples(0), 0); // another mode: no value, no time, no zero
    EXPECT_EQ(set.signals[0]->rezero_pending, 1);
    EXPECT_THAT(set.after(Batch().at(8000001, 0x100, 0x0007ull << 48)), ElementsAre(-1, 7, -1, 7));
    EXPECT_THAT(set.after(Batch().at(8000001, 0x100, 0x2F05ull << 48)), ElementsAre(0, 7, -1, 5));
    EXPECT_THAT(errors.rezeros(), ElementsAre(Pair("s", 5)));
    set.after(Batch().timeOnly(16000000));
    EXPECT_EQ(set.samples(2), 4);
}

TEST_F(Bus, SetsZeroWithoutTheOldZero)
{
    Set set;
    CanSetSignal *late =
        set.add({{"name", "late"}, {"db_msg_id", "200"}, {"rezero_offset", 2}, {"scale", 3}});
    CanSetSignal *early = set.add({{"name", "early"}, {"rezero_offset", 2}, {"offset", 1}});
    can_set_finalize(set.set);
    late->rezero_pending = early->rezero_pending = 1;
    const Batch batch = Batch().at(0, 0x100, 0x0A00000000000000).at(1, 0x200, 0x0B00000000000000);
    const auto callback = std::exchange(libvuRezeroCallback, nullptr);
    EXPECT_THAT(set.after(batch), ElementsAre(31, 9));
    libvuRezeroCallback = callback;
    EXPECT_THAT(set.after(batch), ElementsAre(0, 0));
    EXPECT_THAT(errors.rezeros(), ElementsAre(Pair("early", 11), Pair("late", 33))); // record by record
    late->rezero_pending = 1;
    set.after(Batch().timeOnly(2));
    EXPECT_THAT(errors.rezeros(), ElementsAre(Pair("late", -1)));
    EXPECT_EQ(late->sequentializer->invalid_value, 0);
}

TEST_F(Bus, SetsTurnEveryTimestampAndReadNoFurther)
{
    Set set; // no signal at all
    can_set_finalize(set.set);
    for (uint32_t count : {0u, 1u, 8u, 9u, 40u}) {
        Batch batch;
        for (uint32_t i = 0; i < count; i++)
            batch.at(0x0102030405060708 - i, i, 0, static_cast<uint8_t>(i));
        batch.records.shrink_to_fit();
        can_set_process(set.set, batch.records.data(), count);
        for (uint32_t i = 0; i < count; i++)
            EXPECT_EQ(vu::loadHost<int64_t>(batch.records[i].timestamp), 0x0102030405060708 - i);
    }
    memory.failAt(0);
    EXPECT_EQ(can_set_create(), nullptr);
    set.add();
    memory.failAt(0);
    can_set_finalize(set.set);
    EXPECT_THAT(errors.texts(), ElementsAre("Unable to allocate memory for CAN set"));
    can_set_finalize(set.set);
    EXPECT_THAT(set.after(Batch().at(0, 0x100, 1ull << 56)), ElementsAre(1));
}

} // namespace
