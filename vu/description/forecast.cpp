#include "vu/description/forecast.h"

#include <algorithm>
#include <sys/statvfs.h>

#include "libvu/datafile/krd_format.h"
#include "vu/description/store_rules.h"

namespace vu {

namespace {

void add(Forecast &sum, const Store &store, double rate, double pipeRate, uint32_t bytes,
         double flushInterval)
{
    if (!store.wanted)
        return;
    sum.stored_tracks++;
    if (rate <= 0.0) {
        sum.irregular_tracks++;
        return;
    }
    // A block each flush, or each frame where those are rarer. Runs are not foreseen: counted as plain.
    const double blocks = std::min({1.0 / flushInterval, pipeRate, rate});
    const double framing = KRD_FRAMING_SIZE + KRD_POSITION_SIZE + KRD_INDEX_ENTRY_SIZE;
    sum.bytes_per_second +=
        rate * (store.element.empty() ? bytes : elementSize(store.element)) + blocks * framing;
}

} // namespace

Forecast forecast(const Description &test)
{
    Forecast sum;
    for (const Channel &channel : test.channels) {
        add(sum, channel.store, channel.sample_rate, channel.pipe_rate, sizeOf(channel.values),
            test.flush_interval);
        for (const Signal &signal : channel.signals)
            add(sum, signal.store, signal.sample_rate, signal.pipe_rate, sizeOf(signal.values),
                test.flush_interval);
    }
    for (const Monitor &monitor : test.monitors)
        add(sum, monitor.store, monitor.rate, monitor.rate, sizeOf(ValueType::kFloat64), test.flush_interval);
    struct statvfs disk {};
    const auto folder = test.file.has_parent_path() ? test.file.parent_path() : std::filesystem::path(".");
    if (statvfs(folder.c_str(), &disk) == 0)
        sum.free_bytes = static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize);
    return sum;
}

} // namespace vu
