// Arbitrary text as the stanza of a CAN signal, of a signal in a set and of a measurement.
#include <nlohmann/json.hpp>
#include <string>

#include "libvu/bus/can_set.h"
#include "libvu/bus/can_signal.h"
#include "libvu/bus/xcp_set.h"
#include "libvu/core/callbacks.h"
#include "tests/support/release_stream.h"

namespace {

// Rates that ask for gigabytes of frames are a host's right, and no business of this search.
bool isAffordable(const std::string &text)
{
    if (text.find('\\') != std::string::npos || text.find('\0') != std::string::npos)
        return false;
    const size_t first = text.find("pipe_rate"), last = text.rfind("pipe_rate");
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (first == std::string::npos || !json.is_object())
        return true;
    const auto number = [&](const char *key) {
        return json.contains(key) && json[key].is_number() ? json[key].get<double>() : 0.0;
    };
    const bool once = first == last && text.find("sample_rate") == text.rfind("sample_rate");
    return once && number("pipe_rate") < 100 && number("sample_rate") < 1e5 * number("pipe_rate");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    if (!isAffordable(text))
        return -1;
    libvuErrorCallback = [](const char *) { return 1; };
    if (CanSignalNode *node = canSignalInit(text.c_str())) {
        std::vector<uint8_t> payload(8, 0xA5); // its end is guarded
        node->handler(node, payload.data());
        vu::test::releaseSignal(node);
        std::free(node->config);
        std::free(node);
    }
    CanSet *set = can_set_create();
    if (CanSetSignal *signal = can_set_add_signal(set, text.c_str())) {
        CanRecord record{};
        std::memcpy(record.id, &set->groups[0].id, sizeof record.id);
        can_set_finalize(set);
        can_set_process(set, &record, 1);
        vu::test::releaseSignal(signal);
    }
    can_set_destroy(set);
    std::free(set);
    XcpIpSet *measurements = xcp_ip_set_create();
    if (XcpMeasurement *one = xcp_ip_set_add_measurement(measurements, text.c_str())) {
        const std::vector<uint8_t> value(one->value_size, 0xA5);
        one->read_value(value.data());
        vu::test::releaseSignal(one);
    }
    xcp_ip_set_destroy(measurements);
    return 0;
}
