// The word that somebody probably meant, out of those that are known.
#pragma once

#include <algorithm>
#include <fmt/format.h>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

namespace vu {

// Letters to put in, take out, exchange, or swap with their neighbour to make one word of the other.
inline size_t editDistance(std::string_view one, std::string_view other)
{
    std::vector<size_t> before, last, row(other.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= one.size(); ++i) {
        before = std::exchange(last, row);
        row[0] = i;
        for (size_t j = 1; j <= other.size(); ++j) {
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (one[i - 1] != other[j - 1])});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
    }
    return row.back();
}

// The known word nearest to `word`; empty if none is so near that it may have been meant. Long words are not
// compared: nobody types them, and the cost grows with the product of the lengths.
template <typename Words>
std::string nearestOf(std::string_view word, const Words &known)
{
    constexpr size_t kLongest = 100;
    const size_t most = std::max<size_t>(1, word.size() / 3);
    std::string best;
    size_t least = most + 1;
    for (const auto &candidate : known) {
        const std::string_view text = candidate;
        if (word.size() > kLongest || text.size() > kLongest)
            continue;
        const size_t distance = editDistance(word, text);
        if (distance < least)
            least = distance, best = text;
    }
    return best;
}

// "; did you mean 'verify'?", or nothing.
template <typename Words>
std::string didYouMean(std::string_view word, const Words &known)
{
    const std::string best = nearestOf(word, known);
    return best.empty() ? best : fmt::format("; did you mean '{}'?", best);
}

} // namespace vu
