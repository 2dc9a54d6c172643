#include "vu/record/file/file_head.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fmt/format.h>
#include <limits>
#include <sys/random.h>
#include <unistd.h>

#include "libvu/core/wire_format.h"
#include "vu/command.h"
#include "vu/description/store_rules.h"

namespace vu {

namespace {

// Version 4: 122 random bits.
std::string randomUuid()
{
    uint8_t bytes[16];
    if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
        throw std::runtime_error("no random number can be had for the recording's id");
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);
    std::string text;
    for (size_t i = 0; i < sizeof bytes; i++)
        text += fmt::format("{}{:02x}", i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "", bytes[i]);
    return text;
}

std::string hostName()
{
    char name[256] = {};
    return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

bool isInteger(const std::string &element)
{
    return element.find("int") != std::string::npos;
}

bool isScaled(const Store &store)
{
    return !store.element.empty() && (isInteger(store.element) || store.run_length);
}

// The number that the conversion to an integer makes of a quotient: it stops at the bounds of 32 or 64 bits,
// and what is narrower is cut.
double storedInteger(const std::string &element, double quotient)
{
    const bool isUnsigned = element[0] == 'u';
    const uint32_t bits = 8 * elementSize(element);
    const int converted = bits == 64 ? 64 : 32;
    const double highest =
        std::ldexp(1.0, isUnsigned ? converted : converted - 1) - (converted == 32 ? 1 : 0);
    const double rounded =
        std::clamp(std::round(quotient), isUnsigned ? 0.0 : -std::ldexp(1.0, converted - 1), highest);
    if (bits >= 32)
        return rounded;
    const double range = std::ldexp(1.0, static_cast<int>(bits));
    double cut = std::fmod(rounded, range);
    if (cut < 0.0)
        cut += range;
    return !isUnsigned && cut >= range / 2 ? cut - range : cut;
}

// What the blocks hold for a value.
double storedValue(const Track &track, double value)
{
    const Store &store = track.store;
    const std::string &element = store.element.empty() ? track.element : store.element;
    const double quotient = isScaled(store) ? (value - store.offset) / store.scale : value;
    if (isInteger(element))
        return storedInteger(element, quotient);
    return element == "float32" ? double{static_cast<float>(quotient)} : quotient;
}

krd::Channel channelOf(const DataFile::Stored &stored)
{
    const Track &track = stored.track;
    const Store &store = track.store;
    const bool converted = !store.element.empty();
    krd::Channel channel;
    channel.group = static_cast<uint32_t>(stored.group);
    channel.name = track.name;
    channel.kindName = track.kind;
    channel.sampleRate = track.sample_rate;
    channel.elementName = converted ? store.element : track.element;
    channel.elementSize = !converted         ? track.element_size
                          : track.periodic() ? elementSize(store.element)
                                             : elementSize(store.element) + VU_TIME_BYTES;
    channel.encodingName = store.run_length ? "rle" : "plain";
    channel.scale = isScaled(store) ? store.scale : 1.0;
    channel.offset = isScaled(store) ? store.offset : 0.0;
    channel.unit = track.unit;
    channel.blockType = stored.record->block_type;
    channel.parent = track.parent;
    if (track.invalid && std::isfinite(storedValue(track, *track.invalid)))
        channel.invalid = storedValue(track, *track.invalid);
    channel.calibration = track.calibration;
    channel.values = track.values;
    channel.comment = track.comment;
    return channel;
}

} // namespace

std::string utcOf(const std::string &local)
{
    constexpr size_t kDigits = 9;
    tm parts{};
    parts.tm_isdst = -1; // the system's rules know whether daylight saving applied then
    const char *rest = strptime(local.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (!rest)
        return {};
    const time_t seconds = mktime(&parts);
    std::string nanoseconds;
    if (*rest == '.')
        for (rest++; *rest >= '0' && *rest <= '9' && nanoseconds.size() < kDigits; rest++)
            nanoseconds += *rest;
    tm utc{};
    if (!gmtime_r(&seconds, &utc))
        return {};
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:0<9}Z", utc.tm_year + 1900, utc.tm_mon + 1,
                       utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, nanoseconds);
}

krd::Catalogue catalogueOf(const Description &test, const std::vector<DataFile::Stored> &tracks)
{
    krd::Catalogue catalogue;
    catalogue.id = randomUuid();
    catalogue.recorder = krd::Recorder{"vu", kVersion, hostName(), {}};
    catalogue.test = test.name;
    catalogue.startTime = test.start_time;
    catalogue.startUtc = test.start_utc.empty() ? utcOf(test.start_time) : test.start_utc;
    catalogue.ticksPerSecond = VU_TICKS_PER_SECOND;
    for (const DataFile::Stored &stored : tracks)
        if (stored.group >= 0)
            catalogue.channels.push_back(channelOf(stored));
    return catalogue;
}

krd::LedgerEntry ledgerEntryOf(const DataFile::Stored &stored)
{
    krd::LedgerEntry entry;
    entry.group = stored.group < 0 ? 0 : static_cast<uint32_t>(stored.group);
    entry.name = stored.track.name;
    entry.received = stored.ledger.received;
    entry.stored = stored.ledger.stored;
    for (const auto &[cause, count] : stored.ledger.causes())
        entry.discarded[cause] = count;
    entry.never = stored.ledger.never;
    return entry;
}

krd::Closing closingOf(const DataFile &file, const char *end, double seconds)
{
    krd::Closing closing;
    closing.end = end;
    closing.seconds = seconds;
    for (const DataFile::Stored &stored : file.tracks())
        closing.ledger.push_back(ledgerEntryOf(stored));
    for (const Account &account : file.accounts())
        closing.accounts.push_back({account, {}});
    return closing;
}

Json ledgerJson(const DataFile &file)
{
    Json entries = Json::array();
    for (const DataFile::Stored &stored : file.tracks())
        entries.push_back(krd::toJson(ledgerEntryOf(stored)));
    return entries;
}

Json eventsJson(const Events &events, size_t most)
{
    std::vector<const Event *> ordered;
    for (const Event &event : events.list())
        ordered.push_back(&event);
    std::ranges::stable_sort(ordered, {}, &Event::time);
    if (ordered.size() > most) {
        const auto middle = ordered.begin() + static_cast<ptrdiff_t>(most - most / 2);
        ordered.erase(middle, middle + static_cast<ptrdiff_t>(ordered.size() - most));
    }
    Json entries = Json::array();
    for (const Event *event : ordered) {
        Json entry = {{"time", event->time}, {"kind", event->kind}, {"channel", event->channel}};
        if (event->value)
            entry["value"] = *event->value;
        entry["text"] = event->text;
        entries.push_back(std::move(entry));
    }
    return entries;
}

} // namespace vu
