// The elements of a channel out of its blocks: numbered samples of a periodic one, timestamped messages of
// the others. What a block holds is checked when it is read; a block that is no whole number of elements
// reads as far as it goes, and countElements() reports it.
#pragma once

#include <optional>
#include <span>
#include <variant>

#include "vu/krdfile/blocks.h"
#include "vu/krdfile/catalogue.h"

namespace vu::krd {

// A value in the type in which it is exact: as stored, or a double once scale and offset have been applied.
using Number = std::variant<float, double, int64_t, uint64_t>;

double toDouble(const Number &number);

// The number of the sample `more` after `sample`; the last one there is if that is beyond all.
int64_t sampleAfter(int64_t sample, uint64_t more);

// `from` holds channel.valueSize() bytes.
Number physicalValue(const Channel &channel, const uint8_t *from);
// Whether these bytes are the stored value that stands for "no value".
bool isNoValue(const Channel &channel, const uint8_t *from);

// Elements of a block as the ledger counts them (of run-length storage, samples). Nothing if the block is too
// short for its leading fields, or not made of whole elements, or a count in it is none.
std::optional<uint64_t> countElements(const Channel &channel, const Block &block, BlockReader &reader);

// Bytes of samples in a block, after its leading fields.
uint32_t samplesSize(const Channel &channel, const Block &block);

// What `position` says at the front of a block; nothing if the channel has none or the block is too short.
std::optional<int64_t> positionOf(const Channel &channel, const Block &block);

// The samples of a periodic channel in the order of the file.
class SampleCursor {
public:
    SampleCursor(const Channel &channel, std::span<const Block> blocks, ReadProgress *progress = nullptr);

    bool atEnd() const { return left_ == 0; }
    int64_t sample() const { return sample_; } // its true number, with a gap where samples are missing
    const Number &value() const { return value_; }
    bool noValue() const { return no_value_; } // what is stored stands for "no value"
    uint64_t runLeft() const
    {
        return left_;
    } // samples from this one on that one stored run gives this value
    void next() { advance(1); }
    void advance(uint64_t samples); // at most runLeft()

private:
    void load();

    const Channel &channel_;
    std::span<const Block> blocks_; // not begun yet
    BlockReader reader_;
    Bytes data_; // of the block in hand, not taken yet
    int64_t sample_ = 0;
    Number value_;
    bool no_value_ = false;
    uint64_t left_ = 0; // 0: at the end
};

struct Message {
    int64_t tick = 0;
    Bytes body; // without the tick: a value, the rest of a CAN record, the bytes of a message
};

// The next message of the samples of a block, taken off their front; nothing at their end.
std::optional<Message> takeMessage(const Channel &channel, Bytes &data);

// The samples of a payload, after its leading fields.
Bytes samplesOf(const Channel &channel, Bytes payload);

// All messages of a channel, in the order of the file.
template <typename Visit>
void forEachMessage(const Channel &channel, std::span<const Block> blocks, Visit &&visit,
                    ReadProgress *progress = nullptr)
{
    BlockReader reader(progress);
    for (const Block &block : blocks) {
        Bytes data = samplesOf(channel, reader.payload(block));
        while (const auto message = takeMessage(channel, data))
            visit(*message);
    }
}

} // namespace vu::krd
