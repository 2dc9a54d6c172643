#include "vu/krdfile/blocks.h"

#include <algorithm>

#include "libvu/datafile/krd_format.h"

namespace vu::krd {

namespace {

constexpr uint64_t kTagOffset = offsetof(KrdBlockHeader, tag);
constexpr uint64_t kTagSize = sizeof KRD_TAG - 1;

bool tagAt(Bytes file, uint64_t offset)
{
    return file.size() - offset >= KRD_HEADER_SIZE &&
           std::memcmp(file.data() + offset + kTagOffset, KRD_TAG, kTagSize) == 0;
}

// `sum` gives the checksum of so many bytes from an offset on.
template <typename Sum>
std::optional<Block> provenBlock(Bytes file, uint64_t offset, Sum &&sum)
{
    if (offset > file.size() || file.size() - offset < KRD_FRAMING_SIZE || !tagAt(file, offset))
        return std::nullopt;
    const uint32_t size = loadBig32(file.data() + offset);
    if (size < KRD_FRAMING_SIZE || size > file.size() - offset)
        return std::nullopt;
    const Bytes whole = file.subspan(offset, size);
    const uint8_t *trailer = whole.data() + size - KRD_TRAILER_SIZE;
    // The cheap question first: most bytes that look like a header have no second size word.
    if (loadBig32(trailer + offsetof(KrdBlockTrailer, size)) != size ||
        loadBig32(trailer) != sum(offset, size - KRD_TRAILER_SIZE))
        return std::nullopt;
    return Block{offset, loadBig32(whole.data() + offsetof(KrdBlockHeader, group)), whole,
                 whole.subspan(KRD_HEADER_SIZE, size - KRD_FRAMING_SIZE)};
}

} // namespace

std::optional<Block> blockAt(Bytes file, uint64_t offset)
{
    return provenBlock(file, offset,
                       [&](uint64_t begin, uint64_t size) { return checksum(file.subspan(begin, size)); });
}

std::optional<Block> blockBefore(Bytes file, uint64_t end)
{
    if (end < KRD_FRAMING_SIZE || end > file.size())
        return std::nullopt;
    const uint32_t size = loadBig32(file.data() + end - sizeof(uint32_t));
    if (size > end)
        return std::nullopt;
    const auto block = blockAt(file, end - size);
    return block && block->whole.size() == size ? block : std::nullopt;
}

std::optional<Piece> BlockWalk::next()
{
    if (offset_ >= file_.size())
        return std::nullopt;
    const auto block = found_ ? found_ : proven(offset_);
    found_.reset();
    if (block) {
        offset_ += block->whole.size();
        return Piece{Piece::kBlock, block->offset, block->whole.size(), *block};
    }

    damaged_ = true;
    found_ = findBehind(offset_);
    const uint64_t from = offset_;
    offset_ = found_ ? found_->offset : file_.size();
    const auto kind = !found_ && unfinishedAt(from) ? Piece::kUnfinished : Piece::kDamage;
    return Piece{kind, from, offset_ - from, {}};
}

std::optional<Block> BlockWalk::proven(uint64_t offset)
{
    if (!damaged_)
        return blockAt(file_, offset);
    return provenBlock(file_, offset,
                       [this](uint64_t begin, uint64_t size) { return sums_.of(begin, size); });
}

// The next whole block behind `offset`: wherever the tag stands, one may begin before it.
std::optional<Block> BlockWalk::findBehind(uint64_t offset)
{
    const auto *end = file_.data() + file_.size();
    const auto *from = file_.data() + std::min<uint64_t>(offset + 1 + kTagOffset, file_.size());
    while (const void *tag = memmem(from, static_cast<size_t>(end - from), KRD_TAG, kTagSize)) {
        const auto *at = static_cast<const uint8_t *>(tag);
        if (const auto block = proven(static_cast<uint64_t>(at - file_.data()) - kTagOffset))
            return block;
        from = at + 1;
    }
    return std::nullopt;
}

bool BlockWalk::unfinishedAt(uint64_t offset) const
{
    const uint64_t left = file_.size() - offset;
    if (left < KRD_HEADER_SIZE)
        return true;
    return tagAt(file_, offset) && loadBig32(file_.data() + offset) > left;
}

} // namespace vu::krd
