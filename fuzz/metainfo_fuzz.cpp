// Any text as metainfo; the first byte picks the signal number. No number without a slot is ever bound.
#include "fuzz/fuzz_module.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    FuzzModule module(0);
    process_metainfo(module.node, data[0] * 16u, data + 1, static_cast<uint32_t>(size - 1));
    if (static_cast<const StreamSlot *>(module.node->channel_aux)[0].context)
        std::abort();
    return 0;
}
