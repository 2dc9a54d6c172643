#include "vu/krdfile/samples.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <type_traits>

#include "libvu/core/wire_format.h"

namespace vu::krd {

namespace {

constexpr size_t kTickBytes = VU_TIME_BYTES;
constexpr size_t kLengthBytes = VU_LENGTH_BYTES;
constexpr double kTwoTo63 = 9223372036854775808.0;

Number storedValue(Element element, const uint8_t *from)
{
    switch (element) {
    case Element::kFloat32: return loadLittle<float>(from);
    case Element::kFloat64: return loadLittle<double>(from);
    case Element::kInt8: return int64_t{loadLittle<int8_t>(from)};
    case Element::kUint8: return uint64_t{loadLittle<uint8_t>(from)};
    case Element::kInt16: return int64_t{loadLittle<int16_t>(from)};
    case Element::kUint16: return uint64_t{loadLittle<uint16_t>(from)};
    case Element::kInt32: return int64_t{loadLittle<int32_t>(from)};
    case Element::kUint32: return uint64_t{loadLittle<uint32_t>(from)};
    case Element::kInt64: return loadLittle<int64_t>(from);
    case Element::kUint64: return loadLittle<uint64_t>(from);
    case Element::kCan:
    case Element::kBytes:
    case Element::kUnknown: break; // no numbers, and nobody asks for one
    }
    return uint64_t{0};
}

// In the type of the stored value: beyond 2^53 neighbouring whole numbers are one double.
template <typename T>
bool isSame(T stored, double wanted)
{
    if constexpr (std::is_same_v<T, float>) {
        return std::abs(wanted) <= std::numeric_limits<float>::max() && stored == static_cast<float>(wanted);
    } else if constexpr (std::is_same_v<T, double>) {
        return stored == wanted;
    } else {
        constexpr double kBeyond = std::is_signed_v<T> ? kTwoTo63 : 2 * kTwoTo63;
        constexpr double kLowest = std::is_signed_v<T> ? -kTwoTo63 : 0.0;
        return wanted >= kLowest && wanted < kBeyond && wanted == std::floor(wanted) &&
               stored == static_cast<T>(wanted);
    }
}

// The count of a run; nothing if it is negative, no whole number or beyond all sample numbers.
std::optional<uint64_t> runCount(Element element, const uint8_t *from)
{
    const Number stored = storedValue(element, from);
    if (const auto *count = std::get_if<uint64_t>(&stored))
        return *count > uint64_t{INT64_MAX} ? std::nullopt : std::optional(*count);
    if (const auto *count = std::get_if<int64_t>(&stored))
        return *count < 0 ? std::nullopt : std::optional(static_cast<uint64_t>(*count));
    const double count = toDouble(stored);
    if (!(count >= 0.0 && count < kTwoTo63) || count != std::floor(count))
        return std::nullopt;
    return static_cast<uint64_t>(count);
}

std::optional<uint64_t> countRuns(const Channel &channel, Bytes data)
{
    const size_t pair = 2 * size_t{channel.valueSize()};
    uint64_t sum = 0;
    if (data.size() % pair != 0)
        return std::nullopt;
    for (; !data.empty(); data = data.subspan(pair)) {
        const auto count = runCount(channel.element, data.data());
        if (!count || __builtin_add_overflow(sum, *count, &sum) || sum > uint64_t{INT64_MAX})
            return std::nullopt;
    }
    return sum;
}

} // namespace

double toDouble(const Number &number)
{
    return std::visit([](auto value) { return static_cast<double>(value); }, number);
}

int64_t sampleAfter(int64_t sample, uint64_t more)
{
    int64_t sum = 0;
    if (more > uint64_t{INT64_MAX} || __builtin_add_overflow(sample, static_cast<int64_t>(more), &sum))
        return INT64_MAX;
    return sum;
}

Number physicalValue(const Channel &channel, const uint8_t *from)
{
    const Number stored = storedValue(channel.element, from);
    if (channel.identity())
        return stored;
    return toDouble(stored) * channel.scale + channel.offset;
}

bool isNoValue(const Channel &channel, const uint8_t *from)
{
    return channel.invalid && std::visit([&](auto stored) { return isSame(stored, *channel.invalid); },
                                         storedValue(channel.element, from));
}

std::optional<int64_t> positionOf(const Channel &channel, const Block &block)
{
    if (!channel.hasPosition || block.payloadSize() < channel.leadingBytes())
        return std::nullopt;
    std::array<uint8_t, sizeof(int64_t)> bytes;
    block.file->read(block.payloadOffset(), bytes);
    return loadLittle<int64_t>(bytes.data());
}

Bytes samplesOf(const Channel &channel, Bytes payload)
{
    return payload.size() < channel.leadingBytes() ? Bytes() : payload.subspan(channel.leadingBytes());
}

uint32_t samplesSize(const Channel &channel, const Block &block)
{
    return block.payloadSize() - std::min(block.payloadSize(), channel.leadingBytes());
}

std::optional<uint64_t> countElements(const Channel &channel, const Block &block, BlockReader &reader)
{
    if (channel.kind == Kind::kUnknown || block.payloadSize() < channel.leadingBytes())
        return std::nullopt;
    if (!channel.runLength && channel.elementSize > 0) {
        const uint64_t bytes = samplesSize(channel, block);
        return bytes % channel.elementSize == 0 ? std::optional(bytes / channel.elementSize) : std::nullopt;
    }
    Bytes data = samplesOf(channel, reader.payload(block));
    if (channel.runLength)
        return countRuns(channel, data);
    uint64_t messages = 0;
    while (takeMessage(channel, data))
        ++messages;
    return data.empty() ? std::optional(messages) : std::nullopt;
}

SampleCursor::SampleCursor(const Channel &channel, std::span<const Block> blocks, ReadProgress *progress)
    : channel_(channel), blocks_(blocks), reader_(progress)
{
    load();
}

void SampleCursor::advance(uint64_t samples)
{
    sample_ = sampleAfter(sample_, samples);
    left_ -= std::min(samples, left_);
    if (left_ == 0)
        load();
}

// Takes the next run, passing over empty runs and blocks without a complete element.
void SampleCursor::load()
{
    const size_t value = channel_.valueSize();
    const size_t element = channel_.runLength ? 2 * value : value;
    while (left_ == 0) {
        if (data_.size() < element) {
            if (blocks_.empty())
                return;
            sample_ = std::max<int64_t>(positionOf(channel_, blocks_.front()).value_or(sample_), 0);
            data_ = samplesOf(channel_, reader_.payload(blocks_.front()));
            blocks_ = blocks_.subspan(1);
            continue;
        }
        left_ = channel_.runLength ? runCount(channel_.element, data_.data()).value_or(0) : 1;
        value_ = physicalValue(channel_, data_.data() + element - value);
        no_value_ = isNoValue(channel_, data_.data() + element - value);
        data_ = data_.subspan(element);
    }
}

std::optional<Message> takeMessage(const Channel &channel, Bytes &data)
{
    size_t lead = 0;
    size_t size = channel.elementSize;
    if (channel.element == Element::kBytes) {
        if (data.size() < kLengthBytes)
            return std::nullopt;
        lead = kLengthBytes;
        size = kLengthBytes + size_t{loadLittle<uint32_t>(data.data())};
    }
    if (size < lead + kTickBytes || size > data.size())
        return std::nullopt;
    const Bytes element = data.subspan(lead, size - lead);
    data = data.subspan(size);
    // Plain float messages keep the time as it came on the wire.
    const int64_t tick = channel.kind == Kind::kFloat ? static_cast<int64_t>(loadBig64(element.data()))
                                                      : loadLittle<int64_t>(element.data());
    return Message{tick, element.subspan(kTickBytes)};
}

} // namespace vu::krd
