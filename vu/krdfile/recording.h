// A data file as one walk found it: catalogue, closing block, the blocks of every group, and the damage.
//
// A recording ends with its closing block, or where a catalogue other than its own begins another one. What
// follows is the rest: it is counted and named, and nothing of it is read as part of this recording.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vu/krdfile/blocks.h"
#include "vu/krdfile/catalogue.h"
#include "vu/krdfile/input_file.h"

namespace vu::krd {

struct Damage {
    uint64_t offset = 0;
    uint64_t bytes = 0;
};

// What follows the end of the recording.
struct Rest {
    uint64_t offset = 0;
    uint64_t bytes = 0; // 0: nothing follows
    uint64_t blocks = 0;
    bool another = false; // it begins with a catalogue: another recording
};

struct Recording {
    std::shared_ptr<const InputFile> file;
    std::optional<Catalogue> catalogue;
    std::optional<Closing> closing;
    std::vector<Block> blocks;                     // every whole one, in the order of the file
    std::map<uint32_t, std::vector<Block>> groups; // the same from group 1 on
    std::vector<Damage> damage;
    uint64_t damagedBytes = 0;
    uint64_t unfinishedBytes = 0; // of a block that the end of the file cuts
    Rest rest;
    bool catalogueIsCopy = false;      // not that of the first block, which is lost
    std::vector<std::string> problems; // blocks that are whole and say what they may not

    const std::vector<Block> &blocksOf(uint32_t group) const;
    // Closed, and nothing of it is damaged or missing as far as the walk can see.
    bool complete() const;
};

// What a block of group 0 says it is.
enum class HeadKind { kCatalogue, kClosing, kAttachment, kUnknown };
HeadKind headKind(Bytes payload);

// Reads every byte once. Throws InputError if this is no data file.
Recording scan(std::shared_ptr<const InputFile> file);
Recording scan(Bytes file, const std::string &name); // which have to outlive the recording

// Catalogue and closing block alone, found from both ends of the file: no walk, whatever its size.
Recording glance(std::shared_ptr<const InputFile> file);
Recording glance(Bytes file, const std::string &name);

inline std::shared_ptr<const InputFile> openInput(const std::filesystem::path &path)
{
    return std::make_shared<const InputFile>(path);
}

// The lines of the ledger by group; of two with one group the first.
std::map<uint32_t, const LedgerEntry *> ledgerByGroup(const std::optional<Closing> &closing);

// What it takes to read a channel. Throws InputError if the catalogue is lost.
const Catalogue &requireCatalogue(const Recording &recording);

} // namespace vu::krd
