// Intake, the cutting: complete records out of the bytes that have come, long ones in parts.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "vu/record/intake.h"
#include "vu/record/intake_wire.h"

namespace vu {

namespace {

constexpr uint32_t kLongestBody = (uint32_t{1} << 31) - 1; // beyond it the reader gives the channel up

} // namespace

bool Intake::takeNext()
{
    if (rest_is_ == Rest::kMessage && (rest_ > 0 || message_.size > 0))
        return gatherMessage();
    if (rest_ == 0)
        return takeNew();
    return rest_is_ == Rest::kEntries ? takePart() : skip();
}

// The bytes are neither handed on nor looked at again.
void Intake::pass(uint32_t bytes)
{
    handBatch();
    at_ += bytes;
    batch_ = at_;
}

bool Intake::readHead(Head &head) const
{
    constexpr uint32_t kSizeShift = 20, kSizeMask = 0xFF, kTypeShift = 28, kTypeMask = 3, kMetainfo = 2;
    if (arrived() < kLengthWord)
        return false;
    const uint32_t word = loadWord(here());
    head = {kLengthWord, word, layout_.entry > 0};
    if (!module_stream_)
        return true;
    head.divisible = ((word >> kTypeShift) & kTypeMask) != kMetainfo;
    head.length = (word >> kSizeShift) & kSizeMask;
    if (head.length > 0)
        return true;
    head.size = 2 * kLengthWord; // the length follows in a word of its own
    if (arrived() < head.size)
        return false;
    head.length = loadWord(here() + kLengthWord);
    return true;
}

bool Intake::takeNew()
{
    Head head{};
    if (!readHead(head))
        return false;
    if (head.length > kLongestBody) { // the reader reports it and gives the channel up
        handBatch();
        hand(here(), arrived());
        return false;
    }
    const uint32_t complete = head.size + head.length;
    if (complete <= arrived())
        return takeComplete(head);
    return complete > kCompleteRecord && takeLong(head);
}

bool Intake::takeComplete(const Head &head)
{
    const uint8_t *body = here() + head.size;
    if (sequential_)
        noteSequence(head);
    if (!head.divisible) {
        if (module_stream_ || head.length < kTime || takeMessage(body, head.size + head.length))
            at_ += filling_ ? 0 : head.size + head.length;
        return true;
    }
    const uint32_t bytes = head.length - std::min(head.length, layout_.head);
    const uint32_t count = bytes / layout_.entry;
    if (completesFrame(head) ||
        (guard_.watches() && fineEntries(at_ + head.size + layout_.head, count) < count))
        divide(head);
    else
        at_ += head.size + head.length;
    return true;
}

// One that has not come completely, and never will at once.
bool Intake::takeLong(const Head &head)
{
    if (head.divisible) {
        if (arrived() < head.size + layout_.head)
            return false;
        if (sequential_)
            noteSequence(head);
        divide(head);
        return true;
    }
    handBatch();
    rest_ = uint64_t{head.size} + head.length;
    rest_is_ = Rest::kSkipped;
    if (head.length <= kLongestMessage)
        membufExpand(&message_, head.size + head.length);
    if (message_.capacity >= rest_)
        rest_is_ = Rest::kMessage;
    else
        too_long_++;
    head_word_ = head.size;
    return true;
}

// From here on the record is handed on in parts.
void Intake::divide(const Head &head)
{
    head_word_ = head.size;
    head_size_ = head.size + layout_.head;
    std::memcpy(head_, here(), head_size_);
    pass(head_size_);
    rest_ = head.length - layout_.head;
    rest_is_ = Rest::kEntries;
}

// How many entries make a part: of a periodic channel, no more than fill its frame, so that the next one can
// come from the pool.
uint32_t Intake::entriesAtOnce() const
{
    const uint32_t most = std::max(kBatch / layout_.entry, 1u);
    if (!sequential_ || !node_.pipes.first)
        return most;
    return std::min(most, node_.frame ? frameAvailable(node_.frame) : node_.frame_length);
}

bool Intake::completesFrame(const Head &head) const
{
    if (!sequential_ || !node_.pipes.first || head.length < layout_.head + layout_.entry)
        return false;
    const uint32_t samples = (head.length - layout_.head) / layout_.entry;
    const uint32_t waiting = (at_ - batch_) / layout_.entry; // about: in records that are ready
    return samples + waiting >= (node_.frame ? frameAvailable(node_.frame) : node_.frame_length);
}

bool Intake::takePart()
{
    const auto here = static_cast<uint32_t>(std::min<uint64_t>(arrived(), rest_));
    const uint32_t count = std::min(here / layout_.entry, entriesAtOnce());
    if (count == 0) {
        if (rest_ >= layout_.entry)
            return false;
        rest_is_ = Rest::kSkipped; // bytes that are no entry
        return true;
    }
    const uint32_t fine = guard_.watches() ? fineEntries(at_, count) : count;
    if (fine > 0) {
        handPart(fine);
    } else if (!takeMessage(own_.buf + at_, layout_.entry)) {
        rest_ -= layout_.entry;
    }
    return true;
}

// The record's head in front of some of its entries, over bytes that have been used already.
void Intake::handPart(uint32_t entries)
{
    constexpr uint32_t kSizeShift = 20, kSizeMask = 0xFF;
    const uint32_t bytes = entries * layout_.entry, length = layout_.head + bytes;
    uint8_t *front = own_.buf + at_ - head_size_;
    std::memcpy(front, head_, head_size_);
    if (module_stream_ && head_word_ == kLengthWord)
        storeWord(front, (loadWord(front) & ~(kSizeMask << kSizeShift)) | length << kSizeShift);
    else
        storeWord(front + head_word_ - kLengthWord, length);
    hand(front, head_size_ + bytes);
    at_ += bytes;
    rest_ -= bytes;
    batch_ = at_;
}

bool Intake::gatherMessage()
{
    if (rest_ > 0) {
        const auto bytes = static_cast<uint32_t>(std::min<uint64_t>(arrived(), rest_));
        if (bytes == 0)
            return false;
        membufAppend(&message_, here(), bytes);
        pass(bytes);
        rest_ -= bytes;
        return true;
    }
    const bool fine = module_stream_ || takeMessage(message_.buf + head_word_, 0);
    if (filling_)
        return true; // once more when the gap is filled
    if (fine)
        hand(message_.buf, message_.size);
    std::free(message_.buf);
    message_ = {};
    return true;
}

bool Intake::skip()
{
    const auto bytes = static_cast<uint32_t>(std::min<uint64_t>(arrived(), rest_));
    pass(bytes);
    rest_ -= bytes;
    return bytes > 0;
}

} // namespace vu
