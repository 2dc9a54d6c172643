// The first and the last block of a data file: what its channels are, and what became of them.
#include "vu/record/file/catalogue.h"

#include "vu/description/store_rules.h"

namespace vu {

namespace {

constexpr int kTicksPerSecond = 40000000;

std::string dumped(const Json &json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool isInteger(const std::string &element)
{
    return element.find("int") != std::string::npos;
}

Json channelEntry(const DataFile::Stored &stored)
{
    const Track &track = stored.track;
    const Store &store = track.store;
    const bool converted = !store.element.empty();
    const bool scaled = converted && (isInteger(store.element) || store.run_length);
    const uint32_t time = track.periodic() ? 0 : 8; // a message keeps its time in front of the value
    Json entry = {{"group", stored.group},
                  {"name", track.name},
                  {"kind", track.kind},
                  {"sample_rate", track.sample_rate},
                  {"element", converted ? store.element : track.element},
                  {"element_size", converted ? time + elementSize(store.element) : track.element_size},
                  {"encoding", store.run_length ? "rle" : "plain"},
                  {"scale", scaled ? store.scale : 1.0},
                  {"offset", scaled ? store.offset : 0.0},
                  {"unit", track.unit},
                  {"block_type", stored.record->block_type},
                  {"has_position", true}};
    if (!track.parent.empty())
        entry["parent"] = track.parent;
    return entry;
}

} // namespace

Json ledgerJson(const DataFile &file, bool all)
{
    Json entries = Json::array();
    for (const DataFile::Stored &stored : file.tracks()) {
        if (stored.group < 0 && !all)
            continue;
        Json discarded;
        for (const auto &[cause, count] : stored.ledger.causes())
            discarded[cause] = count;
        entries.push_back({{"group", stored.group},
                           {"name", stored.track.name},
                           {"received", stored.ledger.received},
                           {"stored", stored.ledger.stored},
                           {"discarded", discarded}});
        if (stored.ledger.never)
            entries.back()["never"] = true;
    }
    return entries;
}

Json eventsJson(const Events &events)
{
    Json entries = Json::array();
    for (const Event &event : events.list()) {
        Json entry = {{"time", event.time}, {"kind", event.kind}, {"channel", event.channel}};
        if (event.value)
            entry["value"] = *event.value;
        entry["text"] = event.text;
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::string DataFile::catalogue(const Description &test) const
{
    Json channels = Json::array();
    for (const Stored &stored : tracks_)
        if (stored.group >= 0)
            channels.push_back(channelEntry(stored));
    return dumped({{"format", "krd"},
                   {"version", 1},
                   {"test", test.name},
                   {"start_time", test.start_time},
                   {"ticks_per_second", kTicksPerSecond},
                   {"channels", channels}});
}

std::string DataFile::closing(const char *end, const Events &events) const
{
    return dumped({{"format", "krd-closing"},
                   {"version", 1},
                   {"end", end},
                   {"seconds", events.seconds()},
                   {"ledger", ledgerJson(*this, false)},
                   {"events", eventsJson(events)},
                   {"index_blocks", index_blocks_}});
}

} // namespace vu
