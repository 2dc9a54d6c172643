#include "vu/krdfile/tool.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <fnmatch.h>

#include "vu/command.h"
#include "vu/support/nearest.h"
#include "vu/support/say.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

namespace fs = std::filesystem;

constexpr double kExactInDouble = 9007199254740992.0; // 2^53: whole numbers up to here are exact

bool isFolder(const fs::path &path)
{
    std::error_code ignored;
    return fs::is_directory(path, ignored);
}

// "1000.0" is a number of samples as good as "1000", and no integer to a strict reader.
void makeWhole(OrderedJson &json)
{
    if (json.is_structured()) {
        for (OrderedJson &value : json)
            makeWhole(value);
    } else if (json.is_number_float()) {
        const double value = json.get<double>();
        if (value == std::floor(value) && std::abs(value) <= kExactInDouble && !std::signbit(value))
            json = static_cast<uint64_t>(value);
        else if (value == std::floor(value) && std::abs(value) <= kExactInDouble && value != 0.0)
            json = static_cast<int64_t>(value);
    }
}

} // namespace

void requireOutput(const fs::path &output, std::span<const std::string> inputs)
{
    const std::string name = printable(output.string());
    if (output.empty())
        throw InputError("--output: expected the name of a file, and it is empty");
    if (isFolder(output))
        throw InputError(fmt::format("{}: expected the name of a file, and this is a folder", name));
    const fs::path folder = output.has_parent_path() ? output.parent_path() : fs::path(".");
    if (!isFolder(folder))
        throw InputError(
            fmt::format("{}: there is no folder '{}' to write it to", name, printable(folder.string())));
    for (const std::string &input : inputs) {
        std::error_code ignored;
        if (fs::equivalent(output, input, ignored))
            throw InputError(
                fmt::format("{}: is the file that is read, and that one is never written over", name));
    }
}

void makeOutputFolder(const fs::path &folder)
{
    if (folder.empty())
        throw InputError("--output: expected the name of a folder, and it is empty");
    std::error_code error;
    fs::create_directories(folder, error);
    if (isFolder(folder))
        return;
    throw InputError(fmt::format("{}: expected a folder: {}", printable(folder.string()),
                                 error ? error.message() : "there is something else of this name"));
}

std::vector<const Channel *> channelsNamed(const Catalogue &catalogue, const std::vector<std::string> &globs,
                                           const std::string &file)
{
    std::vector<const Channel *> chosen;
    std::vector<bool> used(globs.size(), false);
    for (const Channel &channel : catalogue.channels) {
        bool wanted = globs.empty();
        for (size_t i = 0; i < globs.size(); ++i) {
            if (fnmatch(globs[i].c_str(), channel.name.c_str(), 0) == 0)
                used[i] = wanted = true;
        }
        if (wanted)
            chosen.push_back(&channel);
    }
    const auto unused = std::ranges::find(used, false);
    if (unused == used.end())
        return chosen;
    const std::string &glob = globs[static_cast<size_t>(unused - used.begin())];
    std::vector<std::string> names;
    std::ranges::transform(catalogue.channels, std::back_inserter(names), &Channel::name);
    throw InputError(
        printable(fmt::format("{}: '{}': expected the name of a channel in the file, which 'vu info' lists{}",
                              file, glob, didYouMean(glob, names)),
                  1000));
}

int statusOf(const Recording &recording)
{
    if (recording.complete())
        return kDone;
    const std::string name = printable(recording.file->name());
    const auto tell = [&name](const std::string &what) { say("{}: {}\n", name, printable(what)); };
    if (recording.damagedBytes > 0)
        tell(fmt::format("{} bytes are damaged, and what was in them is missing", recording.damagedBytes));
    if (recording.unfinishedBytes > 0)
        tell(fmt::format("the file ends inside a block of {} bytes or more", recording.unfinishedBytes));
    if (recording.rest.bytes > 0)
        tell(fmt::format("{} of {} bytes begins at {}; it is left out",
                         recording.rest.another ? "another recording" : "something after the closing block",
                         recording.rest.bytes, recording.rest.offset));
    if (!recording.catalogue || recording.catalogueIsCopy)
        tell("the catalogue is lost");
    if (!recording.closing)
        tell("there is no closing block: it is being recorded, or the recording was not ended properly");
    for (const std::string &problem : recording.problems)
        tell(problem);
    tell(fmt::format("'vu verify {}' says more", recording.file->name()));
    return kDataMissing;
}

OrderedJson answerOf(const Recording &recording)
{
    return {{"file", recording.file->name()},
            {"bytes", recording.file->size()},
            {"closed", recording.closing.has_value()},
            {"damaged_bytes", recording.damagedBytes},
            {"unfinished_bytes", recording.unfinishedBytes},
            {"rest_bytes", recording.rest.bytes},
            {"problems", recording.problems}};
}

void printAnswer(OrderedJson answer)
{
    makeWhole(answer);
    // A file name may hold bytes that are no UTF-8, and JSON cannot.
    fmt::print("{}\n", answer.dump(2, ' ', false, OrderedJson::error_handler_t::replace));
}

} // namespace vu::krd
