// What the commands on data files have in common: which channels are meant, what may be written where, and
// what is said of a file that is not complete.
#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "vu/krdfile/recording.h"

namespace vu::krd {

// A path for one result. Throws InputError if it is empty, a folder, in no folder, or one of the inputs,
// under whatever name: an input is never written over.
void requireOutput(const std::filesystem::path &output, std::span<const std::string> inputs);
// A folder for results, made with those above it. Throws InputError.
void makeOutputFolder(const std::filesystem::path &folder);

// The channels whose names match one of the globs, all if there is none. Throws InputError for a glob that
// matches no channel, with the name that was probably meant.
std::vector<const Channel *> channelsNamed(const Catalogue &catalogue, const std::vector<std::string> &globs,
                                           const std::string &file);

// kDone, or kDataMissing after a line on standard error for each reason.
int statusOf(const Recording &recording);

// The keys that every answer of a file tool begins with.
OrderedJson answerOf(const Recording &recording);
// On standard output. Whole numbers are written as such, whatever type they have in memory.
void printAnswer(OrderedJson answer);

} // namespace vu::krd
