#include "vu/support/account_json.h"

#include <algorithm>
#include <fmt/format.h>

namespace vu {

void readAccountLine(std::string_view line, Account &account, std::vector<std::string> &notes)
{
    constexpr size_t kMostNotes = 100;
    const nlohmann::json told = nlohmann::json::parse(line, nullptr, false);
    if (!told.is_object())
        return;
    try {
        Account next = account;
        next.known = true;
        next.final = told.value("end", false);
        next.read = told.value("read", uint64_t{0});
        next.sent = told.value("sent", uint64_t{0});
        next.left_out = told.value("left_out", std::map<std::string, uint64_t>{});
        for (const std::string &note : told.value("notes", std::vector<std::string>{}))
            if (notes.size() < kMostNotes)
                notes.push_back(note);
        account = std::move(next);
    } catch (const nlohmann::json::exception &) { // a value of another type: no line of a source of ours
    }
}

nlohmann::ordered_json accountJson(const Account &account)
{
    nlohmann::ordered_json json = {
        {"channel", account.channel}, {"source", account.kind}, {"known", account.known}};
    if (!account.known)
        return json;
    json["final"] = account.final;
    json["read"] = account.read;
    json["sent"] = account.sent;
    json["lost"] = account.lost();
    json["left_out"] = account.left_out;
    if (account.can_fd_wanted_out)
        json["can_fd_wanted_out"] = true;
    return json;
}

std::string leftOutText(const Account &account)
{
    std::string losses, others;
    for (const auto &[cause, count] : account.left_out) {
        const bool loss = std::ranges::find(Account::kLosses, cause) != Account::kLosses.end() &&
                          !(cause == "can_fd" && account.can_fd_wanted_out);
        std::string &text = loss ? losses : others;
        text += fmt::format("{}{} {}", text.empty() ? "" : ", ", cause, count);
    }
    return losses + (losses.empty() || others.empty() ? "" : ", ") + others;
}

} // namespace vu
