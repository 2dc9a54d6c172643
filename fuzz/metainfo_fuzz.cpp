// Any text as metainfo; the first byte picks the signal number. No number without a slot is ever bound.
#include "fuzz/host.h"

void fuzz(const uint8_t *data, size_t size)
{
    if (size < 1)
        return;
    FuzzModule module(0);
    process_metainfo(module.node, data[0] * 16u, data + 1, static_cast<uint32_t>(size - 1));
    require(!static_cast<const StreamSlot *>(module->channel_aux)[0].context);
}
