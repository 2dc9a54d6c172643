// A module's connection after its marker. The first byte picks byte order, scaling and start of the test,
// the second where a read ends. Bytes that come in two pieces have the same effect as in one.
#include "fuzz/host.h"

static auto play(uint8_t form, std::span<const uint8_t> bytes, size_t cut)
{
    FuzzModule module(form);
    module.feed(bytes.first(cut));
    module.feed(bytes.subspan(cut));
    return std::pair(module->inbuf.size, module.signals.list->sequentializer->sample_count);
}

void fuzz(const uint8_t *data, size_t size)
{
    if (size < 2)
        return;
    const std::span bytes(data + 2, size - 2);
    require(play(data[0], bytes, bytes.size() * data[1] / 255) == play(data[0], bytes, bytes.size()));
}
