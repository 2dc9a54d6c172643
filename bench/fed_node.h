// A channel whose bytes come from memory instead of its socket: what a reader costs and does by itself.
#pragma once

#include <cstdlib>
#include <ev.h>
#include <fcntl.h>
#include <span>
#include <string>
#include <unistd.h>

#include "libvu/proxy/proxy_node.h"

namespace vu::bench {

class FedNode {
public:
    // `fd` is closed with the node.
    explicit FedNode(const std::string &stanza, double pipeRate = 10.0, int fd = open("/dev/null", O_RDONLY))
        : node(proxyNode_Create(stanza.c_str(), fd, pipeRate))
    {
        node->state = PROXY_NODE_RECORDS_FLOW;
        node->reader = node->main_reader;
    }
    ~FedNode()
    {
        ev_io_stop(ev_default_loop(0), node->watcher);
        if (node->heartbeat)
            ev_timer_stop(ev_default_loop(0), node->heartbeat);
        close(node->fd);
        while (node->pipes.first)
            pipeDetachPipe(&node->pipes, node->pipes.first);
        frameDelete(node->frame);
        std::free(node->inbuf.buf);
        std::free(node->name);
        std::free(node->channel_aux);
        std::free(node->heartbeat);
        std::free(node->watcher);
        std::free(node);
    }
    FedNode(const FedNode &) = delete;
    FedNode &operator=(const FedNode &) = delete;

    // As if one read had brought the bytes; read() takes them.
    void bring(std::span<const uint8_t> bytes)
    {
        membufAppend(&node->inbuf, bytes.data(), static_cast<uint32_t>(bytes.size()));
        node->read_count = static_cast<uint32_t>(bytes.size());
    }
    // Events until every complete record is used up.
    void read()
    {
        while (node->read_count != 0)
            node->reader(node);
    }

    ProxyNode *const node;
};

} // namespace vu::bench
