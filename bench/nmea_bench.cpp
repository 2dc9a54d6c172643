// Sentences of a receiver at 10 fixes a second, in step with its pulse, through 1, 10 and all 26 channels of
// its table: adjusted, split, extracted, scaled and resampled. Beside it what the plainest loop pays for the
// fields of the 26 rows alone: split in place, one strtod() a row.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "bench/turns.h"
#include "libvu/gps/gps_signal.h"
#include "libvu/proxy/proxy_node.h"

namespace {

constexpr int kFixes = 300; // a pass is over before the scheduler looks
constexpr int64_t kSecond = 40'000'000;
const char *const kChannels =
    "latitude longitude ground_speed_km/h ground_heading altitude utc_seconds fix_quality "
    "number_of_satellites_in_use fix_type position_dilution_of_precision utc_nanoseconds "
    "utc_seconds_floor utc_minute utc_hour geoidal_height horizontal_dilution_of_precision "
    "vertical_dilution_of_precision ground_speed_knots ground_speed_m/s ground_speed_mph "
    "magnetic_variation utc_day utc_month utc_year pps_sync_active utc_seconds_floor_again";

struct Record {
    std::string bytes; // length word, room for a timestamp, text
    int64_t arrival;   // ticks
};

unsigned chance(unsigned below)
{
    static uint64_t state = 1;
    state = state * 6364136223846793005u + 1442695040888963407u;
    return static_cast<unsigned>(state >> 33) % below;
}

void add(std::vector<Record> &records, int64_t arrival, const char *text)
{
    const auto length = static_cast<uint32_t>(std::strlen(text)) + 8;
    std::string bytes(12, '\0');
    for (size_t i = 0; i < 4; i++)
        bytes[i] = static_cast<char>(length >> (24 - 8 * i));
    records.push_back({bytes + text, arrival});
}

// A pulse each second, then $GPRMC, $GPGGA and $GPGSA of each fix within a tenth of a second after it.
std::vector<Record> drive()
{
    std::vector<Record> records;
    char text[160];
    for (unsigned fix = 0; fix < kFixes; fix++) {
        const int64_t instant = kSecond + kSecond / 10 * fix;
        const unsigned seconds = fix / 10;
        char time[16], place[40];
        std::snprintf(time, sizeof time, "%02u%02u%02u.%u0", seconds / 3600, seconds / 60 % 60, seconds % 60,
                      fix % 10);
        std::snprintf(place, sizeof place, "%02u%02u.%04u,%c,%03u%02u.%04u,%c", chance(90), chance(60),
                      chance(10000), "NS"[chance(2)], chance(180), chance(60), chance(10000),
                      "EW"[chance(2)]);
        if (fix % 10 == 0)
            add(records, instant, "#pps\r\n");
        std::snprintf(text, sizeof text, "$GPRMC,%s,A,%s,%u.%u,%u.%u,150324,%u.%u,%c,A*5E\r\n", time, place,
                      chance(90), chance(10), chance(360), chance(10), chance(20), chance(10),
                      "EW"[chance(2)]);
        add(records, instant + kSecond / 20, text);
        std::snprintf(text, sizeof text, "$GPGGA,%s,%s,%u,%02u,%u.%u,%u.%u,M,%u.%u,M,,*5E\r\n", time, place,
                      1 + chance(2), 4 + chance(8), chance(4), chance(10), chance(3000), chance(10),
                      chance(60), chance(10));
        add(records, instant + kSecond / 16, text);
        std::snprintf(text, sizeof text,
                      "$GPGSA,A,3,%02u,%02u,%02u,%02u,%02u,%02u,,,,,,,%u.%u,%u.%u,%u.%u*5E\r\n",
                      1 + chance(32), 1 + chance(32), 1 + chance(32), 1 + chance(32), 1 + chance(32),
                      1 + chance(32), chance(9), chance(10), chance(9), chance(10), chance(9), chance(10));
        add(records, instant + kSecond / 14, text);
    }
    return records;
}

// One pass over the drive; times go on from pass to pass, while the receiver starts over.
struct Receiver {
    ProxyNode channel = {};
    int64_t passes = 0;

