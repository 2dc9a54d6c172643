#include "vu/krdfile/mend.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

#include "vu/krdfile/samples.h"

namespace vu::krd {

namespace {

struct Span {
    int64_t begin = 0;
    int64_t end = 0;
    size_t block = 0;      // its place among the blocks of the channel
    ptrdiff_t before = -1; // the span before it in the longest row that ends with it; -1: none
};

// The blocks that hold samples, in the order of the file.
std::vector<Span> spansOf(const Channel &channel, const std::vector<Block> &blocks, BlockReader &reader)
{
    std::vector<Span> spans;
    for (size_t i = 0; i < blocks.size(); ++i) {
        const auto begin = positionOf(channel, blocks[i]);
        const uint64_t samples = countElements(channel, blocks[i], reader).value_or(0);
        Span span{begin.value_or(-1), 0, i};
        if (span.begin >= 0 && !__builtin_add_overflow(span.begin, static_cast<int64_t>(samples), &span.end))
            spans.push_back(span);
    }
    return spans;
}

// The places of the longest row of blocks in which each begins at or after the end of the one before it.
std::set<size_t> longestRow(std::vector<Span> spans)
{
    std::vector<size_t> ends; // [n]: of all rows of n + 1 spans, the last span of the one that ends lowest
    for (size_t i = 0; i < spans.size(); ++i) {
        const auto row =
            std::ranges::upper_bound(ends, spans[i].begin, {}, [&](size_t span) { return spans[span].end; });
        spans[i].before = row == ends.begin() ? -1 : static_cast<ptrdiff_t>(*std::prev(row));
        if (row == ends.end())
            ends.push_back(i);
        else if (spans[i].end < spans[*row].end)
            *row = i;
    }
    std::set<size_t> kept;
    for (auto at = ends.empty() ? -1 : static_cast<ptrdiff_t>(ends.back()); at >= 0;
         at = spans[static_cast<size_t>(at)].before)
        kept.insert(spans[static_cast<size_t>(at)].block);
    return kept;
}

class Mender {
public:
    explicit Mender(const Recording &recording) : ledger_(ledgerByGroup(recording.closing))
    {
        mended_.recording = recording;
    }

    Mended run()
    {
        if (mended_.recording.catalogue)
            for (const Channel &channel : mended_.recording.catalogue->channels)
                look(channel);
        const auto gone = [this](const Block &block) { return gone_.contains(block.offset); };
        std::erase_if(mended_.recording.blocks, gone);
        for (auto &[group, blocks] : mended_.recording.groups)
            std::erase_if(blocks, gone);
        return std::move(mended_);
    }

private:
    void look(const Channel &channel)
    {
        const auto &blocks = mended_.recording.blocksOf(channel.group);
        if (channel.periodic() && channel.hasPosition)
            keepRising(channel, blocks);
        else if (channel.kind != Kind::kUnknown)
            dropDoubled(channel, blocks);
    }
    void keepRising(const Channel &channel, const std::vector<Block> &blocks);
    void dropDoubled(const Channel &channel, const std::vector<Block> &blocks);
    void drop(const Channel &channel, const Block &block)
    {
        if (mended_.left_out++ == 0)
            mended_.first_left_out = fmt::format("{} at {}", channel.name, block.offset);
        mended_.elements += countElements(channel, block, reader_).value_or(0);
        gone_.insert(block.offset);
    }

    const std::map<uint32_t, const LedgerEntry *> ledger_;
    BlockReader reader_;
    Mended mended_;
    std::set<uint64_t> gone_; // offsets of blocks
};

void Mender::keepRising(const Channel &channel, const std::vector<Block> &blocks)
{
    const std::set<size_t> kept = longestRow(spansOf(channel, blocks, reader_));
    for (size_t i = 0; i < blocks.size(); ++i)
        // What is not made of complete elements has no end to compare; it is kept, and reported by a check.
        if (!kept.contains(i) && countElements(channel, blocks[i], reader_))
            drop(channel, blocks[i]);
}

void Mender::dropDoubled(const Channel &channel, const std::vector<Block> &blocks)
{
    const auto line = ledger_.find(channel.group);
    if (line == ledger_.end())
        return;
    uint64_t elements = 0;
    for (const Block &block : blocks)
        elements += countElements(channel, block, reader_).value_or(0);
    for (size_t i = 1; i < blocks.size() && elements > line->second->stored; ++i) {
        const uint64_t more = countElements(channel, blocks[i], reader_).value_or(0);
        if (more == 0 || elements - line->second->stored < more || !sameBytes(blocks[i - 1], blocks[i]))
            continue;
        elements -= more;
        drop(channel, blocks[i]);
    }
}

} // namespace

Mended mend(const Recording &recording)
{
    return Mender(recording).run();
}

} // namespace vu::krd
