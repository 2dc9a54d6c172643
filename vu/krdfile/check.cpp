#include "vu/krdfile/check.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

#include "libvu/datafile/krd_format.h"
#include "vu/krdfile/samples.h"

namespace vu::krd {

namespace {

// What an entry discards, whatever the cause; nothing if that is beyond what 64 bits count.
std::optional<uint64_t> discardedOf(const LedgerEntry &entry)
{
    uint64_t sum = 0;
    for (const auto &[cause, count] : entry.discarded)
        if (__builtin_add_overflow(sum, count, &sum))
            return std::nullopt;
    return sum;
}

// received = stored + discarded, without a wrap at 2^64.
bool closes(const LedgerEntry &entry)
{
    const auto discarded = discardedOf(entry);
    uint64_t sum = 0;
    return discarded && !__builtin_add_overflow(entry.stored, *discarded, &sum) && sum == entry.received;
}

class Checker {
public:
    explicit Checker(const Recording &recording)
        : recording_(recording), ledger_(ledgerByGroup(recording.closing))
    {
    }

    Check run()
    {
        checkBytes();
        if (recording_.catalogue) {
            for (const Channel &channel : recording_.catalogue->channels)
                checkChannel(channel);
        }
        checkNotStored();
        checkGroups();
        checkIndex();
        return std::move(result_);
    }

private:
    template <typename... Values>
    void problem(fmt::format_string<Values...> text, Values &&...values)
    {
        result_.problems.push_back(fmt::format(text, std::forward<Values>(values)...));
    }

    void checkBytes();
    void checkChannel(const Channel &channel);
    void checkPosition(const Channel &channel, const Block &block, uint64_t elements, ChannelCheck &found);
    void checkLedger(const LedgerEntry &entry, const ChannelCheck &found);
    void checkNotStored();
    void checkCloses(const LedgerEntry &entry);
    void checkGroups();
    void checkIndex();

