// A channel for tests: a socket pair, a node made of a stanza at its near end, and the real loop. The test
// plays the acquisition process at the far end and a consumer at the node's pipe.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/release_stream.h"
#include "tests/support/socket_node.h"

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
inline std::string stanza(const std::string &dataType, const std::string &more = "",
                          const std::string &connector = "c")
{
    return R"({"name":"ch","data_type":")" + dataType + R"(","connector":")" + connector + '"' +
           (more.empty() ? "" : ",") + more + "}";
}

// The body after its length word.
inline Bytes record(std::span<const uint8_t> body)
{
    return Bytes().be(static_cast<uint32_t>(body.size())).add(body);
}
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
    float aux; // `start` as the frame's aux word 1 has it
    uint32_t length, capacity;
    std::vector<uint8_t> data; // `length` elements
};
// Takes all frames out of a pipe and deletes them.
inline std::vector<FrameCopy> takeFrames(Pipe *pipe)
{
    std::vector<FrameCopy> copies;
    while (Frame *frame = pipeGetFrame(pipe)) {
        FrameCopy copy{frame->start, 0, frame->length, frame->capacity, {}};
        if (frame->aux)
            std::memcpy(&copy.aux, &frame->aux[1], sizeof copy.aux);
        const auto *data = static_cast<const uint8_t *>(frame->data);
        copy.data.assign(data, data + size_t{frame->length} * frame->element_size);
        frameDelete(frame);
        copies.push_back(copy);
    }
    return copies;
}
// All samples of all frames in a pipe, which is empty afterwards.
template <typename T>
std::vector<T> takeSamples(Pipe *pipe)
{
    std::vector<T> all;
    for (const FrameCopy &frame : takeFrames(pipe))
        for (size_t at = 0; at + sizeof(T) <= frame.data.size(); at += sizeof(T))
            std::memcpy(&all.emplace_back(), &frame.data[at], sizeof(T));
    return all;
}

class TestChannel : public SocketNode {
public:
    using SocketNode::SocketNode;

    // The peer: sends everything, running the loop while the socket is full, then runs the loop.
    void send(std::span<const uint8_t> bytes)
    {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(far, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent > 0)
                bytes = bytes.subspan(static_cast<size_t>(sent));
            else if (errno != EAGAIN || run() == 0)
                break; // nobody reads any more
        }
        run();
    }
    void sendMarker(bool big = true) { send(big ? Bytes{0xFE, 0xED} : Bytes{0xED, 0xFE}); }
    // What the node has sent to the peer.
    std::string heard()
    {
        char text[64];
        const ssize_t got = recv(far, text, sizeof text, MSG_DONTWAIT);
        return {text, got > 0 ? static_cast<size_t>(got) : 0};
    }

    // Runs the loop until it would sleep; returns the node's events. Fails the test if that never comes.
    int run()
    {
        int events = 0;
        for (pollfd asked{near, POLLIN, 0}; events < kSpinning; events++) {
            if (!ev_is_active(node->watcher) || node->fd < 0 || poll(&asked, 1, 0) != 1)
                return events;
            ev_run(ev_default_loop(0), EVRUN_NOWAIT);
        }
        ADD_FAILURE() << "the loop spins";
        return events;
    }
    // Events beyond those, as if more data had arrived, until no record waits in the buffer.
    void runLeftovers()
    {
        for (int events = 0; node->read_count != 0; events++) {
            if (events == kSpinning) {
                ADD_FAILURE() << "a record is never used up";
                return;
            }
            node->reader(node);
        }
    }

private:
    static constexpr int kSpinning = 200'000; // events at a stretch that no test needs
};

} // namespace vu::test
