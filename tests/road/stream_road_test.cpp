// Two modules, one of each byte order, with 200 signals each: every value that they send is found at its
// sample.
#include "tests/road/road.h"

namespace vu::test {
namespace {

constexpr int kSignals = 200;
constexpr double kRate = 100;
constexpr double kSeconds = 3;

TEST_F(Road, EveryValueOfAModuleIsOnItsSample)
{
    for (const std::string module : {"pd806h", "pd806k"}) {
        Json names, signals;
        for (int k = 0; k < kSignals; k++) {
            names.push_back(module + "." + std::to_string(k));
            signals.push_back({{"name", names.back()},
                               {"data_type", k % 2 ? "float64" : "float32"},
                               {"scale", 1},
                               {"offset", 0},
                               {"pipe_rate", 10},
                               {"sample_rate", kRate},
                               {"invalid_data_output_value", -1},
                               {"stale_data_expiration_time", 1}});
        }
        addChannel(module, {{"data_type", "sequential_float32"}, {"connector", module}},
                   {{"kind", "sim"},
                    {"signal", "counter"},
                    {"rate", kRate},
                    {"names", names},
                    {"speed", 0},
                    {"duration", kSeconds}},
                   {{"signals", signals}});
    }
    run();
    exportAs("csv");
    // Signal k counts from k up; the last value only waits for a time behind it.
    for (const std::string module : {"pd806h", "pd806k"})
        for (int k = 0; k < kSignals; k++) {
            const auto rows = table(out / (module + "." + std::to_string(k) + ".csv"));
            ASSERT_EQ(rows.size(), static_cast<size_t>(kRate * kSeconds)) << module << k;
            for (size_t row = 1; row < rows.size(); row++) {
                ASSERT_EQ(rows[row].at(0), std::to_string(row - 1));
                ASSERT_EQ(rows[row].at(2), std::to_string(row - 1 + static_cast<size_t>(k)));
            }
        }
}

} // namespace
} // namespace vu::test
