// The closing block: what became of everything that was received.
#include <algorithm>
#include <fmt/format.h>

#include "vu/krdfile/catalogue.h"
#include "vu/krdfile/json_fields.h"
#include "vu/support/account_json.h"

namespace vu::krd {

namespace {

LedgerEntry parseLedgerEntry(const OrderedJson &json, size_t number)
{
    const Fields fields(json, fmt::format("closing block: ledger[{}]", number));
    LedgerEntry entry;
    if (!fields.any("group").is_null())
        entry.group = fields.whole<uint32_t>("group");
    entry.name = fields.text("name");
    entry.received = fields.whole<uint64_t>("received");
    entry.stored = fields.whole<uint64_t>("stored");
    entry.discarded = fields.counts("discarded");
    entry.never = fields.flag("never", false);
    entry.rest = fields.rest();
    return entry;
}

SourceAccount parseAccount(const OrderedJson &json, size_t number)
{
    const Fields fields(json, fmt::format("closing block: accounts[{}]", number));
    SourceAccount account;
    account.channel = fields.text("channel");
    account.kind = fields.text("source", "");
    account.known = fields.flag("known");
    account.final = fields.flag("final", false);
    account.read = fields.whole<uint64_t>("read", 0);
    account.sent = fields.whole<uint64_t>("sent", 0);
    if (fields.has("left_out"))
        account.left_out = fields.counts("left_out");
    account.can_fd_wanted_out = fields.flag("can_fd_wanted_out", false);
    fields.any("lost"); // follows from the causes
    account.rest = fields.rest();
    return account;
}

} // namespace

uint64_t LedgerEntry::discardedSum() const
{
    uint64_t sum = 0;
    for (const auto &[cause, count] : discarded)
        sum += count;
    return sum;
}

const LedgerEntry *Closing::byGroup(uint32_t group) const
{
    const auto found = std::ranges::find(ledger, group, &LedgerEntry::group);
    return found == ledger.end() ? nullptr : &*found;
}

bool Closing::diskWasFull() const
{
    const auto lost = [](const LedgerEntry &entry) {
        const auto found = entry.discarded.find("disk_full");
        return found != entry.discarded.end() && found->second > 0;
    };
    return end == "disk_full" || std::ranges::any_of(ledger, lost);
}

Closing parseClosing(Bytes payload)
{
    const OrderedJson json = parseJson(payload, "closing block");
    const Fields fields(json, "closing block");
    fields.expectFormat("krd-closing");
    Closing closing;
    closing.end = fields.text("end");
    closing.seconds = fields.number("seconds");
    for (const OrderedJson &entry : fields.array("ledger"))
        closing.ledger.push_back(parseLedgerEntry(entry, closing.ledger.size()));
    if (fields.has("accounts"))
        for (const OrderedJson &account : fields.array("accounts"))
            closing.accounts.push_back(parseAccount(account, closing.accounts.size()));
    closing.events = fields.array("events");
    closing.eventsLeftOut = fields.whole<uint64_t>("events_left_out", 0);
    for (const OrderedJson &offset : fields.array("index_blocks")) {
        if (!offset.is_number_unsigned())
            fields.refuse("index_blocks", "file offsets");
        closing.indexBlocks.push_back(offset.get<uint64_t>());
    }
    closing.catalogue = fields.any("catalogue");
    closing.rest = fields.rest();
    return closing;
}

OrderedJson toJson(const LedgerEntry &entry)
{
    OrderedJson json = {{"group", entry.group == 0 ? OrderedJson() : OrderedJson(entry.group)},
                        {"name", entry.name},
                        {"received", entry.received},
                        {"stored", entry.stored},
                        {"discarded", entry.discarded}};
    if (entry.never)
        json["never"] = true;
    return withRest(std::move(json), entry.rest);
}

OrderedJson toJson(const Closing &closing)
{
    OrderedJson json = {
        {"format", "krd-closing"}, {"version", 1}, {"end", closing.end}, {"seconds", closing.seconds}};
    json["ledger"] = OrderedJson::array();
    for (const LedgerEntry &entry : closing.ledger)
        json["ledger"].push_back(toJson(entry));
    json["accounts"] = OrderedJson::array();
    for (const SourceAccount &account : closing.accounts)
        json["accounts"].push_back(withRest(accountJson(account), account.rest));
    json["events"] = closing.events;
    if (closing.eventsLeftOut > 0)
        json["events_left_out"] = closing.eventsLeftOut;
    json["index_blocks"] = closing.indexBlocks;
    if (!closing.catalogue.is_null())
        json["catalogue"] = closing.catalogue;
    return withRest(std::move(json), closing.rest);
}

} // namespace vu::krd
