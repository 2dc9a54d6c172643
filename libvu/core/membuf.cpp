#include "libvu/core/membuf.h"

#include <bit>
#include <cstdlib>
#include <cstring>

#include "libvu/core/report.h"

namespace {

constexpr uint64_t kLargest = uint64_t{1} << 31;

// A growth beyond 2^31 bytes is refused like one for which there is no memory. Its report names 64-bit sizes:
// the power of two above the wanted size does not fit 32 bits.
void grow(Membuf *m, uint64_t wanted)
{
    if (m->capacity >= wanted)
        return;
    const uint64_t rounded = std::bit_ceil(wanted);
    void *buf = rounded > kLargest ? nullptr : std::realloc(m->buf, rounded);
    if (!buf) {
        libvuError("realloc() of buf=%p size=%u to size=%lu (max_size=%lu) failed\n",
                   static_cast<void *>(m->buf), m->capacity, static_cast<unsigned long>(rounded),
                   static_cast<unsigned long>(wanted));
        return;
    }
    m->buf = static_cast<uint8_t *>(buf);
    m->capacity = static_cast<uint32_t>(rounded);
    std::memset(m->buf + m->size, 0, m->capacity - m->size);
}

} // namespace

void membufExpand(Membuf *m, uint32_t wanted)
{
    grow(m, wanted);
}

void membufAssureAvailable(Membuf *m)
{
    if (m->capacity == m->size)
        grow(m, uint64_t{2} * m->capacity);
}

void membufAppend(Membuf *m, const void *src, uint32_t len)
{
    const uint64_t wanted = uint64_t{m->size} + len;
    grow(m, wanted);
    if (m->capacity < wanted)
        return;
    if (src && len > 0)
        std::memcpy(m->buf + m->size, src, len);
    m->size += len;
}

Membuf *membufInitialize(Membuf *m, uint32_t wanted, const void *src, uint32_t len)
{
    membufExpand(m, wanted);
    if (src)
        membufAppend(m, src, len);
    return m;
}

void membufRemove(Membuf *m, uint32_t pos, uint32_t len)
{
    const int64_t after = int64_t{m->size} - pos - len; // bytes that follow the cut
    if (after < 0) {
        libvuError("Bad arguments to membuf:remove() pos=%u + len=%u > size=%u", pos, len, m->size);
        return;
    }
    if (after > 0)
        std::memmove(m->buf + pos, m->buf + pos + len, static_cast<size_t>(after));
    m->size -= len;
}

void *membufExtract(Membuf *m, uint32_t pos, uint32_t len)
{
    const bool inside = uint64_t{pos} + len <= m->size;
    void *copy = inside ? std::malloc(len) : nullptr;
    if (copy && len > 0)
        std::memcpy(copy, m->buf + pos, len);
    membufRemove(m, pos, len);
    return copy;
}

Membuf *membufNew(const char *src, int32_t len)
{
    auto *m = static_cast<Membuf *>(std::calloc(1, sizeof(Membuf)));
    if (!m) {
        libvuError("Unable to allocate %d bytes for membuf", static_cast<int>(sizeof(Membuf)));
        return nullptr;
    }
    if (len > 0)
        membufInitialize(m, static_cast<uint32_t>(len), src, static_cast<uint32_t>(len));
    return m;
}
