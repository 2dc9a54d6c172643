// CAN records to periodic samples: a set of 0 to 10,000 signals, eight a message, beside the plain shape: 256
// buckets, one indirect call a signal, one sample at a time.
#include <memory>
#include <random>
#include <string>

#include "bench/plain_stream.h"
#include "libvu/bus/can_set.h"

namespace {

using vu::bench::PlainStream;

constexpr int64_t kRecords = 10'000;
constexpr int kSignalsPerMessage = 8;
constexpr double kMessagesPerSecond = 100.0;

double plainUnsigned(const uint8_t *payload, uint32_t left, uint32_t right)
{
    uint64_t word = 0;
    for (int i = 0; i < 8; i++)
        word |= uint64_t{payload[i]} << (8 * i);
    return static_cast<double>(word << left >> right);
}

double plainSigned(const uint8_t *payload, uint32_t left, uint32_t right)
{
    uint64_t word = 0;
    for (int i = 0; i < 8; i++)
        word = word << 8 | payload[i];
    return static_cast<double>(static_cast<int64_t>(word << left) >> right);
}

// A node with all that a signal has, and its stream elsewhere.
struct PlainSignal {
    CanSetSignal record;
    PlainStream *stream;
};

struct PlainGroup {
    uint32_t id, mask;
    std::vector<std::unique_ptr<PlainSignal>> signals;
};

struct PlainSet {
    void process(const CanRecord *records, int64_t count)
    {
        for (int64_t i = 0; i < count; i++) {
            int64_t ticks;
            uint32_t id;
            std::memcpy(&ticks, records[i].timestamp, sizeof ticks);
            std::memcpy(&id, records[i].id, sizeof id);
            const auto time = static_cast<double>(__builtin_bswap64(static_cast<uint64_t>(ticks)));
            for (PlainGroup *group : buckets[get_bucket_id(id)]) {
                if ((id & group->mask) != group->id)
                    continue;
                for (auto &signal : group->signals) {
                    const CanSetSignal &one = signal->record;
                    const double raw = one.extract(records[i].payload, one.left_shift, one.right_shift);
                    signal->stream->take(time, (raw * one.scale + one.offset) - one.rezero_offset);
                }
            }
        }
    }
    std::vector<PlainGroup *> buckets[CAN_SET_BUCKETS];
    std::vector<std::unique_ptr<PlainGroup>> groups;
    std::vector<PlainStream> streams;
};

std::string stanza(uint32_t id, int field, double rate)
{
    char text[512];
    std::snprintf(
        text, sizeof text,
        R"({"name":"s","scale":0.125,"offset":-3,"db_msg_id":"%X","db_bit_start":%d,"db_bit_length":8,)"
        R"("db_data_format":"%s","data_type":"float32","sample_rate":%g,"pipe_rate":1,)"
        R"("stale_data_expiration_time":1,"invalid_data_output_value":-1})",
        id, field * 8 + (field % 2 ? 7 : 0), field % 2 ? "SMSB" : "ULSB", rate);
    return text;
}

// One layout in both shapes, and a batch of records that names each message in turn.
struct Bench {
    Bench(int signals, bool extended, double rate) : set(can_set_create())
    {
        std::mt19937 random(1);
        plain.streams.reserve(static_cast<size_t>(signals));
        const int messages = std::max(1, (signals + kSignalsPerMessage - 1) / kSignalsPerMessage);
        for (int m = 0; m < messages; m++) {
            const uint32_t id = extended ? random() % 0x20000000 : static_cast<uint32_t>(m) * 13 % 2039;
            ids.push_back(__builtin_bswap32(id));
            plain.groups.push_back(std::make_unique<PlainGroup>(ids.back(), 0xFFFFFFFF));
            plain.buckets[get_bucket_id(ids.back())].push_back(plain.groups.back().get());
            for (int f = 0; f < std::min(kSignalsPerMessage, signals - m * kSignalsPerMessage); f++) {
                can_set_add_signal(set, stanza(id, f, rate).c_str());
                CanSetSignal one{};
                one.left_shift = static_cast<uint32_t>(f % 2 ? f * 8 : 56 - f * 8);
                one.right_shift = 56;
                one.extract = f % 2 ? plainSigned : plainUnsigned;
                one.scale = 0.125;
                one.offset = -3.0;
                plain.streams.emplace_back(rate, 4, static_cast<size_t>(rate), 1.0);
                plain.groups.back()->signals.push_back(
                    std::make_unique<PlainSignal>(PlainSignal{one, &plain.streams.back()}));
            }
        }
        can_set_finalize(set);
        records.resize(kRecords);
    }

    void write(double &time)
    {
        for (size_t i = 0; i < records.size(); i++) {
            time += vu::bench::kTicks / kMessagesPerSecond / static_cast<double>(ids.size());
            const uint64_t ticks = __builtin_bswap64(static_cast<uint64_t>(time)),
                           payload = i * 0x9E3779B97F4A7C15u;
            std::memcpy(records[i].timestamp, &ticks, sizeof ticks);
            std::memcpy(records[i].id, &ids[i % ids.size()], sizeof(uint32_t));
            std::memcpy(records[i].payload, &payload, sizeof payload);
            records[i].flags = 0;
        }
    }

    // Both shapes hold the same values and have written as many samples.
    bool same() const
    {
        for (uint32_t g = 0; g < set->group_count; g++)
            for (uint32_t k = 0; k < set->groups[g].count; k++) {
                const Sequentializer *ours = set->groups[g].signals[k]->sequentializer;
                const PlainStream &theirs = *plain.groups[g]->signals[k]->stream;
                if (ours->value != theirs.value || ours->sample_count != theirs.count)
                    return false;
            }
        return true;
    }

    CanSet *set; // lives as long as the process
    PlainSet plain;
    std::vector<uint32_t> ids;
    std::vector<CanRecord> records;
};

// Arguments: signals, 29-bit identifiers, samples a second; messages come at 100 Hz.
void CanSetProcess(benchmark::State &state)
{
    const auto signals = static_cast<int>(state.range(0));
    Bench bench(signals, state.range(1) != 0, static_cast<double>(state.range(2)));
    double ourTime = 0, plainTime = 0;
    bool ours = false; // the plain form runs first
    vu::bench::compare(
        state,
        [&] {
            bench.write(ours ? ourTime : plainTime);
            ours = !ours;
        },
        [&] { can_set_process(bench.set, bench.records.data(), kRecords); },
        [&] { bench.plain.process(bench.records.data(), kRecords); });
    if (!bench.same())
        state.SkipWithError("not the same values");
    state.SetItemsProcessed(state.iterations() * kRecords);
    const double decoded =
        std::min(signals, kSignalsPerMessage) * static_cast<double>(state.iterations()) * kRecords;
    state.counters["per_signal"] =
        benchmark::Counter(decoded, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(CanSetProcess)->UseManualTime()->ArgsProduct({{0, 10, 100, 1000, 10000}, {0, 1}, {100, 1000}});

} // namespace
