// Arbitrary messages against a set of every value type. Besides the sanitizers' checks: a walk written apart
// ends at the same entry, so as many measurements have taken a value.
#include <vector>

#include "fuzz/host.h"

void fuzz(const uint8_t *data, size_t size)
{
    static const char *const types[] = {"UBYTE", "SBYTE",    "UWORD",   "SWORD",        "ULONG",
                                        "SLONG", "A_UINT64", "A_INT64", "FLOAT32_IEEE", "FLOAT64_IEEE"};
    // A period so long that any timestamp is reached in a moment.
    const std::string stanza =
        R"({"name":"m","scale":-0.5,"offset":1,"invalid_data_output_value":-1,"sample_rate":1e-8,"pipe_rate":1,
            "stale_data_expiration_time":1,"data_type":"float32","xcp_byte_order":")";
    FuzzedDataProvider bytes(data, size);
    Signals made;
    for (int i = bytes.ConsumeIntegralInRange(0, 40); i > 0; i--) {
        const std::string order = bytes.ConsumeBool() ? "INTEL" : "", type = bytes.PickValueInArray(types);
        const std::string text = stanza + order + R"(","xcp_data_type":")" + type + "\"}";
        require(xcp_ip_set_add_measurement(made.measurements, text.c_str()));
    }
    const std::span measurements(made.measurements->measurements, made.measurements->count);
    while (bytes.remaining_bytes()) {
        const auto timestamp = bytes.ConsumeIntegral<int64_t>();
        const std::string message = bytes.ConsumeRandomLengthString(); // on the heap: its end is guarded
        std::vector<char> exact(message.begin(), message.end());
        std::vector<bool> named(measurements.size());
        for (size_t at = 0; exact.size() - at >= 2;) {
            const auto index = static_cast<size_t>(uint8_t(exact[at])) << 8 | uint8_t(exact[at + 1]);
            if (index >= named.size() || exact.size() - at - 2 < measurements[index]->value_size)
                break;
            named[index] = true;
            at += 2 + measurements[index]->value_size;
        }
        for (const XcpMeasurement *measurement : measurements)
            measurement->sequentializer->expiry_tick = INT64_MIN;
        xcp_ip_set_process(made.measurements, timestamp, exact.data(), static_cast<uint32_t>(exact.size()));
        for (size_t i = 0; i < named.size(); i++)
            require((measurements[i]->sequentializer->expiry_tick != INT64_MIN) == named[i]);
    }
}
