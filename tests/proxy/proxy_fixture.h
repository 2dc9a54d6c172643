// The vocabulary of the channels' tests: their traps, a channel that is listened to, and tables.
#pragma once

#include <gmock/gmock.h>

#include "libvu/core/callbacks.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/interpose.h"
#include "tests/support/node_fixture.h"
#include "tests/support/split.h"
#include "tests/support/temp_dir.h"

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

// The lines of a file beside these tests, without empty ones and comments.
inline Strings linesOf(const std::string &file)
{
    Strings lines = split(readText(VU_SOURCE_DIR "/tests/proxy/" + file), '\n');
    std::erase_if(lines, [](const std::string &line) { return line.empty() || line.starts_with("//"); });
    EXPECT_FALSE(lines.empty());
    return lines;
}

} // namespace vu::test
