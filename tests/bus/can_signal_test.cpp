#include "tests/bus/bus_fixture.h"

using namespace vu::test;
using testing::Each;
using testing::ElementsAre;
using testing::Pair;

namespace {

TEST_F(Bus, SingleSignalsNameTheFirstKeyThatFails)
{
    const auto keys = split("data_type name scale offset db_data_format db_bit_length db_bit_start db_msg_id "
                            "pipe_rate sample_rate invalid_data_output_value stale_data_expiration_time",
                            ' ');
    List list;
    json rest;
    for (size_t i = keys.size(); i-- > 0;) { // from the last key on they go one by one
        rest[keys[i]] = json::array();
        refuses(list, rest,
                ElementsAre((i < 2 ? "Channel name not known" : "s") +
                            (":  Can not find parameter '" + keys[i]) + "' or is not expected type.\n" +
                            stanza(rest) + "\n"));
    }
    const std::string noHandler = ":  Unable to find data handler for data format ";
    refuses(list, field("FXXSB", "", 33), ElementsAre("s" + noHandler + "'DXXS'"));
    refuses(list, {{"name", "100%s"}, {"db_data_format", "ULS"}}, ElementsAre("100%s" + noHandler + "'ULS'"));
    refuses(list, {{"data_type", "int 64"}, {"name", 1}}, ElementsAre("Unknown data type:  'int 64'"));
    refuses(list, {{"sample_rate", 0}},
            ElementsAre("Invalid sample rate: 0", "s:  Unable to create sequentializer"));
    refuses(list, "{\"a\" 1}", ElementsAre(testing::StartsWith("Unable to parse JSON:  parse error")));
    memory.failAt(0);
    refuses(list, {}, ElementsAre("Unable to allocate can signal node"));
}

TEST_F(Bus, SingleSignalsKeepTheirStanza)
{
    List list;
    const json changes = {{"name", "a%d"}, {"db_data_format", "SMSBhead"}, {"db_msg_id", "0x1FFFFFF21"}};
    const CanSignalNode *node = list.add(changes);
    EXPECT_STREQ(node->name, "a%d");
    EXPECT_EQ(node->config, stanza(changes));
    EXPECT_EQ(node->id, 0x21FFFFFFu);
    EXPECT_EQ(node->handler, data_handlers[3].handler);
    EXPECT_EQ(node->sequentializer->pipes, &node->pipes);
    EXPECT_EQ(list.add({{"data_type", "a float32"}})->element_size, 4u);
    EXPECT_EQ(list.add({{"db_msg_mask", "-1"}})->mask, 0xFFFFFFFFu);
    EXPECT_EQ(list.add({{"db_msg_mask", 7}})->mask, 0xFFFFFFFFu); // of another type: the default
}

TEST_F(Bus, SingleSignalsMatchUnderTheirMask)
{
    List list;
    list.add();
    list.add({{"db_msg_mask", "7F0"}});
    list.add({{"db_msg_id", "101"}, {"db_msg_mask", "7F0"}}); // a bit outside its mask: never
    EXPECT_THAT(list.after(Batch().at(-5, 0x100, 0x11ull << 56)), ElementsAre(17, 17, -1));
    EXPECT_THAT(list.after(Batch().at(8000000, 0x10F, 0x22ull << 56)), ElementsAre(17, 34, -1));
    EXPECT_THAT(list.samples(), ElementsAre(0, 2, 0)); // no match, no time
    list.after(Batch().timeOnly(16000000));
    EXPECT_THAT(list.samples(), Each(4));
    List().after(Batch().at(1, 1)); // nobody there: the times are turned all the same
    canProcessSignals(list.signals[0], nullptr, -1);
}

using Zeros = std::vector<std::pair<std::string, double>>;

// Two signals with an old zero take the new one; `told` is what the host hears, `then` the same record again.
template <typename Buses>
void zeroes(ErrorTrap &errors, const Zeros &told, const std::vector<double> &then)
{
    Buses bus;
    auto *late = bus.add({{"name", "late"}, {"db_msg_id", "200"}, {"rezero_offset", 2}, {"scale", 3}});
    auto *early = bus.add({{"name", "early"}, {"rezero_offset", 2}, {"offset", 1}});
    late->rezero_pending = early->rezero_pending = 1;
    const Batch batch = Batch().at(0, 0x100, 0x0A00000000000000).at(1, 0x200, 0x0B00000000000000);
    const auto callback = std::exchange(libvuRezeroCallback, nullptr); // nobody to tell: the request waits
    EXPECT_THAT(bus.after(batch), ElementsAre(31, 9));
    libvuRezeroCallback = callback;
    EXPECT_THAT(bus.after(batch), ElementsAre(0, 0));
    EXPECT_EQ(errors.rezeros(), told);
    EXPECT_EQ(bus.after(batch), then);
    late->rezero_pending = 1;
    bus.after(Batch().timeOnly(2));
    EXPECT_EQ(errors.rezeros(), (Zeros{{"late", -1}}));
    EXPECT_EQ(late->rezero_offset, -1);
    EXPECT_EQ(late->sequentializer->invalid_value, 0);
    EXPECT_EQ(late->rezero_pending, 0);
}

TEST_F(Bus, SetsZeroRecordByRecordAndSingleSignalsOnTopOfTheOldZero)
{
    zeroes<Set>(errors, {{"early", 11}, {"late", 33}}, {0, 0});
    zeroes<List>(errors, {{"late", 31}, {"early", 9}}, {2, 2});
}

} // namespace
