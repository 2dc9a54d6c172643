#include "tests/bus/bus_fixture.h"

using namespace vu::test;
using testing::ElementsAre;
using testing::Pair;

namespace {

TEST_F(Bus, SingleSignalsNameTheFirstKeyThatFails)
{
    const char *keys[] = {"data_type",
                          "name",
                          "scale",
                          "offset",
                          "db_data_format",
                          "db_bit_length",
                          "db_bit_start",
                          "db_msg_id",
                          "pipe_rate",
                          "sample_rate",
                          "invalid_data_output_value",
                          "stale_data_expiration_time"};
    json rest;
    for (size_t i = std::size(keys); i-- > 0;) { // from the last key on they go one by one
        rest[keys[i]] = json::array();
        const std::string text = stanza(rest);
        EXPECT_EQ(canSignalInit(text.c_str()), nullptr);
        EXPECT_THAT(errors.texts(), ElementsAre(std::string(i < 2 ? "Channel name not known" : "s") +
                                                ":  Can not find parameter '" + keys[i] +
                                                "' or is not expected type.\n" + text + "\n"));
    }
    const std::pair<json, std::vector<std::string>> refused[] = {
        {{{"data_type", "int 64"}, {"name", 1}}, {"Unknown data type:  'int 64'"}},
        {{{"db_data_format", "FXXSB"}, {"db_bit_length", 33}, {"db_bit_start", ""}},
         {"s:  Unable to find data handler for data format 'DXXS'"}},
        {{{"name", "100%s"}, {"db_data_format", "ULS"}},
         {"100%s:  Unable to find data handler for data format 'ULS'"}},
        {{{"sample_rate", 0}}, {"Invalid sample rate: 0", "s:  Unable to create sequentializer"}}};
    for (const auto &[changes, texts] : refused) {
        EXPECT_EQ(canSignalInit(stanza(changes).c_str()), nullptr);
        EXPECT_EQ(errors.texts(), texts);
    }
    EXPECT_EQ(canSignalInit("{\"a\" 1}"), nullptr);
    EXPECT_THAT(errors.texts(), ElementsAre(testing::StartsWith("Unable to parse JSON:  parse error")));
    memory.failAt(0);
    EXPECT_EQ(canSignalInit(stanza().c_str()), nullptr);
    EXPECT_THAT(errors.texts(), ElementsAre("Unable to allocate can signal node"));
}

TEST_F(Bus, SingleSignalsKeepTheirStanza)
{
    List list;
    const CanSignalNode *node = list.add({{"name", "a%d"},
                                          {"data_type", "a float32"},
                                          {"db_data_format", "SMSBhead"},
                                          {"db_bit_start", 15},
                                          {"db_bit_length", 16},
                                          {"db_msg_id", "0x1FFFFFF21"},
                                          {"db_msg_mask", "-1"},
                                          {"rezero_offset", 2.5}});
    EXPECT_STREQ(node->name, "a%d");
    EXPECT_EQ(json::parse(node->config)["db_data_format"], "SMSBhead");
    EXPECT_EQ(node->element_size, 4u);
    EXPECT_EQ(node->left_shift, 8);
    EXPECT_EQ(node->right_shift, 48);
    EXPECT_EQ(node->id, 0x21FFFFFFu);
    EXPECT_EQ(node->mask, 0xFFFFFFFFu);
    EXPECT_EQ(node->rezero_offset, 2.5);
    EXPECT_EQ(node->handler, data_handlers[3].handler);
    EXPECT_EQ(node->sequentializer->pipes, &node->pipes);
    EXPECT_EQ(list.add({{"db_msg_mask", 7}})->mask, 0xFFFFFFFFu); // of another type: the default
}

TEST_F(Bus, SingleSignalsMatchUnderTheirMask)
{
    List list;
    list.add();
    list.add({{"db_msg_mask", "7F0"}});
    list.add({{"db_msg_id", "101"}, {"db_msg_mask", "7F0"}}); // a bit outside its mask: never
    list.add();
    EXPECT_THAT(list.after(Batch().at(-5, 0x100, 0x11ull << 56)), ElementsAre(17, 17, -1, 17));
    EXPECT_THAT(list.after(Batch().at(8000000, 0x10F, 0x22ull << 56)), ElementsAre(17, 34, -1, 17));
    EXPECT_EQ(list.samples(0), 0); // no match, no time
    EXPECT_EQ(list.samples(1), 2);
    list.after(Batch().timeOnly(16000000));
    for (const CanSignalNode *node : list.signals)
        EXPECT_EQ(node->sequentializer->sample_count, 4);
    Batch swapped = Batch().at(0x0102030405060708, 1);
    canProcessSignals(nullptr, swapped.records.data(), 1); // nobody there: the times are turned all the same
    EXPECT_EQ(vu::loadHost<int64_t>(swapped.records[0].timestamp), 0x0102030405060708);
    canProcessSignals(list.signals[0], nullptr, -1);
}

TEST_F(Bus, SingleSignalsZeroOnTopOfTheOldZero)
{
    List list;
    CanSignalNode *late = list.add({{"name", "late"}, {"db_msg_id", "200"}, {"rezero_offset", 2}});
    CanSignalNode *early = list.add({{"name", "early"}, {"rezero_offset", 2}});
    late->rezero_pending = early->rezero_pending = 1;
    const Batch batch = Batch().at(0, 0x100, 0x0A00000000000000).at(1, 0x200, 0x0B00000000000000);
    const auto callback = std::exchange(libvuRezeroCallback, nullptr); // nobody to tell: the request waits
    EXPECT_THAT(list.after(batch), ElementsAre(9, 8));
    EXPECT_EQ(early->rezero_pending, 1);
    libvuRezeroCallback = callback;
    EXPECT_THAT(list.after(batch), ElementsAre(0, 0));
    EXPECT_THAT(errors.rezeros(), ElementsAre(Pair("late", 9), Pair("early", 8))); // signal by signal
    EXPECT_THAT(list.after(batch), ElementsAre(2, 2));
    early->rezero_pending = 1;
    list.after(Batch().timeOnly(2));
    EXPECT_THAT(errors.rezeros(), ElementsAre(Pair("early", -1)));
    EXPECT_EQ(early->rezero_offset, -1);
    EXPECT_EQ(early->sequentializer->invalid_value, 0);
    EXPECT_EQ(early->rezero_pending, 0);
}

} // namespace
