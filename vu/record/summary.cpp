#include "vu/record/summary.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

#include "vu/command.h"
#include "vu/record/file/file_head.h"
#include "vu/support/account_json.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

void printTable(const DataFile &file)
{
    size_t width = 7;
    for (const auto &stored : file.tracks())
        width = std::max(width, printable(stored.track.name).size());
    fmt::print("{:<{}} {:>14} {:>14} {:>14}\n", "channel", width, "received", "stored", "discarded");
    for (const auto &stored : file.tracks()) {
        const Ledger &ledger = stored.ledger;
        const std::string name = printable(stored.track.name);
        if (stored.group < 0 && ledger.received == 0) { // messages that nobody listens to are not counted
            fmt::print("{:<{}} {:>14} {:>14} {:>14}  not stored\n", name, width, "-", "-", "-");
            continue;
        }
        fmt::print("{:<{}} {:>14} {:>14} {:>14}", name, width, ledger.received, ledger.stored,
                   ledger.discarded());
        for (const auto &[cause, count] : ledger.causes())
            if (count > 0)
                fmt::print("  {} {}", cause, count);
        fmt::print("\n");
    }
}

std::string neverText(const DataFile &file)
{
    std::vector<std::string> names;
    size_t signals = 0;
    for (const auto &stored : file.tracks()) {
        signals += !stored.track.parent.empty();
        if (stored.ledger.never)
            names.push_back(stored.track.name);
    }
    return vu::neverText(names, signals, false);
}

Json accountsJson(const std::vector<Account> &accounts)
{
    Json entries = Json::array();
    for (const Account &account : accounts)
        entries.push_back(accountJson(account));
    return entries;
}

// Sources that took everything need no line of their own.
void printAccounts(const std::vector<Account> &accounts)
{
    size_t elsewhere = 0;
    for (const Account &account : accounts) {
        if (account.kind.empty())
            elsewhere++;
        else if (!account.known)
            fmt::print("{}: its source gave no account\n", account.channel);
        else if (!account.left_out.empty())
            fmt::print("{}: its source read {}, sent {} and left out: {}\n", account.channel, account.read,
                       account.sent, leftOutText(account));
    }
    if (elsewhere > 0)
        fmt::print("{} of {} sources are from elsewhere: what these left out is not known.\n", elsewhere,
                   accounts.size());
}

} // namespace

int recordingStatus(const DataFile &file, const Events &events, const std::vector<Account> &accounts)
{
    const bool lost = std::any_of(file.tracks().begin(), file.tracks().end(), [](const auto &stored) {
        return stored.ledger.lost() > 0 || !stored.ledger.closes();
    });
    const bool leftOut = std::any_of(accounts.begin(), accounts.end(),
                                     [](const Account &account) { return account.lost() > 0; });
    return lost || leftOut || events.anyLoss() ? kDataMissing : kDone;
}

void printSummary(const Description &test, const DataFile &file, const Events &events,
                  const std::vector<Account> &accounts, const Outcome &outcome, bool json)
{
    const int status = recordingStatus(file, events, accounts);
    if (json) {
        Json summary = {{"test", test.name},           {"file", file.path().string()},
                        {"end", outcome.end},          {"seconds", outcome.seconds},
                        {"bytes", outcome.bytes},      {"complete", status == kDone},
                        {"ledger", ledgerJson(file)},  {"accounts", accountsJson(accounts)},
                        {"events", eventsJson(events)}};
        fmt::print("{}\n", summary.dump(2, ' ', false, Json::error_handler_t::replace));
        return;
    }
    printTable(file);
    printAccounts(accounts);
    if (const std::string never = neverText(file); !never.empty())
        fmt::print("\n{}\n", never);
    std::map<std::string, size_t> kinds;
    for (const Event &event : events.list())
        kinds[event.kind]++;
    fmt::print("\n{}: {} in {:.1f} s, ended by {}", file.path().string(), sizeText(outcome.bytes),
               outcome.seconds, outcome.end);
    for (const auto &[kind, count] : kinds)
        fmt::print(", {} x {}", count, kind);
    fmt::print("\n{}\n", status == kDone ? "Nothing was lost."
                                         : "Data is missing: the lines above and the events say what.");
}

} // namespace vu
