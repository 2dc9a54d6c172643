#include "vu/krdfile/blocks.h"

#include <algorithm>
#include <array>

#include "libvu/datafile/krd_format.h"

namespace vu::krd {

namespace {

constexpr uint64_t kTagOffset = offsetof(KrdBlockHeader, tag);
constexpr uint64_t kTagSize = sizeof KRD_TAG - 1;

bool tagAt(const InputFile &file, Window &window, uint64_t offset)
{
    return file.size() - offset >= KRD_HEADER_SIZE &&
           std::memcmp(window.at(offset + kTagOffset, kTagSize).data(), KRD_TAG, kTagSize) == 0;
}

// `sum` gives the checksum of so many bytes from an offset on.
template <typename Sum>
std::optional<Block> provenBlock(const InputFile &file, Window &window, uint64_t offset, Sum &&sum)
{
    if (offset > file.size() || file.size() - offset < KRD_FRAMING_SIZE || !tagAt(file, window, offset))
        return std::nullopt;
    const Bytes header = window.at(offset, KRD_HEADER_SIZE);
    const Block block{&file, offset, loadBig32(header.data() + offsetof(KrdBlockHeader, group)),
                      loadBig32(header.data())};
    if (block.size < KRD_FRAMING_SIZE || block.size > file.size() - offset)
        return std::nullopt;
    std::array<uint8_t, KRD_TRAILER_SIZE> trailer;
    window.copy(offset + block.size - trailer.size(), trailer);
    // The cheap question first: most bytes that look like a header have no second size word.
    if (loadBig32(trailer.data() + offsetof(KrdBlockTrailer, size)) != block.size ||
        loadBig32(trailer.data()) != sum(offset, block.size - KRD_TRAILER_SIZE))
        return std::nullopt;
    return block;
}

} // namespace

uint64_t Block::payloadOffset() const
{
    return offset + KRD_HEADER_SIZE;
}

uint32_t Block::payloadSize() const
{
    return size - static_cast<uint32_t>(KRD_FRAMING_SIZE);
}

Bytes BlockReader::payload(const Block &block)
{
    const uint32_t size = block.payloadSize();
    if (progress_)
        progress_->more(block.size);
    if (block.file->memory().data())
        return block.file->memory().subspan(block.payloadOffset(), size);
    if (room_.size() < size)
        room_.resize(size);
    block.file->read(block.payloadOffset(), std::span(room_).first(size));
    return Bytes(room_).first(size);
}

bool sameBytes(const Block &one, const Block &other)
{
    if (one.size != other.size)
        return false;
    Window ones(*one.file), others(*other.file);
    bool same = true;
    uint64_t at = 0;
    forEachPiece(ones, one.offset, one.size, [&](Bytes piece) {
        same = same && std::ranges::equal(piece, others.at(other.offset + at, piece.size()));
        at += piece.size();
    });
    return same;
}

std::optional<Block> blockAt(const InputFile &file, uint64_t offset)
{
    Window window(file);
    return provenBlock(file, window, offset,
                       [&](uint64_t begin, uint64_t size) { return checksum(window, begin, size); });
}

std::optional<Block> blockBefore(const InputFile &file, uint64_t end)
{
    if (end < KRD_FRAMING_SIZE || end > file.size())
        return std::nullopt;
    std::array<uint8_t, sizeof(uint32_t)> last;
    file.read(end - last.size(), last);
    const uint32_t size = loadBig32(last.data());
    if (size > end)
        return std::nullopt;
    const auto block = blockAt(file, end - size);
    return block && block->size == size ? block : std::nullopt;
}

std::optional<Piece> BlockWalk::next()
{
    if (offset_ >= file_.size())
        return std::nullopt;
    const auto block = found_ ? found_ : proven(offset_);
    found_.reset();
    if (block) {
        offset_ += block->size;
        return Piece{Piece::kBlock, block->offset, block->size, *block};
    }

    found_ = findAfter(offset_);
    const uint64_t from = offset_;
    offset_ = found_ ? found_->offset : file_.size();
    const auto kind = !found_ && unfinishedAt(from) ? Piece::kUnfinished : Piece::kDamage;
    return Piece{kind, from, offset_ - from, {}};
}

std::optional<Block> BlockWalk::proven(uint64_t offset)
{
    uint64_t summed = 0;
    const auto block = provenBlock(file_, window_, offset, [&](uint64_t begin, uint64_t size) {
        summed = size;
        return sumOf(begin, size);
    });
    wasted_ += block ? 0 : summed;
    return block;
}

// Headers that begin no block may all claim the same bytes. Once they have cost as much as one walk through
// the file, the checksums of its beginnings pay.
uint32_t BlockWalk::sumOf(uint64_t offset, uint64_t size)
{
    return wasted_ < file_.size() ? checksum(window_, offset, size) : sums_.of(offset, size);
}

// The next whole block after `offset`: wherever the tag is, one may begin before it.
std::optional<Block> BlockWalk::findAfter(uint64_t offset)
{
    uint64_t from = offset + 1 + kTagOffset;
    while (from + kTagSize <= file_.size()) {
        const Bytes piece = window_.at(from, std::min<uint64_t>(file_.size() - from, Window::kPiece));
        const auto *tag = static_cast<const uint8_t *>(memmem(piece.data(), piece.size(), KRD_TAG, kTagSize));
        if (!tag) {
            from += piece.size() - (kTagSize - 1); // a tag may be cut by the end of the piece
            continue;
        }
        from += static_cast<uint64_t>(tag - piece.data());
        if (const auto block = proven(from - kTagOffset))
            return block;
        from++;
    }
    return std::nullopt;
}

bool BlockWalk::unfinishedAt(uint64_t offset)
{
    const uint64_t left = file_.size() - offset;
    if (left < KRD_HEADER_SIZE)
        return true;
    return tagAt(file_, window_, offset) && loadBig32(window_.at(offset, KRD_HEADER_SIZE).data()) > left;
}

} // namespace vu::krd
