// The vocabulary of the channels' tests: their traps, and a channel that is listened to.
#pragma once

#include <gmock/gmock.h>

#include "libvu/core/callbacks.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/cases.h"
#include "tests/support/error_trap.h"
#include "tests/support/interpose.h"
#include "tests/support/node_fixture.h"

namespace vu::test {

class Channels : public testing::Test {
protected:
    ScopedCalls scope;
    ErrorTrap errors;
    AllocationFaults memory;
};

// A sequential channel with frames of two samples, listened to.
struct PairChannel : TestChannel {
    explicit PairChannel(const std::string &width = "float32")
        : TestChannel(stanza("sequential_" + width, R"("sample_rate":20)"))
    {
    }
    std::vector<float> samples() { return takeSamples<float>(pipe); }

    Pipe *const pipe = listen();
};

} // namespace vu::test
