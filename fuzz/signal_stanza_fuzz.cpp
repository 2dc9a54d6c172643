// Arbitrary text as the stanza of a CAN signal, of a signal in a set and of a measurement.
#include <vector>

#include "fuzz/host.h"

void fuzz(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    if (!isAffordable(text))
        return;
    Signals made;
    const std::vector<uint8_t> payload(8, 0xA5); // its end is guarded, as is the value's
    if ((made.list = canSignalInit(text.c_str())))
        made.list->handler(made.list, payload.data());
    if (can_set_add_signal(made.set, text.c_str())) {
        CanRecord record{};
        std::memcpy(record.id, &made.set->groups[0].id, sizeof record.id);
        can_set_finalize(made.set);
        can_set_process(made.set, &record, 1);
    }
    if (const XcpMeasurement *one = xcp_ip_set_add_measurement(made.measurements, text.c_str())) {
        const std::vector<uint8_t> value(one->value_size, 0xA5);
        one->read_value(value.data());
    }
}
