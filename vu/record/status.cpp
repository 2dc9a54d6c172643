#include "vu/record/status.h"

#include <algorithm>
#include <fmt/format.h>

#include "vu/support/texts.h"

namespace vu {

std::string statusText(const Description &test, const DataFile &file, const Events &events,
                       const std::vector<std::unique_ptr<LiveChannel>> &channels)
{
    const auto there = std::count_if(channels.begin(), channels.end(),
                                     [](const auto &channel) { return !channel->ended(); });
    uint64_t lost = 0;
    for (const DataFile::Stored &stored : file.tracks())
        lost += stored.ledger.lost();
    std::string text = fmt::format("status: {:.1f} s", events.seconds());
    if (test.duration > 0.0)
        text += fmt::format(" of {:g} s", test.duration);
    text += fmt::format(", {} in {}, {} of {} sources are there, {} events\n", sizeText(file.writtenBytes()),
                        file.path().string(), there, channels.size(), events.list().size());
    if (lost > 0)
        text += fmt::format("status: {} samples or messages were lost\n", lost);
    return text;
}

} // namespace vu
