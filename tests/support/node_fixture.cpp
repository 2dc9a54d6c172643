#include "tests/support/node_fixture.h"

#include <cstdlib>
#include <ev.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vu::test {

namespace {

constexpr int kSpinning = 200'000; // events at a stretch that no test needs

} // namespace

std::string stanza(const std::string &dataType, const std::string &more, const std::string &connector)
{
    return R"({"name":"ch","data_type":")" + dataType + R"(","connector":")" + connector + '"' +
           (more.empty() ? "" : ",") + more + "}";
}

Bytes record(std::span<const uint8_t> body)
{
    return Bytes().be(static_cast<uint32_t>(body.size())).add(body);
}

std::vector<FrameCopy> takeFrames(Pipe *pipe)
{
    std::vector<FrameCopy> copies;
    while (Frame *frame = pipeGetFrame(pipe)) {
        FrameCopy copy{frame->start, 0, frame->length, frame->capacity, frame->element_size, {}};
        if (frame->aux)
            std::memcpy(&copy.aux, &frame->aux[1], sizeof copy.aux);
        const auto *data = static_cast<const uint8_t *>(frame->data);
        copy.data.assign(data, data + size_t{frame->length} * frame->element_size);
        frameDelete(frame);
        copies.push_back(copy);
    }
    return copies;
}

TestChannel::TestChannel(const std::string &stanza, double pipeRate)
    : node([&] {
          int ends[2] = {-1, -1};
          EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
          near = ends[0];
          far = ends[1];
          return proxyNode_Create(stanza.c_str(), near, pipeRate);
      }())
{
}

TestChannel::~TestChannel()
{
    hangUp();
    if (!node) {
        close(near);
        return;
    }
    ev_io_stop(ev_default_loop(0), node->watcher);
    if (node->heartbeat)
        ev_timer_stop(ev_default_loop(0), node->heartbeat);
    if (node->fd >= 0)
        close(near);
    while (node->pipes.first)
        pipeDetachPipe(&node->pipes, node->pipes.first);
    frameDelete(node->frame);
    for (void *owned :
         {static_cast<void *>(node->inbuf.buf), static_cast<void *>(node->name), node->channel_aux,
          static_cast<void *>(node->heartbeat), static_cast<void *>(node->watcher)})
        std::free(owned);
    std::free(node);
}

void TestChannel::send(std::span<const uint8_t> bytes)
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

void TestChannel::hangUp()
{
    if (far >= 0)
        close(far);
    far = -1;
}

std::string TestChannel::heard()
{
    char text[64];
    const ssize_t got = recv(far, text, sizeof text, MSG_DONTWAIT);
    return {text, got > 0 ? static_cast<size_t>(got) : 0};
}

int TestChannel::run()
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

void TestChannel::runLeftovers()
{
    for (int events = 0; node->read_count != 0 && events < kSpinning; events++)
        node->reader(node);
}

} // namespace vu::test
