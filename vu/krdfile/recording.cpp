#include "vu/krdfile/recording.h"

#include <fmt/format.h>

#include "libvu/datafile/krd_format.h"
#include "vu/command.h"
#include "vu/support/json_depth.h"
#include "vu/support/progress.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

std::string textOf(Bytes bytes)
{
    return {bytes.begin(), bytes.end()};
}

// The copy of the catalogue in the closing block replaces a damaged original.
void completeCatalogue(Recording &recording)
{
    if (recording.catalogue || !recording.closing || recording.closing->catalogue.is_null())
        return;
    try {
        recording.catalogue = catalogueFromJson(recording.closing->catalogue);
        recording.catalogueIsCopy = true;
    } catch (const FormatError &error) {
        recording.problems.push_back(error.what());
    }
}

// parse() of a block's payload; what is wrong with it becomes a problem of the recording.
template <typename Parsed>
void take(Recording &recording, std::optional<Parsed> &into, Parsed (*parse)(Bytes), Bytes payload)
{
    try {
        into = parse(payload);
    } catch (const FormatError &error) {
        recording.problems.push_back(error.what());
    }
}

[[noreturn]] void refuse(const InputFile &file)
{
    throw InputError(
        fmt::format("{}: expected a data file: there is no complete block in it", printable(file.name())));
}

// Puts the pieces of a walk into a recording, up to its end.
class Gatherer {
public:
    explicit Gatherer(std::shared_ptr<const InputFile> file) { recording_.file = std::move(file); }

    void add(const Piece &piece);
    Recording finished();

private:
    void addBlock(const Block &block);
    void addHead(const Block &block);
    void endAt(uint64_t offset, bool another)
    {
        recording_.rest = {offset, recording_.file->size() - offset, 0, another};
        ended_ = true;
    }

    Recording recording_;
    BlockReader reader_;
    std::optional<Block> own_catalogue_;
    bool closed_ = false;
    bool ended_ = false; // all that comes is the rest
};

void Gatherer::add(const Piece &piece)
{
    if (closed_ && !ended_)
        endAt(piece.offset, piece.kind == Piece::kBlock && piece.block.group == KRD_GROUP_CATALOGUE &&
                                headKind(reader_.payload(piece.block)) == HeadKind::kCatalogue);
    if (!ended_ && piece.kind == Piece::kBlock)
        addBlock(piece.block);
    if (ended_) {
        recording_.rest.blocks += piece.kind == Piece::kBlock;
    } else if (piece.kind == Piece::kUnfinished) {
        recording_.unfinishedBytes = piece.bytes;
    } else if (piece.kind == Piece::kDamage) {
        recording_.damage.push_back({piece.offset, piece.bytes});
        recording_.damagedBytes += piece.bytes;
    }
}

void Gatherer::addBlock(const Block &block)
{
    if (block.group == KRD_GROUP_CATALOGUE)
        addHead(block);
    if (ended_)
        return;
    recording_.blocks.push_back(block);
    if (block.group != KRD_GROUP_CATALOGUE)
        recording_.groups[block.group].push_back(block);
}

void Gatherer::addHead(const Block &block)
{
    const Bytes payload = reader_.payload(block);
    const HeadKind kind = headKind(payload);
    switch (kind) {
    case HeadKind::kAttachment: return;
    case HeadKind::kClosing:
        take(recording_, recording_.closing, parseClosing, payload);
        closed_ = true;
        return;
    case HeadKind::kUnknown:
        if (block.offset ==
            0) // whatever it is, it is there instead of a catalogue: say what is wrong with it
            take(recording_, recording_.catalogue, parseCatalogue, payload);
        else
            recording_.problems.push_back(fmt::format(
                "the block at {} is of group 0, and neither catalogue, attachment nor closing block",
                block.offset));
        return;
    case HeadKind::kCatalogue: break;
    }
    if (own_catalogue_ && sameBytes(*own_catalogue_, block)) {
        recording_.problems.push_back(
            fmt::format("the block at {} is the catalogue once more", block.offset));
    } else if (!recording_.blocks.empty()) {
        endAt(block.offset, true);
    } else {
        own_catalogue_ = block;
        take(recording_, recording_.catalogue, parseCatalogue, payload);
    }
}

