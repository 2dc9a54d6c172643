// Stanzas that are refused, memory that runs out, and what a complete stanza leaves in the records.
#include <fmt/ranges.h>

#include "tests/bus/bus_fixture.h"

using namespace vu::test;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class Stanzas : public Bus {
protected:
    // Though the first allocations fail, one after the other: of the record and the arrays that hold it.
    void addInShortMemory(const std::string &kind, const json &changes, int failures)
    {
        for (int nth = 0; nth < failures; nth++) {
            memory.failAt(nth);
            EXPECT_FALSE(of(kind).add(changes));
            EXPECT_THAT(errors.texts(), ElementsAre(StartsWith("Unable to allocate ")));
        }
        ASSERT_TRUE(of(kind).add(changes));
    }

    Signals &of(const std::string &kind) { return kind == "set" ? set : kind == "list" ? list : xcp; }

    Signals set{"set"}, list{"list"}, xcp{"xcp"};
};

TEST_F(Stanzas, AreRefusedInClearWords)
{
    for (const Strings &parts : cases("bus/refusals.txt")) {
        const size_t space = parts[0].find(' ');
        const json all = json::parse(parts[0].substr(space));
        for (const json &changes : all.is_array() ? all : json::array({all})) {
            EXPECT_FALSE(of(parts[0].substr(0, space)).add(changes)) << parts[0];
            const std::string said = fmt::format("{}", fmt::join(errors.texts(), " | "));
            const bool begins = parts[1].ends_with('?');
            EXPECT_EQ(begins ? said.substr(0, parts[1].size() - 1) + '?' : said, parts[1]);
        }
    }
    EXPECT_EQ(xcp.xcp->count, 0u); // a refused measurement takes no index
}

TEST_F(Stanzas, NameTheFirstKeyThatFails)
{
    const std::pair<std::string, const char *> kinds[] = {
        {"list", "data_type name scale offset db_data_format db_bit_length db_bit_start db_msg_id "
                 "pipe_rate sample_rate invalid_data_output_value stale_data_expiration_time"},
        {"xcp", "name scale offset invalid_data_output_value stale_data_expiration_time sample_rate "
                "pipe_rate data_type xcp_byte_order xcp_data_type"}};
    for (const auto &[kind, keys] : kinds) {
        Strings left = split(keys, ' ');
        for (json rest; !left.empty(); left.pop_back()) { // from the last key on they go one by one
            rest[left.back()] = false;
            EXPECT_FALSE(of(kind).add(rest));
            EXPECT_THAT(errors.texts(),
                        ElementsAre(AllOf(HasSubstr(" '" + left.back() + "'"),
                                          EndsWith(kind == "list" ? "\n" + stanza(rest) + "\n" : "'"))));
        }
    }
}

TEST_F(Stanzas, FillTheRecordsOfAHost)
{
    const json changes = {{"name", "a%d"}, {"db_data_format", "SMSBhead"}, {"db_msg_id", "0x1FFFFFF21"}};
    list.add(changes);
    list.add({{"data_type", "a float32"}, {"db_msg_mask", "-1"}});
    list.add({{"db_msg_mask", 7}}); // of another type: the default
    const CanSignalNode *node = list.list.at(0);
    EXPECT_STREQ(node->name, "a%d");
    EXPECT_EQ(node->config, stanza(changes));
    EXPECT_EQ(node->id, 0x21FFFFFFu);
    EXPECT_EQ(node->handler, data_handlers[3].handler);
    EXPECT_EQ(node->sequentializer->pipes, &node->pipes);
    EXPECT_EQ(node->next->element_size, 4u);
    EXPECT_EQ(std::pair(node->next->mask, node->next->next->mask), std::pair(0xFFFFFFFFu, 0xFFFFFFFFu));
    xcp.add({{"data_type", "float32"}, {"xcp_data_type", "FLOAT64_IEEE"}});
    EXPECT_EQ(xcp.xcp->measurements[0]->element_size, 4u);
    set.add({});
    EXPECT_EQ(std::pair(xcp.xcp->measurements[0]->state, set.set->groups[0].signals[0]->state),
              std::pair(2, 2));
}

TEST_F(Stanzas, AreAddedInShortMemoryToTenThousandOthers)
{
    addInShortMemory("list", {}, 1);
    for (int i = 0; i < 257; i++)
        addInShortMemory("xcp", {}, xcp.xcp->count == xcp.xcp->capacity ? 2 : 1);
    const auto taken = xcp.after({0, 32, 7, 1, 0, 9});
    EXPECT_THAT((std::array{taken[31], taken[32], taken[256]}), ElementsAre(-1, 7, 9));
    for (int i = 0; i < 10'000; i++)
        addInShortMemory("set", {{"db_msg_id", std::to_string(i / 8)}}, i % 8 ? 1 : 2);
    memory.failAt(0);
    can_set_finalize(set.set);
    EXPECT_THAT(errors.texts(), ElementsAre("Unable to allocate memory for CAN set"));
    const auto held =
        set.after(Batch().timeOnly(1).at(4000000, 0x1249, ~0ull).at(4000000, 0x624, payloadOf("2A")));
    for (size_t i = 0; i < 10'000; i++)
        ASSERT_EQ(held[i], i / 8 == 1249 ? 255 : i / 8 == 624 ? 42 : -1) << i;
    memory.failAt(0);
    EXPECT_EQ(can_set_create(), nullptr);
    memory.failAt(0);
    EXPECT_EQ(xcp_ip_set_create(), nullptr);
    xcp_ip_set_destroy(nullptr);
}

} // namespace
