// A sequential channel with frames of two samples, listened to.
#pragma once

#include "tests/support/node_fixture.h"

namespace vu::test {

struct PairChannel : TestChannel {
    explicit PairChannel(const std::string &width = "float32")
        : TestChannel(stanza("sequential_" + width, R"("sample_rate":20)"))
    {
    }
    std::vector<float> samples() { return takeSamples<float>(pipe); }

    Pipe *const pipe = listen();
};

} // namespace vu::test
