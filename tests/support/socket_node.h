// A node at one end of a socket pair, gone with the object.
#pragma once

#include <cstdlib>
#include <ev.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "libvu/proxy/proxy_node.h"

namespace vu::test {

// What a host owns of a channel: the node and all that hangs on it, pipes, both sockets. Signals and sets on
// the node stay with whoever hung them there. A node that could not be made is null.
struct SocketNode {
    explicit SocketNode(const std::string &stanza, double pipeRate = 10.0)
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0)
            std::abort();
        near = ends[0];
        far = ends[1];
        node = proxyNode_Create(stanza.c_str(), near, pipeRate);
    }
    ~SocketNode()
    {
        hangUp();
        if (!node || node->fd >= 0)
            close(near);
        if (!node)
            return;
        ev_io_stop(ev_default_loop(0), node->watcher);
        if (node->heartbeat)
            ev_timer_stop(ev_default_loop(0), node->heartbeat);
        while (node->pipes.first)
            pipeDetachPipe(&node->pipes, node->pipes.first);
        frameDelete(node->frame);
        for (void *owned : std::initializer_list<void *>{node->inbuf.buf, node->name, node->channel_aux,
                                                         node->heartbeat, node->watcher, node})
            std::free(owned);
    }
    SocketNode(SocketNode &&) = delete;

    ProxyNode *operator->() const { return node; }
    Pipe *listen() { return pipeAttachPipe(&node->pipes); }
    void hangUp()
    {
        if (far >= 0)
            close(std::exchange(far, -1));
    }

    int far = -1;  // the peer's end, non-blocking; -1 after hangUp()
    int near = -1; // the end that the node was given
    ProxyNode *node = nullptr;
};

} // namespace vu::test