Recording Gatherer::finished()
{
    if (recording_.blocks.empty())
        refuse(*recording_.file);
    completeCatalogue(recording_);
    return std::move(recording_);
}

} // namespace

HeadKind headKind(Bytes payload)
{
    // An attachment has its head before a zero byte, and bytes of any kind after it.
    const auto *zero = payload.empty() ? nullptr : std::memchr(payload.data(), 0, payload.size());
    const auto size =
        zero ? static_cast<size_t>(static_cast<const uint8_t *>(zero) - payload.data()) : payload.size();
    const std::string text = textOf(payload.first(size));
    if (isNestedDeeper(text))
        return HeadKind::kUnknown;
    const OrderedJson json = OrderedJson::parse(text, nullptr, false);
    const auto format = json.is_object() ? json.find("format") : json.end();
    if (!json.is_object() || format == json.end())
        return HeadKind::kUnknown;
    if (*format == "krd-closing")
        return HeadKind::kClosing;
    return *format == "krd-attachment" ? HeadKind::kAttachment
           : *format == "krd"          ? HeadKind::kCatalogue
                                       : HeadKind::kUnknown;
}

const std::vector<Block> &Recording::blocksOf(uint32_t group) const
{
    static const std::vector<Block> none;
    const auto found = groups.find(group);
    return found == groups.end() ? none : found->second;
}

bool Recording::complete() const
{
    return catalogue && !catalogueIsCopy && closing && damagedBytes == 0 && unfinishedBytes == 0 &&
           rest.bytes == 0 && problems.empty();
}

Recording scan(std::shared_ptr<const InputFile> file)
{
    ReadProgress progress(printable(file->name()), file->size());
    BlockWalk walk(*file);
    Gatherer gatherer(std::move(file));
    while (const auto piece = walk.next()) {
        progress.reached(piece->offset);
        gatherer.add(*piece);
    }
    return gatherer.finished();
}

Recording scan(Bytes file, const std::string &name)
{
    return scan(std::make_shared<const InputFile>(file, name));
}

Recording glance(std::shared_ptr<const InputFile> file)
{
    Recording recording;
    recording.file = std::move(file);
    const auto first = blockAt(*recording.file, 0);
    const auto last = blockBefore(*recording.file, recording.file->size());
    if (!first && !last)
        refuse(*recording.file);
    BlockReader reader;
    if (first && first->group == KRD_GROUP_CATALOGUE)
        take(recording, recording.catalogue, parseCatalogue, reader.payload(*first));
    if (last && last->offset > 0 && last->group == KRD_GROUP_CATALOGUE)
        take(recording, recording.closing, parseClosing, reader.payload(*last));
    completeCatalogue(recording);
    return recording;
}

Recording glance(Bytes file, const std::string &name)
{
    return glance(std::make_shared<const InputFile>(file, name));
}

std::map<uint32_t, const LedgerEntry *> ledgerByGroup(const std::optional<Closing> &closing)
{
    std::map<uint32_t, const LedgerEntry *> lines;
    for (size_t i = 0; closing && i < closing->ledger.size(); ++i)
        lines.emplace(closing->ledger[i].group, &closing->ledger[i]);
    return lines;
}

const Catalogue &requireCatalogue(const Recording &recording)
{
    if (recording.catalogue)
        return *recording.catalogue;
    const std::string why = recording.problems.empty() ? "it is damaged" : recording.problems.front();
    throw InputError(fmt::format("{}: expected a catalogue in the first block: {}",
                                 printable(recording.file->name()), printable(why)));
}

} // namespace vu::krd
