// The vocabulary of the bus tests: records as they come over the wire, stanzas, and every way to a signal.
#pragma once

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "libvu/bus/can_set.h"
#include "libvu/bus/can_signal.h"
#include "libvu/bus/xcp_set.h"
#include "libvu/core/wire_private.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/cases.h"
#include "tests/support/error_trap.h"
#include "tests/support/streams.h"

namespace vu::test {

using nlohmann::json;

// Records in wire order; a payload is given as the number whose bytes come first to last.
struct Batch {
    Batch &at(int64_t ticks, uint32_t id, uint64_t payload = 0, uint8_t flags = 0xDF)
    {
        CanRecord record;
        libvu::storeBig(record.timestamp, ticks);
        libvu::storeBig(record.id, id);
        libvu::storeBig(record.payload, payload);
        record.flags = flags;
        records.push_back(record);
        return *this;
    }
    Batch &timeOnly(int64_t ticks) { return at(ticks, 0x100, ~0ull, CAN_RECORD_TIME_ONLY); }
    std::vector<CanRecord> records;
};

inline uint32_t hexNumber(const std::string &text)
{
    return static_cast<uint32_t>(std::stoul(text, nullptr, 16));
}
// What is missing of the payload is 0.
inline uint64_t payloadOf(const std::string &hex)
{
    return std::stoull((hex + std::string(16, '0')).substr(0, 16), nullptr, 16);
}

inline json field(const std::string &format, const json &start, const json &length)
{
    return {{"db_data_format", format}, {"db_bit_start", start}, {"db_bit_length", length}};
}

// A complete stanza for all three kinds of signal, with changes. A text is taken as it is.
inline std::string stanza(const json &changes)
{
    if (changes.is_string())
        return changes;
    json base = json::parse(R"({"name": "s", "scale": 1, "offset": 0, "db_bit_start": 0, "db_bit_length": 8,
        "db_msg_id": "100", "db_data_format": "ULSB", "data_type": "float64", "sample_rate": 10, "pipe_rate": 1,
        "stale_data_expiration_time": 10, "invalid_data_output_value": -1, "xcp_byte_order": "MSB_FIRST",
        "xcp_data_type": "UBYTE"})");
    if (changes.is_object())
        base.update(changes);
    return base.dump();
}

// Signals as a host holds them: of a "set", single ones in a "list", or measurements of "xcp".
struct Signals {
    explicit Signals(std::string ofKind) : kind(std::move(ofKind)) {}
    ~Signals()
    {
        for (size_t i = 0; i < sequentializers.size(); i++) { // while the records still know them
            free(names[i]);
            releaseStream(sequentializers[i]);
        }
        for (CanSignalNode *node : list) {
            free(node->config);
            free(node);
        }
        can_set_destroy(set);
        can_set_destroy(set); // harmless
        free(set);
        xcp_ip_set_destroy(xcp);
    }
    Signals(const Signals &) = delete;

    // False if the stanza is refused.
    bool add(const json &changes)
    {
        const std::string text = stanza(changes);
        if (kind == "set")
            return keep(can_set_add_signal(set, text.c_str()));
        if (kind == "xcp")
            return keep(xcp_ip_set_add_measurement(xcp, text.c_str()));
        CanSignalNode *const node = canSignalInit(text.c_str());
        if (node && !list.empty())
            list.back()->next = node;
        if (node)
            list.push_back(node);
        return keep(node);
    }
    // One field of every Sequentializer, in the order of the signals' making.
    template <typename T>
    std::vector<T> each(T Sequentializer::*what) const
    {
        std::vector<T> all;
        for (const Sequentializer *sequentializer : sequentializers)
            all.push_back(sequentializer->*what);
        return all;
    }
    // What they hold after a batch whose end is guarded: every timestamp is turned, whatever matches. A set
    // is finalized anew each time: no signal may come twice by that.
    std::vector<double> after(const Batch &batch)
    {
        std::vector<CanRecord> records = batch.records;
        can_set_finalize(set);
        if (kind == "set")
            can_set_process(set, records.data(), static_cast<uint32_t>(records.size()));
        else
            canProcessSignals(list.at(0), records.data(), static_cast<int32_t>(records.size()));
        for (size_t i = 0; i < records.size(); i++)
            EXPECT_EQ(libvu::loadHost<int64_t>(records[i].timestamp),
                      libvu::loadBig<int64_t>(batch.records[i].timestamp));
        return each(&Sequentializer::value);
    }
    std::vector<double> after(const std::vector<uint8_t> &message, int64_t time = 0)
    {
        xcp_ip_set_process(xcp, time, message.data(), static_cast<uint32_t>(message.size()));
        return each(&Sequentializer::value);
    }

    const std::string kind;
    CanSet *const set = can_set_create();
    XcpIpSet *const xcp = xcp_ip_set_create();
    std::vector<CanSignalNode *> list;
    std::vector<char *> names;
    std::vector<Sequentializer *> sequentializers;
    std::vector<int32_t *> pending; // requests for a zero

private:
    bool keep(auto *signal)
    {
        if (!signal)
            return false;
        names.push_back(signal->name);
        sequentializers.push_back(signal->sequentializer);
        if constexpr (requires { signal->rezero_pending; })
            pending.push_back(&signal->rezero_pending);
        return true;
    }
};

class Bus : public testing::Test {
protected:
    ErrorTrap errors;
    AllocationFaults memory;
};

} // namespace vu::test
