// Pieces of work in turn, so that all see the same noise, and the ratio of their lower quartiles: what a
// neighbour on the machine takes away is no part of them.
#pragma once

#include <algorithm>
#include <chrono>
#include <vector>

namespace vu::bench {

class Turns {
public:
    // The work may have two limits.
    template <typename Limit>
    void limit(Limit &&limit, size_t which = 0)
    {
        time(limits_[which], limit);
    }
    template <typename Work>
    void work(Work &&work)
    {
        time(works_, work);
    }
    // How much of the limit's speed the work has.
    double ratio(size_t which = 0) const { return quartile(limits_[which]) / quartile(works_); }
    double lastWork() const { return works_.back(); }

private:
    template <typename Work>
    static void time(std::vector<double> &seconds, Work &&work)
    {
        const auto start = std::chrono::steady_clock::now();
        work();
        seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    static double quartile(std::vector<double> seconds)
    {
        const auto place = seconds.begin() + static_cast<ptrdiff_t>(seconds.size() / 4);
        std::nth_element(seconds.begin(), place, seconds.end());
        return *place;
    }

    std::vector<double> limits_[2], works_;
};

} // namespace vu::bench
