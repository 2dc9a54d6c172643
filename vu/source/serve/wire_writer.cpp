#include "vu/source/serve/wire_writer.h"

namespace vu {

void WireWriter::marker()
{
    constexpr uint8_t kBig[] = {0xFE, 0xED};
    constexpr uint8_t kLittle[] = {0xED, 0xFE};
    raw(samples_ == Endian::Big ? kBig : kLittle);
}

void WireWriter::beginRecord()
{
    lengthAt_ = bytes_.size();
    extend(4);
}

void WireWriter::endRecord()
{
    const uint32_t length = reversed(static_cast<uint32_t>(bytes_.size() - lengthAt_ - 4));
    std::memcpy(bytes_.data() + lengthAt_, &length, sizeof length);
    ends_.push_back(bytes_.size());
}

void WireWriter::timed(int64_t ticks, std::string_view content)
{
    beginRecord();
    big(ticks);
    text(content);
    endRecord();
}

void WireWriter::clear()
{
    bytes_.clear();
    ends_.clear();
}

uint8_t *WireWriter::extend(size_t size)
{
    bytes_.resize(bytes_.size() + size);
    return bytes_.data() + bytes_.size() - size;
}

} // namespace vu