    const Recording &recording_;
    const std::map<uint32_t, const LedgerEntry *> ledger_;
    BlockReader reader_;
    Check result_;
    int64_t expected_ = -1; // sample number after the block before; -1: there was none
};

void Checker::checkBytes()
{
    for (const Damage &damage : recording_.damage)
        problem("damage: {} bytes at {}", damage.bytes, damage.offset);
    if (recording_.unfinishedBytes > 0)
        problem(
            "the file ends inside a block, {} bytes after its beginning: a full disk or a killed recorder "
            "leaves that, and everything before it is whole",
            recording_.unfinishedBytes);
    for (const std::string &text : recording_.problems)
        problem("{}", text);
    if (const Rest &rest = recording_.rest; rest.bytes > 0)
        problem("{} begins at {}: {} bytes in {} blocks, which are no part of this recording",
                rest.another ? "another recording" : "something after its closing block", rest.offset,
                rest.bytes, rest.blocks);
    if (!recording_.catalogue || recording_.catalogueIsCopy)
        problem("the catalogue is lost{}",
                recording_.catalogue ? "; its copy in the closing block is used" : "");
    if (!recording_.closing)
        problem("there is no closing block: the recording was not ended properly");
}

void Checker::checkChannel(const Channel &channel)
{
    ChannelCheck found;
    found.group = channel.group;
    found.name = channel.name;
    expected_ = -1;
    const auto &blocks = recording_.blocksOf(channel.group);
    found.blocks = blocks.size();
    for (const Block &block : blocks) {
        const auto elements = countElements(channel, block, reader_);
        if (elements) {
            found.elements += *elements;
            checkPosition(channel, block, *elements, found);
        } else if (channel.kind != Kind::kUnknown) {
            problem("{}: the block at {} is not made of whole elements", channel.name, block.offset);
        }
    }
    const auto line = ledger_.find(channel.group);
    const LedgerEntry *entry = line == ledger_.end() ? nullptr : line->second;
    if (entry && channel.kind != Kind::kUnknown)
        checkLedger(*entry, found);
    else if (recording_.closing && !entry)
        problem("{}: the ledger does not know it", channel.name);
    found.stored = entry ? entry->stored : 0;
    found.inLedger = entry != nullptr;
    const uint64_t explained = entry ? discardedOf(*entry).value_or(0) : 0;
    if (found.gaps > explained)
        problem("{}: {} samples are missing between its blocks", channel.name, found.gaps - explained);
    result_.channels.push_back(std::move(found));
}

// Sample numbers rise from block to block; what is left out between two is a gap.
void Checker::checkPosition(const Channel &channel, const Block &block, uint64_t elements,
                            ChannelCheck &found)
{
    const auto position = positionOf(channel, block);
    if (!channel.periodic() || !position)
        return;
    const int64_t before = expected_;
    if (*position < 0 || __builtin_add_overflow(*position, static_cast<int64_t>(elements), &expected_)) {
        problem("{}: the block at {} begins at sample {}, which cannot be", channel.name, block.offset,
                *position);
        expected_ = before;
        return;
    }
    if (*position < before)
        problem("{}: the block at {} begins at sample {}, and the one before it ends at {}", channel.name,
                block.offset, *position, before);
    else if (before >= 0)
        found.gaps += static_cast<uint64_t>(*position - before);
}

void Checker::checkLedger(const LedgerEntry &entry, const ChannelCheck &found)
{
    checkCloses(entry);
    if (found.elements < entry.stored)
        problem("{}: {} of {} stored elements are not in the file", found.name, entry.stored - found.elements,
                entry.stored);
    else if (found.elements > entry.stored)
        problem("{}: {} elements in the file, and the ledger says {}", found.name, found.elements,
                entry.stored);
}

void Checker::checkCloses(const LedgerEntry &entry)
{
    if (!closes(entry))
        problem("{}: the ledger does not close: received {}, stored {}, discarded {}", entry.name,
                entry.received, entry.stored,
                discardedOf(entry) ? fmt::format("{}", *discardedOf(entry)) : "more than 2^64");
}

// Channels that the test did not want stored have a line and no group.
void Checker::checkNotStored()
{
    if (!recording_.closing)
        return;
    for (const LedgerEntry &entry : recording_.closing->ledger) {
        if (entry.group != 0)
            continue;
        checkCloses(entry);
        if (entry.stored > 0)
            problem("{}: the ledger says {} elements are stored, and gives it no group", entry.name,
                    entry.stored);
    }
}

void Checker::checkGroups()
{
    for (const auto &[group, blocks] : recording_.groups) {
        if (recording_.catalogue && group >= KRD_GROUP_FIRST_CHANNEL && !recording_.catalogue->byGroup(group))
            problem("{} blocks of group {}, which the catalogue does not know", blocks.size(), group);
    }
}

void Checker::checkIndex()
{
    std::vector<std::pair<uint64_t, uint32_t>> unlisted; // offset and group of every channel block
    for (const auto &[group, blocks] : recording_.groups) {
        if (group < KRD_GROUP_FIRST_CHANNEL)
            continue;
        for (const Block &block : blocks)
            unlisted.emplace_back(block.offset, group);
    }
    std::ranges::sort(unlisted);
    std::vector<bool> listed(unlisted.size(), false);

    std::set<uint64_t> offsets;
    for (const Block &block : recording_.blocksOf(KRD_GROUP_INDEX)) {
        offsets.insert(block.offset);
        ++result_.indexBlocks;
        if (block.payloadSize() % KRD_INDEX_ENTRY_SIZE != 0)
            problem("the index block at {} is not made of whole entries", block.offset);
        for (Bytes rest = reader_.payload(block); rest.size() >= KRD_INDEX_ENTRY_SIZE;
             rest = rest.subspan(KRD_INDEX_ENTRY_SIZE)) {
            const std::pair entry(loadBig64(rest.data()),
                                  loadBig32(rest.data() + offsetof(KrdIndexEntry, group)));
            const auto at = std::ranges::lower_bound(unlisted, entry);
            ++result_.indexEntries;
            if (at == unlisted.end() || *at != entry)
                ++result_.danglingEntries;
            else
                listed[static_cast<size_t>(at - unlisted.begin())] = true;
        }
    }
    result_.unlistedBlocks = static_cast<uint64_t>(std::ranges::count(listed, false));
    if (result_.unlistedBlocks > 0)
        problem("{} blocks are not in the index", result_.unlistedBlocks);
    if (result_.danglingEntries > 0 && !(recording_.closing && recording_.closing->diskWasFull()))
        problem("{} index entries point at no whole block", result_.danglingEntries);
    if (!recording_.closing)
        return;
    const std::set<uint64_t> named(recording_.closing->indexBlocks.begin(),
                                   recording_.closing->indexBlocks.end());
    if (named != offsets)
        problem("the closing block names {} index blocks, and {} are in the file, or elsewhere", named.size(),
                offsets.size());
}

} // namespace

Check check(const Recording &recording)
{
    return Checker(recording).run();
}

} // namespace vu::krd
