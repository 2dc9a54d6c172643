// `vu recover`: a whole file out of a damaged, cut or unclosed one.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <memory>

#include "libvu/datafile/krd_format.h"
#include "vu/command.h"
#include "vu/krdfile/check.h"
#include "vu/krdfile/mend.h"
#include "vu/krdfile/rewrite.h"
#include "vu/krdfile/tool.h"
#include "vu/support/output_file.h"
#include "vu/support/progress.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

struct RecoverOptions {
    std::string file;
    std::optional<std::string> output;
    std::string catalogueOf;
    bool force = false;
    bool json = false;
};

// What is in hand once the new file has been written and read again.
struct Result {
    const Recording &damaged;
    const Recording &rewritten;
    const Mended &mended;
    const Check &check; // of the new file

    size_t kept() const
    {
        return static_cast<size_t>(std::ranges::count_if(
            rewritten.blocks, [](const Block &block) { return block.group >= KRD_GROUP_FIRST_CHANNEL; }));
    }
};

void printJson(const RecoverOptions &options, const Result &result)
{
    OrderedJson json = answerOf(result.damaged);
    json["output"] = *options.output;
    json["blocks"] = result.kept();
    json["damaged_places"] = result.damaged.damage.size();
    json["left_out_blocks"] = result.mended.left_out;
    json["catalogue_lost"] = !result.damaged.catalogue;
    json["sound"] = result.check.sound();
    json["remaining_problems"] = result.check.problems;
    printAnswer(std::move(json));
}

void print(const RecoverOptions &options, const Result &result)
{
    const Recording &damaged = result.damaged;
    fmt::print("{}: {} blocks, {}, read again and {}\n", printable(*options.output), result.kept(),
               sizeText(result.rewritten.file->size()),
               result.check.sound() ? "whole" : "not without faults");
    for (const std::string &problem : result.check.problems)
        fmt::print("  {}\n", printable(problem));
    if (damaged.damagedBytes > 0)
        fmt::print("  {} bytes were damaged in {} places\n", damaged.damagedBytes, damaged.damage.size());
    if (damaged.unfinishedBytes > 0)
        fmt::print("  {} bytes of a block that was never finished\n", damaged.unfinishedBytes);
    if (result.mended.left_out > 0)
        fmt::print("  {} blocks with {} elements were left out, the first of {}: another block has the same "
                   "samples or messages\n",
                   result.mended.left_out, result.mended.elements, printable(result.mended.first_left_out));
    if (damaged.rest.bytes > 0)
        fmt::print("  {} from byte {} on is not in it: {} bytes in {} blocks; cut off there, it is a file of "
                   "its own\n",
                   damaged.rest.another ? "another recording" : "what follows the closing block",
                   damaged.rest.offset, damaged.rest.bytes, damaged.rest.blocks);
    if (!damaged.catalogue)
        fmt::print("  the catalogue is lost: '--catalogue-of OTHER.krd' takes that of another recording of "
                   "this test\n");
}

// The catalogue of another recording, if that one is of the same test: its groups and names are those of the
// ledger, or, without a ledger, it knows every group.
Catalogue borrowedCatalogue(const Recording &damaged, const std::string &other)
{
    const Catalogue catalogue = requireCatalogue(glance(openInput(other)));
    const auto refuse = [&](const std::string &what) {
        throw InputError(printable(
            fmt::format("{}: is of another test than {}: {}", other, damaged.file->name(), what), 1000));
    };
    for (const auto &[group, blocks] : damaged.groups)
        if (group >= KRD_GROUP_FIRST_CHANNEL && !catalogue.byGroup(group))
            refuse(fmt::format("it has no group {}", group));
    if (!damaged.closing)
        return catalogue;
    const auto ledger = ledgerByGroup(damaged.closing);
    for (const auto &[group, line] : ledger) {
        const Channel *channel = catalogue.byGroup(group);
        if (group >= KRD_GROUP_FIRST_CHANNEL && (!channel || channel->name != line->name))
            refuse(fmt::format("group {} is '{}' there, and '{}' in the closing block", group,
                               channel ? channel->name : "nothing", line->name));
    }
    for (const Channel &channel : catalogue.channels)
        if (!ledger.contains(channel.group))
            refuse(fmt::format("the closing block has no group {}, '{}' there", channel.group, channel.name));
    return catalogue;
}

int recover(RecoverOptions options)
{
    if (!options.output)
        options.output = std::filesystem::path(options.file).replace_extension("recovered.krd");
    const std::vector<std::string> inputs = {options.file, options.catalogueOf};
    requireOutput(*options.output, std::span(inputs).first(options.catalogueOf.empty() ? 1 : 2));
    Recording damaged = scan(openInput(options.file));
    if (!damaged.catalogue && !options.catalogueOf.empty()) {
        damaged.catalogue = borrowedCatalogue(damaged, options.catalogueOf);
        damaged.catalogueIsCopy = true;
    }

    OutputFile output(*options.output, options.force);
    uint64_t kept = 0;
    for (const Block &block : damaged.blocks)
        kept += block.size;
    output.expect(kept);
    ReadProgress progress(printable(*options.output), damaged.file->size());
    rewrite(damaged, [&](Bytes bytes) {
        progress.more(bytes.size());
        output.write({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    });
    const Recording rewritten = scan(std::make_shared<const InputFile>(output.flushed(), *options.output));
    if (const std::string wrong = compareRewritten(damaged, rewritten); !wrong.empty())
        throw std::runtime_error(fmt::format("{}: {}; it was not kept", printable(*options.output), wrong));
    output.finish();
    const Check remaining = check(rewritten);
    const Mended mended = mend(damaged);
    (options.json ? printJson : print)(options, {damaged, rewritten, mended, remaining});
    return check(damaged).sound() && remaining.sound() ? kDone : kDataMissing;
}

} // namespace

} // namespace vu::krd

void vu::addRecover(CLI::App &app, Action &chosen)
{
    auto *command =
        app.add_subcommand("recover", "Writes a whole file of every whole block in a damaged one");
    command->footer(
        "The new file has a new index and a closing block, and is read again before success is reported. Of "
        "two\n"
        "recordings in one file the first is kept and the other named; of blocks that contradict each other "
        "the\n"
        "longest row whose sample numbers rise. The input is never written over, with --force neither.\n"
        "Exit status 0: nothing was damaged or missing; 3: something was, and the rest is there.\n"
        "Example: vu recover drive.krd -o drive.recovered.krd");
    const auto options = std::make_shared<krd::RecoverOptions>();
    command->add_option("FILE", options->file, "The damaged data file; it is only read")->required();
    command->add_option("-o,--output", options->output, "The new file; FILE.recovered.krd if not given");
    command->add_option("--catalogue-of", options->catalogueOf,
                        "A data file of the same test, for its catalogue, if that of FILE is lost");
    command->add_flag("--force", options->force, "Overwrite the new file if it exists");
    command->add_flag("--json", options->json, "Answer with JSON");
    command->callback([&chosen, options] { chosen = [options] { return krd::recover(*options); }; });
}
