// Accounts of sources as JSON: the lines that a source writes, and the entries of a summary or closing block.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "vu/support/account.h"

namespace vu {

// Takes one line of a source into its account, and what it has to say besides into `notes`. A line that is
// none is passed over.
void readAccountLine(std::string_view line, Account &account, std::vector<std::string> &notes);

// "channel", "source", "known", and of a known one "final", "read", "sent", "lost", "left_out" by cause.
nlohmann::ordered_json accountJson(const Account &account);

// "unreadable 3, comments 2": what was left out, losses first; empty if nothing was.
std::string leftOutText(const Account &account);

} // namespace vu
