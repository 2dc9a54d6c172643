// The vocabulary of the bus tests: records as they come over the wire, stanzas, and both ways to a signal.
#pragma once

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "libvu/bus/can_set.h"
#include "libvu/bus/can_signal.h"
#include "libvu/core/callbacks.h"
#include "libvu/core/wire_private.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/split.h"
#include "tests/support/streams.h"

namespace vu::test {

using nlohmann::json;

// Records in wire order; a payload is given as the number whose bytes come first to last.
struct Batch {
    Batch &at(int64_t ticks, uint32_t id, uint64_t payload = 0, uint8_t flags = 0xDF)
    {
        CanRecord record;
        storeBig(record.timestamp, ticks);
        storeBig(record.id, id);
        storeBig(record.payload, payload);
        record.flags = flags;
        records.push_back(record);
        return *this;
    }
    Batch &timeOnly(int64_t ticks) { return at(ticks, 0x100, ~0ull, CAN_RECORD_TIME_ONLY); }
    std::vector<CanRecord> records;
};

inline json field(const json &format, const json &start, const json &length)
{
    return {{"db_data_format", format}, {"db_bit_start", start}, {"db_bit_length", length}};
}

inline json mode(const json &format, const json &at, const json &bits, const json &is)
{
    return {
        {"db_mode_format", format}, {"db_mode_start", at}, {"db_mode_length", bits}, {"db_mode_value", is}};
}

// A complete stanza for all three kinds of signal, with changes. A text stands for itself.
inline std::string stanza(const json &changes = {})
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

// The signals that a host holds, and what it releases at the end.
template <typename Signal>
struct Held {
    // Names and streams, while the records still tell them.
    void release()
    {
        for (Signal *signal : signals)
            releaseSignal(signal);
    }
    Signal *keep(Signal *signal)
    {
        if (signal)
            signals.push_back(signal);
        return signal;
    }
    // One thing of every stream, in the order of the signals' making.
    template <typename T>
    std::vector<T> each(T Sequentializer::*what) const
    {
        std::vector<T> all;
        for (const Signal *signal : signals)
            all.push_back(signal->sequentializer->*what);
        return all;
    }
    auto values() const { return each(&Sequentializer::value); }
    auto samples() const { return each(&Sequentializer::sample_count); }
    // What they hold behind a batch whose end is guarded: every timestamp is turned, whatever matches.
    template <typename Process>
    auto behind(const Batch &batch, Process process) const
    {
        std::vector<CanRecord> records = batch.records;
        process(records.data(), static_cast<uint32_t>(records.size()));
        for (size_t i = 0; i < records.size(); i++)
            EXPECT_EQ(loadHost<int64_t>(records[i].timestamp), loadBig<int64_t>(batch.records[i].timestamp));
        return values();
    }
    std::vector<Signal *> signals;
};

struct Set : Held<CanSetSignal> {
    ~Set()
    {
        release();
        can_set_destroy(set);
        can_set_destroy(set); // harmless
        free(set);
    }
    CanSetSignal *add(const json &changes = {})
    {
        return keep(can_set_add_signal(set, stanza(changes).c_str()));
    }
    // Finalized anew each time: no signal may come twice by that.
    std::vector<double> after(const Batch &batch)
    {
        can_set_finalize(set);
        return behind(batch, [&](CanRecord *records, uint32_t n) { can_set_process(set, records, n); });
    }
    CanSet *set = can_set_create();
};

// Single signals in a list.
struct List : Held<CanSignalNode> {
    ~List()
    {
        release();
        for (CanSignalNode *node : signals) {
            free(node->config);
            free(node);
        }
    }
    CanSignalNode *add(const json &changes = {})
    {
        CanSignalNode *const last = signals.empty() ? nullptr : signals.back();
        CanSignalNode *node = keep(canSignalInit(stanza(changes).c_str()));
        if (last)
            last->next = node;
        return node;
    }
    std::vector<double> after(const Batch &batch)
    {
        CanSignalNode *const first = signals.empty() ? nullptr : signals[0];
        return behind(batch, [&](CanRecord *records, int32_t n) { canProcessSignals(first, records, n); });
    }
};

class Bus : public testing::Test {
protected:
    template <typename Holder>
    void refuses(Holder &holder, const json &changes,
                 const testing::Matcher<const std::vector<std::string> &> &said)
    {
        EXPECT_EQ(holder.add(changes), nullptr) << changes;
        EXPECT_THAT(errors.texts(), said) << changes;
    }

    ErrorTrap errors;
    AllocationFaults memory;
};

} // namespace vu::test
