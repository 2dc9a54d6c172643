// A node at one end of a socket pair for fuzz targets, gone with the object.
#pragma once

#include <cstdlib>
#include <ev.h>
#include <span>
#include <sys/socket.h>
#include <unistd.h>

#include "libvu/core/callbacks.h"
#include "libvu/proxy/proxy_node.h"

// A record that claims to be huge costs no memory: its buffer can not be had.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

struct FuzzNode {
    int ends[2] = {-1, -1};
    ProxyNode *node;

    explicit FuzzNode(const char *stanza)
    {
        libvuErrorCallback = libvuCriticalErrorCallback =
            libvuChannelDisconnectCallback = [](const char *) { return 1; };
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends))
            std::abort();
        node = proxyNode_Create(stanza, ends[0], 10.0);
    }
    ~FuzzNode()
    {
        close(ends[1]);
        if (!node || node->fd >= 0)
            close(ends[0]);
        if (!node)
            return;
        ev_io_stop(ev_default_loop(0), node->watcher);
        while (node->pipes.first)
            pipeDetachPipe(&node->pipes, node->pipes.first);
        frameDelete(node->frame);
        for (void *owned : std::initializer_list<void *>{node->inbuf.buf, node->name, node->channel_aux,
                                                         node->watcher, node})
            std::free(owned);
    }
    FuzzNode(const FuzzNode &) = delete;

    // Records behind the marker, as if one read had brought them.
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
