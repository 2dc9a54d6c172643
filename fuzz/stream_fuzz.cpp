// A module's connection behind the marker. The first byte picks byte order, scaling and start of the test,
// the second where a read ends. In two pieces or whole, the bytes leave the same behind.
#include <utility>

#include "fuzz/fuzz_module.h"

static auto play(uint8_t form, std::span<const uint8_t> bytes, size_t cut)
{
    FuzzModule module(form);
    module.feed(bytes.first(cut));
    module.feed(bytes.subspan(cut));
    return std::pair(module.node->inbuf.size, module.signal->sequentializer->sample_count);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const std::span bytes(data + 2, size - 2);
    if (play(data[0], bytes, bytes.size() * data[1] / 255) != play(data[0], bytes, bytes.size()))
        std::abort();
    return 0;
}
