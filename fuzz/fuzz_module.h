// A stream channel with a signal, for fuzz targets that play the module.
#pragma once

#include "fuzz/fuzz_node.h"
#include "libvu/bus/can_signal.h"
#include "libvu/stream/metainfo.h"
#include "libvu/stream/stream_signal.h"
#include "tests/support/release_stream.h"

struct FuzzModule : FuzzNode {
    // So slow a signal that no time costs many samples.
    CanSignalNode *const signal =
        streamCANSignalInit(R"({"name":"speed","data_type":"float32","scale":1,"offset":0,"pipe_rate":1,
            "sample_rate":1e-8,"invalid_data_output_value":-1,"stale_data_expiration_time":1e7})");

    explicit FuzzModule(uint8_t form)
        : FuzzNode(form & 1 ? R"({"name":"m","data_type":"d","connector":"pd806k","scale":2})"
                            : R"({"name":"m","data_type":"d","connector":"pd806h"})")
    {
        libvuRezeroCallback = [](const char *, double) { return 1; };
        node->start_time = form & 4 ? 71'000'000'000'000'000 : INT64_MIN;
        node->cs_list = signal;
        signal->proxy = node;
        signal->rezero_pending = form >> 7;
    }
    ~FuzzModule()
    {
        if (node->heartbeat)
            ev_timer_stop(ev_default_loop(0), node->heartbeat);
        vu::test::releaseSignal(signal);
        std::free(node->heartbeat);
        std::free(signal->config);
        std::free(signal);
    }
};
