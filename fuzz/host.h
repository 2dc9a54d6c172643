// What a host of the library holds, for fuzz targets: nodes, sets and signals, gone with their objects.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <span>
#include <string>

#include "fuzz/target.h"
#include "libvu/libvu.h"
#include "tests/support/release_stream.h"
#include "tests/support/socket_node.h"

// A record that claims to be huge costs no memory: its buffer cannot be allocated.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=32";
}

// Reports are taken and dropped.
inline const auto quiet = libvuErrorCallback = libvuCriticalErrorCallback =
    libvuChannelDisconnectCallback = [](const char *) { return 1; };
inline const auto quietZero = libvuRezeroCallback = [](const char *, double) { return 1; };

// High rates cost memory by design, which would only tell the fuzzer of a machine that has too little.
inline bool isAffordable(const std::string &stanza)
{
    const std::string key = "rate\"";
    for (size_t at = 0; (at = stanza.find(key, at)) != std::string::npos;) {
        at = std::min(stanza.find_first_not_of("\t\n\v\f\r :", at + key.size()), stanza.size());
        if (std::strtod(&stanza[at], nullptr) > 10'000)
            return false;
    }
    return stanza.find('\\') == std::string::npos; // keys in disguise
}

// One of each kind of set, and a list of single signals.
struct Signals {
    CanSet *const set = can_set_create();
    XcpIpSet *const measurements = xcp_ip_set_create();
    CanSignalNode *list = nullptr;

    ~Signals()
    {
        for (const CanSetGroup &group : std::span(set->groups, set->group_count))
            for (CanSetSignal *signal : std::span(group.signals, group.count))
                vu::test::releaseSignal(signal);
        can_set_destroy(set);
        std::free(set);
        for (XcpMeasurement *measurement : std::span(measurements->measurements, measurements->count))
            vu::test::releaseSignal(measurement);
        xcp_ip_set_destroy(measurements);
        while (CanSignalNode *signal = list) {
            list = signal->next;
            vu::test::releaseSignal(signal);
            std::free(signal->config);
            std::free(signal);
        }
    }
};

struct FuzzNode : vu::test::SocketNode {
    using SocketNode::SocketNode;

    // Records after the marker, as if one read had brought them.
    void feed(std::span<const uint8_t> bytes)
    {
        if (node->state == PROXY_NODE_DISCARDS)
            return;
        membufAppend(&node->inbuf, bytes.data(), static_cast<uint32_t>(bytes.size()));
        node->read_count = static_cast<uint32_t>(bytes.size());
        while (node->read_count != 0)
            node->main_reader(node);
    }
};

// A stream channel with a signal that is so slow that no time costs many samples.
struct FuzzModule : FuzzNode {
    explicit FuzzModule(uint8_t form)
        : FuzzNode(form & 1 ? R"({"name":"m","data_type":"d","connector":"pd806k","scale":2})"
                            : R"({"name":"m","data_type":"d","connector":"pd806h"})")
    {
        signals.list =
            streamCANSignalInit(R"({"name":"speed","data_type":"float32","scale":1,"offset":0,"pipe_rate":1,
            "sample_rate":1e-8,"invalid_data_output_value":-1,"stale_data_expiration_time":1e7})");
        signals.list->proxy = node;
        signals.list->rezero_pending = form >> 7;
        node->cs_list = signals.list;
        node->start_time = form & 4 ? 71'000'000'000'000'000 : INT64_MIN;
    }
    Signals signals;
};
