// `vu verify`: every byte of a data file held against what the file says.
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <memory>

#include "vu/command.h"
#include "vu/krdfile/check.h"
#include "vu/krdfile/never.h"
#include "vu/krdfile/tool.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

struct VerifyOptions {
    std::string file;
    bool json = false;
    bool verbose = false;
};

OrderedJson toJson(const Recording &recording, const Check &found)
{
    OrderedJson json = answerOf(recording);
    json["problems"] = found.problems;
    json["never"] = neverNames(recording);
    json["sound"] = found.sound();
    json["blocks"] = recording.blocks.size();
    json["damage"] = OrderedJson::array();
    json["index"] = {{"blocks", found.indexBlocks},
                     {"entries", found.indexEntries},
                     {"dangling_entries", found.danglingEntries},
                     {"unlisted_blocks", found.unlistedBlocks}};
    json["channels"] = OrderedJson::array();
    for (const Damage &damage : recording.damage)
        json["damage"].push_back({{"offset", damage.offset}, {"bytes", damage.bytes}});
    for (const ChannelCheck &channel : found.channels) {
        OrderedJson entry = {{"group", channel.group},
                             {"name", channel.name},
                             {"blocks", channel.blocks},
                             {"elements", channel.elements},
                             {"missing_samples", channel.gaps}};
        if (channel.inLedger)
            entry["stored"] = channel.stored;
        json["channels"].push_back(std::move(entry));
    }
    return json;
}

void print(const Recording &recording, const Check &found, bool verbose)
{
    const std::string name = printable(recording.file->name());
    fmt::print("{}: {}, {} whole blocks, {} channels, {} index entries in {} blocks\n", name,
               sizeText(recording.file->size()), recording.blocks.size(), found.channels.size(),
               found.indexEntries, found.indexBlocks);
    for (const std::string &problem : found.problems)
        fmt::print("  {}\n", printable(problem));
    if (found.sound() && found.danglingEntries > 0)
        fmt::print("  {} index entries point at blocks that the full disk did not take\n",
                   found.danglingEntries);
    if (const std::string never = neverText(recording, verbose); !never.empty())
        fmt::print("  {}\n", never);
    if (found.sound())
        fmt::print("whole: every checksum, index entry, sample number and ledger line agrees\n");
    else if (recording.damagedBytes > 0)
        fmt::print("damaged: {} bytes; 'vu recover {}' makes a whole file of the rest\n",
                   recording.damagedBytes, name);
    else
        fmt::print("not damaged, and not complete; 'vu recover {}' makes a whole file of it\n", name);
}

int verify(const VerifyOptions &options)
{
    const Recording recording = scan(openInput(options.file));
    const Check found = check(recording);
    if (options.json)
        printAnswer(toJson(recording, found));
    else
        print(recording, found, options.verbose);
    return found.sound() ? kDone : kDataMissing;
}

} // namespace

} // namespace vu::krd

void vu::addVerify(CLI::App &app, Action &chosen)
{
    auto *command =
        app.add_subcommand("verify", "Proves every block, index entry and ledger line of a data file");
    command->footer(
        "Exit status 0: the file is whole and agrees with itself; 3: something is damaged or missing.\n"
        "Example: vu verify drive.krd");
    const auto options = std::make_shared<krd::VerifyOptions>();
    command->add_option("FILE", options->file, "The data file")->required();
    command->add_flag("--json", options->json, "Answer with JSON");
    command->add_flag("--verbose", options->verbose, "Names all signals that never had a value");
    command->callback([&chosen, options] { chosen = [options] { return krd::verify(*options); }; });
}
