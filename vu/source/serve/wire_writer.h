// The bytes of a channel connection: the marker, length-prefixed records, and the numbers inside them. What a
// record of each kind holds is written by the source of that kind.
//
// The buffer is used again after clear(), so a running source allocates nothing. Thread: any one.
#pragma once

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "libvu/core/wire_format.h"

namespace vu {

constexpr int64_t kTicksPerSecond = VU_TICKS_PER_SECOND; // ticks of 25 ns

enum class Endian { Big, Little };

template <class T>
T reversed(T value)
{
    if constexpr (sizeof(T) == 1)
        return value;
    else if constexpr (sizeof(T) == 2)
        return std::bit_cast<T>(__builtin_bswap16(std::bit_cast<uint16_t>(value)));
    else if constexpr (sizeof(T) == 4)
        return std::bit_cast<T>(__builtin_bswap32(std::bit_cast<uint32_t>(value)));
    else
        return std::bit_cast<T>(__builtin_bswap64(std::bit_cast<uint64_t>(value)));
}

class WireWriter {
public:
    // `samples`: the byte order that the marker announces. Lengths and timestamps are big-endian always.
    explicit WireWriter(Endian samples = Endian::Big) : samples_(samples) {}

    Endian samples() const { return samples_; }

    void marker();
    // What is written between begin and end is the body of one record; end writes its length.
    void beginRecord();
    void endRecord();
    // Ends a piece that has its own framing, as a stream's records have.
    void endUnframed() { ends_.push_back(bytes_.size()); }

    template <class T>
    void value(T number, Endian order)
    {
        if (order == Endian::Big)
            number = reversed(number);
        append(&number, sizeof number);
    }
    template <class T>
    void big(T number)
    {
        value(number, Endian::Big);
    }
    template <class T>
    void sample(T number)
    {
        value(number, samples_);
    }
    template <std::floating_point T>
    void samples(std::span<const T> values)
    {
        if (samples_ == Endian::Little)
            return append(values.data(), values.size_bytes());
        uint8_t *to = extend(values.size_bytes());
        for (size_t i = 0; i < values.size(); ++i) {
            const T swapped = reversed(values[i]);
            std::memcpy(to + i * sizeof(T), &swapped, sizeof(T));
        }
    }
    void text(std::string_view characters) { append(characters.data(), characters.size()); }
    void raw(std::span<const uint8_t> bytes) { append(bytes.data(), bytes.size()); }

    // A whole record of one timestamp and its content: a raw message, a sentence, an XCP message.
    void timed(int64_t ticks, std::string_view content);

    std::span<const uint8_t> bytes() const { return bytes_; }
    std::span<const size_t> ends() const { return ends_; } // the first byte after each record
    bool empty() const { return bytes_.empty(); }
    void clear();

private:
    void append(const void *from, size_t size)
    {
        const auto *bytes = static_cast<const uint8_t *>(from);
        bytes_.insert(bytes_.end(), bytes, bytes + size);
    }
    uint8_t *extend(size_t size);

    Endian samples_;
    std::vector<uint8_t> bytes_;
    std::vector<size_t> ends_;
    size_t lengthAt_ = 0;
};

} // namespace vu
