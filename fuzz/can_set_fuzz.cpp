// Random sets over random records, both ways. Besides the sanitizers' checks: every timestamp is turned, and
// nothing else of a record is written.
#include <cstdio>
#include <vector>

#include "fuzz/host.h"

// Periods so long that any timestamp is reached in a moment.
static std::string stanza(FuzzedDataProvider &bytes)
{
    static const char *const formats[] = {"ULSB", "UMSB", "SLSB", "SMSB", "FLSB", "FMSB", "DMSB"};
    char text[640];
    std::snprintf(
        text, sizeof text,
        R"({"name":"s","scale":%g,"offset":%d,"db_msg_id":"%X","db_msg_mask":"%X","db_bit_start":%d,)"
        R"("db_bit_length":%d,"db_data_format":"%s","data_type":"float%d","sample_rate":1e-8,"pipe_rate":1,)"
        R"("stale_data_expiration_time":%d,"invalid_data_output_value":-1,"db_mode_start":%d,)"
        R"("db_mode_length":%d,"db_mode_value":%d%s})",
        bytes.ConsumeFloatingPointInRange(-1e9, 1e9), bytes.ConsumeIntegral<int8_t>(),
        bytes.ConsumeIntegral<uint8_t>(), bytes.PickValueInArray({0xFFFFFFFF, 0xFFu, 0x0Fu, 0u}),
        bytes.ConsumeIntegral<int8_t>(), bytes.ConsumeIntegral<int8_t>(), bytes.PickValueInArray(formats),
        bytes.PickValueInArray({32, 64}), bytes.ConsumeIntegral<int32_t>(), bytes.ConsumeIntegral<uint8_t>(),
        bytes.ConsumeIntegralInRange(0, 64), bytes.ConsumeIntegral<uint8_t>(),
        bytes.ConsumeBool() ? R"(,"db_mode_format":"UMSB")" : "");
    return text;
}

void fuzz(const uint8_t *data, size_t size)
{
    FuzzedDataProvider bytes(data, size);
    Signals made;
    for (int i = bytes.ConsumeIntegralInRange(0, 40); i > 0 && bytes.remaining_bytes() > 30; i--) {
        const std::string text = stanza(bytes);
        if (CanSetSignal *signal = can_set_add_signal(made.set, text.c_str()))
            signal->rezero_pending = bytes.ConsumeBool();
        if (CanSignalNode *signal = canSignalInit(text.c_str())) {
            signal->rezero_pending = bytes.ConsumeBool();
            signal->next = made.list;
            made.list = signal;
        }
    }
    if (bytes.ConsumeBool())
        can_set_finalize(made.set);
    std::vector<CanRecord> given;
    while (bytes.remaining_bytes() >= sizeof(CanRecord)) {
        bytes.ConsumeData(&given.emplace_back(), sizeof(CanRecord));
        std::memset(given.back().id, 0, 3); // so that many of them match
    }
    std::vector<CanRecord> batch = given, alone = given;
    can_set_process(made.set, batch.data(), static_cast<uint32_t>(given.size()));
    canProcessSignals(made.list, alone.data(), static_cast<int32_t>(given.size()));
    for (size_t i = 0; i < given.size(); i++)
        require(std::memcmp(&batch[i], &alone[i], sizeof(CanRecord)) == 0 &&
                batch[i].timestamp[0] == given[i].timestamp[7]);
}
