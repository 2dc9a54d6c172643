// The known word that somebody probably meant.
#pragma once

#include <algorithm>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

namespace vu {

// Insertions, deletions and replacements of a character that lead from one word to the other; two neighbours
// that changed places count as one.
inline size_t editDistance(std::string_view from, std::string_view to)
{
    std::vector<size_t> beforeLast(to.size() + 1), last(to.size() + 1), row(to.size() + 1);
    std::iota(last.begin(), last.end(), size_t{0});
    for (size_t i = 1; i <= from.size(); i++) {
        row[0] = i;
        for (size_t k = 1; k <= to.size(); k++) {
            row[k] =
                std::min({last[k] + 1, row[k - 1] + 1, last[k - 1] + (from[i - 1] == to[k - 1] ? 0u : 1u)});
            if (i > 1 && k > 1 && from[i - 1] == to[k - 2] && from[i - 2] == to[k - 1])
                row[k] = std::min(row[k], beforeLast[k - 2] + 1);
        }
        beforeLast.swap(last);
        last.swap(row);
    }
    return last[to.size()];
}

// Of `known` the word nearest to `word`; empty if none is near: a third of its letters may differ.
inline std::string nearestOf(std::string_view word, const std::vector<std::string> &known)
{
    constexpr size_t kLongestWord = 100;
    std::string nearest;
    size_t least = std::max<size_t>(word.size() / 3, 1) + 1;
    if (word.size() > kLongestWord)
        return nearest;
    for (const std::string &candidate : known)
        if (const size_t distance = editDistance(word, candidate); distance < least) {
            least = distance;
            nearest = candidate;
        }
    return nearest;
}

} // namespace vu
