// A channel for tests: a socket pair, a node made of a stanza at its near end, and the real loop. The test
// plays the acquisition process at the far end and a consumer at the node's pipe.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "libvu/proxy/proxy_node.h"
#include "tests/support/release_stream.h"

namespace vu::test {

// Wire bytes, one number after the other. Each call appends and returns the builder.
class Bytes : public std::vector<uint8_t> {
public:
    using std::vector<uint8_t>::vector;

    Bytes &be(auto value) { return append(value, true); }
    Bytes &le(auto value) { return append(value, false); }
    Bytes &add(std::span<const uint8_t> bytes) { return insert(end(), bytes.begin(), bytes.end()), *this; }
    Bytes &add(std::string_view text) { return insert(end(), text.begin(), text.end()), *this; }
    Bytes &zeros(size_t count) { return resize(size() + count), *this; }

private:
    Bytes &append(auto value, bool big)
    {
        const auto *bytes = reinterpret_cast<const uint8_t *>(&value);
        for (size_t i = 0; i < sizeof value; i++)
            push_back(bytes[big ? sizeof value - 1 - i : i]);
        return *this;
    }
};

// A channel's stanza, named "ch"; `more` holds further keys, separated by commas.
std::string stanza(const std::string &dataType, const std::string &more = "",
                   const std::string &connector = "c");

// The body behind its length word.
Bytes record(std::span<const uint8_t> body);
// A record of a sequential channel: 8 bytes that nobody reads, then samples in the given byte order.
template <typename T>
Bytes sampleRecord(const std::vector<T> &samples, bool big = true)
{
    Bytes body;
    body.zeros(8);
    for (const T sample : samples)
        big ? body.be(sample) : body.le(sample);
    return record(body);
}

// A copy of what a frame says, so that the frame can go at once.
struct FrameCopy {
    int64_t start;
    float aux; // `start` as the frame's aux word 1 tells it
    uint32_t length, capacity, elementSize;
    std::vector<uint8_t> data; // `length` elements

    template <typename T>
    std::vector<T> as() const
    {
        std::vector<T> values(data.size() / sizeof(T));
        std::memcpy(values.data(), data.data(), values.size() * sizeof(T));
        return values;
    }
};
// Takes all frames out of a pipe and deletes them.
std::vector<FrameCopy> takeFrames(Pipe *pipe);
// All samples of all frames in a pipe, which is empty afterwards.
template <typename T>
std::vector<T> takeSamples(Pipe *pipe)
{
    std::vector<T> all;
    for (const FrameCopy &frame : takeFrames(pipe))
        for (const T sample : frame.as<T>())
            all.push_back(sample);
    return all;
}

// What a host owns of a channel, gone with the object: node and all that hangs on it, pipes, both sockets.
// Signals and sets on the node stay the test's. A node that could not be made is null.
class TestChannel {
public:
    explicit TestChannel(const std::string &stanza, double pipeRate = 10.0);
    ~TestChannel();
    TestChannel(const TestChannel &) = delete;
    TestChannel &operator=(const TestChannel &) = delete;

    int far = -1;  // the peer's end, non-blocking; -1 after hangUp()
    int near = -1; // the end that the node was given
    ProxyNode *const node;
    ProxyNode *operator->() const { return node; }

    Pipe *listen() { return pipeAttachPipe(&node->pipes); }

    // The peer: sends everything, running the loop while the socket is full, then runs the loop.
    void send(std::span<const uint8_t> bytes);
    void sendMarker(bool big = true) { send(big ? Bytes{0xFE, 0xED} : Bytes{0xED, 0xFE}); }
    void hangUp();
    std::string heard(); // what the node has sent to the peer

    // Runs the loop until it would sleep; returns the node's events. Fails the test if that never comes.
    int run();
    // Events beyond those, as if more data had arrived, until no record waits in the buffer.
    void runLeftovers();
};

} // namespace vu::test
