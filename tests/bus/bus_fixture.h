// The vocabulary of the bus tests: records as they come over the wire, stanzas, and both ways to a signal.
#pragma once

#include <gmock/gmock.h>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "libvu/bus/can_set.h"
#include "libvu/bus/can_signal.h"
#include "libvu/core/callbacks.h"
#include "libvu/core/wire_private.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
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

inline json stanza(const json &changes = {})
{
    json base = {{"name", "s"},
                 {"scale", 1},
                 {"offset", 0},
                 {"db_bit_start", 0},
                 {"db_bit_length", 8},
                 {"db_msg_id", "100"},
                 {"db_data_format", "ULSB"},
                 {"data_type", "float64"},
                 {"sample_rate", 10},
                 {"pipe_rate", 1},
                 {"stale_data_expiration_time", 10},
                 {"invalid_data_output_value", -1}};
    if (changes.is_object())
        base.update(changes);
    return base;
}

// A CAN set and what its host has to keep of it.
struct Set {
    ~Set()
    {
        for (CanSetSignal *signal : signals) {
            free(signal->name);
            while (signal->pipes.first)
                pipeDetachPipe(&signal->pipes, signal->pipes.first);
            releaseStream(signal->sequentializer);
        }
        can_set_destroy(set);
        can_set_destroy(set); // harmless
        free(set);
    }
    CanSetSignal *add(const json &changes = {})
    {
        CanSetSignal *signal = can_set_add_signal(set, stanza(changes).dump().c_str());
        if (signal)
            signals.push_back(signal);
        return signal;
    }
    void take(Batch batch)
    {
        can_set_process(set, batch.records.data(), static_cast<uint32_t>(batch.records.size()));
    }
    // What every signal holds after the batch, in the order of their making.
    std::vector<double> after(const Batch &batch)
    {
        take(batch);
        std::vector<double> values;
        for (const CanSetSignal *signal : signals)
            values.push_back(signal->sequentializer->value);
        return values;
    }

    CanSet *set = can_set_create();
    std::vector<CanSetSignal *> signals;
};

// Single signals in a list.
struct List {
    ~List()
    {
        for (CanSignalNode *node : nodes) {
            free(node->name);
            free(node->config);
            while (node->pipes.first)
                pipeDetachPipe(&node->pipes, node->pipes.first);
            releaseStream(node->sequentializer);
            free(node);
        }
    }
    CanSignalNode *add(const json &changes = {})
    {
        CanSignalNode *node = canSignalInit(stanza(changes).dump().c_str());
        if (!node)
            return nullptr;
        if (!nodes.empty())
            nodes.back()->next = node;
        nodes.push_back(node);
        return node;
    }
    void take(Batch batch)
    {
        canProcessSignals(nodes.empty() ? nullptr : nodes[0], batch.records.data(),
                          static_cast<int32_t>(batch.records.size()));
    }
    std::vector<double> after(const Batch &batch)
    {
        take(batch);
        std::vector<double> values;
        for (const CanSignalNode *node : nodes)
            values.push_back(node->sequentializer->value);
        return values;
    }

    std::vector<CanSignalNode *> nodes;
};

class Bus : public testing::Test {
protected:
    ErrorTrap errors;
    AllocationFaults memory;
};

} // namespace vu::test
