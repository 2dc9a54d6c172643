#include "vu/krdfile/never.h"

#include <algorithm>

#include "vu/support/texts.h"

namespace vu::krd {

std::vector<std::string> neverNames(const Recording &recording)
{
    std::vector<std::string> names;
    if (recording.closing)
        for (const LedgerEntry &entry : recording.closing->ledger)
            if (entry.never)
                names.push_back(entry.name);
    return names;
}

std::string neverText(const Recording &recording, bool all)
{
    const std::vector<std::string> names = neverNames(recording);
    size_t signals = 0;
    if (recording.catalogue)
        signals = static_cast<size_t>(std::ranges::count_if(
            recording.catalogue->channels, [](const Channel &channel) { return !channel.parent.empty(); }));
    // The ledger may list signals that are not stored, which no catalogue has.
    return vu::neverText(names, std::max(signals, names.size()), all);
}

} // namespace vu::krd
