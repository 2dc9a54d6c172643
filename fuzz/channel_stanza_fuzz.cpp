// Arbitrary text as a channel's stanza. Besides the sanitizers' checks: a node that is made can work, and one
// that is not made leaves nothing.
#include "fuzz/host.h"

void fuzz(const uint8_t *data, size_t size)
{
    const FuzzNode made(std::string(reinterpret_cast<const char *>(data), size));
    const ProxyNode *node = made.node;
    require(!node || (node->name && node->main_reader && node->record_size > 0 && node->frame_length > 0 &&
                      node->inbuf.capacity >= node->record_size && ev_is_active(node->watcher)));
}
