#include "vu/krdfile/recording.h"

#include <fmt/format.h>

#include "libvu/datafile/krd_format.h"
#include "vu/command.h"
#include "vu/support/progress.h"

namespace vu::krd {

namespace {

void takeCatalogue(Recording &recording, const Block &block)
{
    try {
        recording.catalogue = parseCatalogue(block.payload);
    } catch (const FormatError &error) {
        recording.problems.push_back(error.what());
    }
}

void takeClosing(Recording &recording, const Block &block)
{
    try {
        recording.closing = parseClosing(block.payload);
    } catch (const FormatError &error) {
        recording.problems.push_back(error.what());
    }
}

// The copy of the catalogue in the closing block stands in for a damaged original.
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

[[noreturn]] void refuse(const std::string &name)
{
    throw InputError(fmt::format("{}: expected a data file: there is no whole block in it", name));
}

} // namespace

const std::vector<Block> &Recording::blocksOf(uint32_t group) const
{
    static const std::vector<Block> none;
    const auto found = groups.find(group);
    return found == groups.end() ? none : found->second;
}

Recording scan(Bytes file, const std::string &name)
{
    Recording recording;
    recording.file = file;
    ReadProgress progress(name, file.size());
    BlockWalk walk(file);
    while (const auto piece = walk.next()) {
        progress.reached(piece->offset);
        if (piece->kind == Piece::kUnfinished) {
            recording.unfinishedBytes = piece->bytes;
        } else if (piece->kind == Piece::kDamage) {
            recording.damage.push_back({piece->offset, piece->bytes});
            recording.damagedBytes += piece->bytes;
        } else {
            recording.blocks.push_back(piece->block);
            if (piece->block.group != KRD_GROUP_CATALOGUE)
                recording.groups[piece->block.group].push_back(piece->block);
            else if (piece->offset == 0)
                takeCatalogue(recording, piece->block);
        }
    }
    if (recording.blocks.empty())
        refuse(name);
    // Only the last block closes a file: what follows an earlier one was recorded without a closing block.
    const Block &last = recording.blocks.back();
    if (last.group == KRD_GROUP_CATALOGUE && last.offset > 0)
        takeClosing(recording, last);
    completeCatalogue(recording);
    return recording;
}

Recording glance(Bytes file, const std::string &name)
{
    Recording recording;
    recording.file = file;
    const auto first = blockAt(file, 0);
    const auto last = blockBefore(file, file.size());
    if (!first && !last)
        refuse(name);
    if (first && first->group == KRD_GROUP_CATALOGUE)
        takeCatalogue(recording, *first);
    if (last && last->offset > 0 && last->group == KRD_GROUP_CATALOGUE)
        takeClosing(recording, *last);
    completeCatalogue(recording);
    return recording;
}

const Catalogue &requireCatalogue(const Recording &recording, const std::string &name)
{
    if (recording.catalogue)
        return *recording.catalogue;
    const std::string why = recording.problems.empty() ? "it is damaged" : recording.problems.front();
    throw InputError(fmt::format("{}: expected a catalogue in the first block: {}", name, why));
}

} // namespace vu::krd
