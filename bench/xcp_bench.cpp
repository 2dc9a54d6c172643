// XCP entries to periodic samples, beside a plain walk over the same message.
#include <string>

#include "bench/plain_stream.h"
#include "libvu/bus/xcp_set.h"

namespace {

using vu::bench::PlainStream;

constexpr int kMeasurements = 100;
constexpr int64_t kMessages = 100;
constexpr double kRate = 1000.0;

struct PlainMeasurement {
    XcpReadValue read;
    uint32_t size;
    double scale, offset;
    PlainStream stream;
};

template <typename T>
double plainRead(const uint8_t *bytes)
{
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return static_cast<double>(value);
}

void plainProcess(std::vector<PlainMeasurement> &set, double time, const uint8_t *data, size_t length)
{
    while (length >= 2) {
        const size_t index = size_t{data[0]} << 8 | data[1];
        if (index >= set.size())
            return;
        PlainMeasurement &one = set[index];
        if (length < one.size + 2)
            return;
        one.stream.take(time, one.read(data + 2) * one.scale + one.offset);
        data += one.size + 2;
        length -= one.size + 2;
    }
}

// Argument: samples a value.
void XcpProcess(benchmark::State &state)
{
    const struct {
        const char *name;
        XcpReadValue read;
        uint32_t size;
    } types[] = {{"UWORD", plainRead<uint16_t>, 2},
                 {"SLONG", plainRead<int32_t>, 4},
                 {"FLOAT32_IEEE", plainRead<float>, 4},
                 {"FLOAT64_IEEE", plainRead<double>, 8}};
    XcpIpSet *set = xcp_ip_set_create(); // lives as long as the process
    std::vector<PlainMeasurement> plain;
    std::vector<uint8_t> message;
    for (int i = 0; i < kMeasurements; i++) {
        const auto &type = types[i % 4];
        char text[512];
        std::snprintf(text, sizeof text,
                      R"({"name":"m","scale":0.5,"offset":1,"invalid_data_output_value":-1,"sample_rate":%g,)"
                      R"("stale_data_expiration_time":1,"pipe_rate":1,"data_type":"float32",)"
                      R"("xcp_byte_order":"INTEL","xcp_data_type":"%s"})",
                      kRate, type.name);
        xcp_ip_set_add_measurement(set, text);
        plain.push_back(
            {type.read, type.size, 0.5, 1.0, PlainStream(kRate, 4, static_cast<size_t>(kRate), 1.0)});
        message.insert(message.end(), {0, static_cast<uint8_t>(i)});
        message.insert(message.end(), type.size, static_cast<uint8_t>(i));
    }
    const auto step = static_cast<int64_t>(vu::bench::kTicks / kRate) * state.range(0);
    int64_t ourTime = 0, plainTime = 0;
    vu::bench::compare(
        state, [] {},
        [&] {
            for (int64_t i = 0; i < kMessages; i++)
                xcp_ip_set_process(set, ourTime += step, message.data(),
                                   static_cast<uint32_t>(message.size()));
        },
        [&] {
            for (int64_t i = 0; i < kMessages; i++)
                plainProcess(plain, static_cast<double>(plainTime += step), message.data(), message.size());
        });
    for (uint32_t i = 0; i < set->count; i++)
        if (set->measurements[i]->sequentializer->value != plain[i].stream.value)
            state.SkipWithError("not the same values");
    state.SetItemsProcessed(state.iterations() * kMessages * kMeasurements);
}
BENCHMARK(XcpProcess)->UseManualTime()->Arg(1)->Arg(10)->Arg(100);

} // namespace