    explicit Receiver(int64_t signals)
    {
        channel.channel_aux = gpsInitializeTsAdjust();
        GpsSignal **link = &channel.gps_set;
        std::istringstream channels(kChannels);
        for (std::string name; signals-- > 0 && channels >> name; link = &(*link)->next) {
            char stanza[400];
            std::snprintf(
                stanza, sizeof stanza,
                R"({"data_type":"message_float64","name":"s","connector":"%s","pipe_rate":1,"scale":1,)"
                R"("offset":0,"sample_rate":10,"invalid_data_output_value":0,)"
                R"("stale_data_expiration_time":2})",
                name.c_str());
            *link = gpsSignalInit(&channel, stanza);
        }
    }

    void pass(const std::vector<Record> &records)
    {
        alignas(64) char record[256];
        GpsTsAdjust *fresh = gpsInitializeTsAdjust();
        std::memcpy(channel.channel_aux, fresh, sizeof *fresh);
        std::free(fresh);
        const int64_t begin = passes++ * (kFixes / 10 + 2) * kSecond;
        for (const Record &from : records) {
            std::memcpy(record, from.bytes.data(), from.bytes.size());
            gpsProcessSignals(channel.gps_set, record, begin + from.arrival);
        }
    }
};

struct SentenceFields {
    const char *text[32];
    int count = 0;

    explicit SentenceFields(char *at)
    {
        char *end = static_cast<char *>(std::memchr(at, '\r', 160));
        *end = '\0';
        text[count++] = at;
        while ((at = std::strchr(at, ',')) && count < 31) {
            *at++ = '\0';
            text[count++] = at;
        }
    }
    double operator[](int field) const { return std::strtod(text[field], nullptr); }
    double from(int field, int offset) const { return std::strtod(text[field] + offset, nullptr); }
};

double two(const char *at)
{
    return (at[0] - '0') * 10 + at[1] - '0';
}

// The numbers that the 26 rows take from one sentence, each read once a row.
double plainRows(const SentenceFields &fields)
{
    double sum = 0;
    if (!std::strcmp(fields.text[0], "$GPRMC")) {
        for (int row = 0; row < 5; row++)
            sum += fields.from(1, 4);
        sum += two(fields.text[1]) + two(fields.text[1] + 2) + two(fields.text[3]);
        sum += fields.from(3, 2) / 60.0 + fields.from(5, 3) / 60.0 + fields[8] + fields[10];
        sum += fields[7] + fields[7] * 1.852 + fields[7] * 0.5144444444444445 + fields[7] * 1.150779448023543;
        sum += two(fields.text[9]) + two(fields.text[9] + 2) + fields.from(9, 4);
    } else if (!std::strcmp(fields.text[0], "$GPGGA")) {
        for (int row = 0; row < 5; row++)
            sum += fields[6] + fields.from(1, 4);
        sum += fields[6] + fields[6] + fields[7] + fields[9] + fields[11];
    } else if (!std::strcmp(fields.text[0], "$GPGSA")) {
        sum += fields[2] + fields[fields.count - 1] + fields[fields.count - 2] + fields[fields.count - 3];
    }
    return sum;
}

template <typename Read>
void readAll(const std::vector<Record> &records, Read read)
{
    alignas(64) char record[256];
    for (const Record &from : records) {
        std::memcpy(record, from.bytes.data(), from.bytes.size());
        benchmark::DoNotOptimize(read(SentenceFields(record + 12)));
    }
}

void Sentences(benchmark::State &state)
{
    const std::vector<Record> records = drive();
    Receiver receiver(state.range(0));
    vu::bench::Turns rows, split;
    for (auto _ : state) {
        rows.limit([&] { readAll(records, plainRows); });
        rows.work([&] { receiver.pass(records); });
        split.limit([&] { readAll(records, [](const SentenceFields &fields) { return fields.count; }); });
        split.work([&] { receiver.pass(records); });
        state.SetIterationTime(rows.lastWork());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(records.size()));
    state.counters["of_strtod_26_rows"] = rows.ratio(); // above 1: faster than the limit
    state.counters["of_split_only"] = split.ratio();
}
BENCHMARK(Sentences)->Arg(1)->Arg(10)->Arg(26)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
