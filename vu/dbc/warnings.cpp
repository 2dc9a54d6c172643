// Many warnings of one kind as one line.
#include <algorithm>
#include <fmt/format.h>
#include <map>

#include "vu/dbc/dbc.h"

namespace vu::dbc {

namespace {

constexpr size_t kShown = 3; // places in a line

}

std::vector<std::string> summarised(const std::vector<Warning> &warnings)
{
    std::map<std::string_view, std::vector<const Warning *>> byKind;
    std::vector<std::string_view> kinds; // in the order of their first
    for (const Warning &warning : warnings) {
        auto &ofKind = byKind[warning.kind];
        if (ofKind.empty())
            kinds.push_back(warning.kind);
        ofKind.push_back(&warning);
    }
    std::vector<std::string> lines;
    for (const std::string_view kind : kinds) {
        const auto &all = byKind[kind];
        std::string &line = lines.emplace_back(all.front()->text);
        if (all.size() == 1)
            continue;
        line = fmt::format("{} {}: ", all.size(), kind);
        for (size_t i = 0; i < std::min(all.size(), kShown); ++i)
            line += (i > 0 ? "; " : "") + all[i]->place;
        if (all.size() > kShown)
            line += fmt::format("; and {} more (--verbose names all)", all.size() - kShown);
    }
    return lines;
}

} // namespace vu::dbc
