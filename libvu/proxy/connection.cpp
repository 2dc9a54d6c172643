// A node's connection: the marker, one read an event, the end of the connection, and stop.
#include <cerrno>
#include <cstring>
#include <ev.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "libvu/bus/can_signal.h"
#include "libvu/core/callbacks.h"
#include "libvu/core/framing_private.h"
#include "libvu/core/report.h"
#include "libvu/proxy/proxy_node.h"

namespace {

constexpr size_t kDiscardAtOnce = 1024;
constexpr int kStopTries = 10;
constexpr useconds_t kStopPause = 100; // microseconds

void startDiscarding(ProxyNode *node)
{
    node->state = PROXY_NODE_DISCARDS;
    node->reader = proxyNode_ProxyReaderDiscard;
}

// Nobody may use the socket's number once it is closed, since the next file that is opened can get it.
void closeSocket(ProxyNode *node)
{
    shutdown(node->fd, SHUT_RDWR);
    close(node->fd);
    node->fd = -1;
}

void endByError(ProxyNode *node, int error)
{
    node->last_errno = error;
    node->last_read = -1;
    node->disconnected = 1;
    libvu::restWatcher(node);
    if (error != EINVAL)
        closeSocket(node);
    libvuCriticalError("Error on connection to channel %s: %s", node->name, std::strerror(error));
}

void endByPeer(ProxyNode *node)
{
    node->last_errno = ECONNRESET;
    node->last_read = 0;
    node->disconnected = 1;
    libvu::restWatcher(node);
    if (libvuChannelDisconnectCallback) {
        libvuChannelDisconnectCallback(node->name);
        return;
    }
    logWarning("Channel '%s' unexpectedly disconnected from the test.", node->name);
    raise(SIGHUP);
}

} // namespace

namespace libvu {

void restWatcher(ProxyNode *node)
{
    if (!node->watcher)
        return; // a host that runs the readers itself
    ev_io_stop(ev_default_loop(0), node->watcher);
    ev_clear_pending(ev_default_loop(0), node->watcher);
}

void loseFraming(ProxyNode *node, uint32_t length)
{
    node->inbuf.size = 0;
    node->read_count = 0;
    node->parse_pos = 0;
    startDiscarding(node);
    libvuError("Channel %s: a record of %u bytes is impossible, the rest of the connection is discarded",
               node->name, length);
}

} // namespace libvu

void proxyNode_IoEvent(struct ev_loop *, struct ev_io *watcher, int)
{
    auto *node = static_cast<ProxyNode *>(watcher->data);
    node->reader(node);
}

void proxyNode_ProxyReaderMarker(ProxyNode *node)
{
    uint8_t marker[2] = {};
    const ssize_t got = read(node->fd, marker, sizeof marker);
    const bool big = marker[0] == 0xFE && marker[1] == 0xED;
    const bool little = marker[0] == 0xED && marker[1] == 0xFE;
    if (got != sizeof marker || !(big || little)) {
        startDiscarding(node);
        return;
    }
    for (CanSignalNode *signal = node->cs_list; signal; signal = signal->next)
        signal->state = PROXY_NODE_RECORDS_FLOW;
    node->state = PROXY_NODE_RECORDS_FLOW;
    node->reader = node->main_reader;
    if (little)
        node->byte_swap = proxyNode_swapNone;
}

void proxyNode_ProxyReaderDiscard(ProxyNode *node)
{
    uint8_t dropped[kDiscardAtOnce];
    const ssize_t got = read(node->fd, dropped, sizeof dropped);
    // A socket at its end stays readable, and would wake the loop for ever.
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR))
        libvu::restWatcher(node);
}

void proxyNode_ReadSocket(ProxyNode *node)
{
    const libvu::NodeCheck check(*node);
    if (node->read_count != 0)
        return;
    Membuf &in = node->inbuf;
    if (in.size == in.capacity)
        membufAssureAvailable(&in);
    // read() into a buffer without room returns 0, which would look like the end of the connection.
    if (in.size == in.capacity) {
        libvu::restWatcher(node);
        return;
    }
    const ssize_t got = read(node->fd, in.buf + in.size, in.capacity - in.size);
    if (got < 0 && errno == EAGAIN) {
        node->last_errno = 0;
        return;
    }
    if (got < 0) {
        endByError(node, errno);
        return;
    }
    if (got == 0) {
        endByPeer(node);
        return;
    }
    node->read_count = static_cast<uint32_t>(got);
    node->parse_pos = 0;
    in.size += node->read_count;
    if (in.size == in.capacity)
        membufAssureAvailable(&in);
}

void proxyNode_Stop(ProxyNode *node)
{
    libvu::restWatcher(node);
    if (node->fd <= 0)
        return;
    for (int tries = 1; tries <= kStopTries; tries++) {
        if (send(node->fd, "Stop", 4, 0) >= 0)
            return;
        if (tries == kStopTries)
            break; // whatever its error, the last failure is reported as a timeout
        if (errno == EPIPE || errno == ECONNRESET)
            return;
        if (errno != EAGAIN) {
            logNotice("Unexpected write error on %d", node->fd);
            return;
        }
        usleep(kStopPause);
    }
    logNotice("Stop send timeout %d", node->fd);
}
