// Arbitrary messages against a set of every value type. Besides the sanitizers' checks: a walk written apart
// ends at the same entry, so as many measurements have taken a value.
#include <cstdio>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <vector>

#include "libvu/bus/xcp_set.h"
#include "libvu/core/callbacks.h"
#include "tests/support/release_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const char *const types[] = {"UBYTE", "SBYTE",    "UWORD",   "SWORD",        "ULONG",
                                        "SLONG", "A_UINT64", "A_INT64", "FLOAT32_IEEE", "FLOAT64_IEEE"};
    libvuErrorCallback = [](const char *) { return 1; };
    FuzzedDataProvider bytes(data, size);
    XcpIpSet *set = xcp_ip_set_create();
    for (int i = bytes.ConsumeIntegralInRange(0, 40); i > 0; i--) {
        char text[512]; // a period so long that any timestamp is reached in a moment
        std::snprintf(
            text, sizeof text,
            R"({"name":"m","scale":-0.5,"offset":1,"invalid_data_output_value":-1,"sample_rate":1e-8,)"
            R"("stale_data_expiration_time":1,"pipe_rate":1,"data_type":"float32","xcp_byte_order":"%s",)"
            R"("xcp_data_type":"%s"})",
            bytes.ConsumeBool() ? "INTEL" : "", bytes.PickValueInArray(types));
        if (!xcp_ip_set_add_measurement(set, text))
            __builtin_trap();
    }
    while (bytes.remaining_bytes()) {
        const auto timestamp = bytes.ConsumeIntegral<int64_t>();
        const std::string message = bytes.ConsumeRandomLengthString(); // on the heap: its end is guarded
        std::vector<char> exact(message.begin(), message.end());
        std::vector<bool> named(set->count);
        for (size_t at = 0; exact.size() - at >= 2;) {
            const auto index = static_cast<size_t>(uint8_t(exact[at])) << 8 | uint8_t(exact[at + 1]);
            if (index >= set->count || exact.size() - at - 2 < set->measurements[index]->value_size)
                break;
            named[index] = true;
            at += 2 + set->measurements[index]->value_size;
        }
        for (uint32_t i = 0; i < set->count; i++)
            set->measurements[i]->sequentializer->expiry_tick = INT64_MIN;
        xcp_ip_set_process(set, timestamp, exact.data(), static_cast<uint32_t>(exact.size()));
        for (uint32_t i = 0; i < set->count; i++)
            if ((set->measurements[i]->sequentializer->expiry_tick != INT64_MIN) != named[i])
                __builtin_trap();
    }
    for (uint32_t i = 0; i < set->count; i++)
        vu::test::releaseSignal(set->measurements[i]);
    xcp_ip_set_destroy(set);
    return 0;
}
