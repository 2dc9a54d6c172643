// `vu recover`: a whole file out of a damaged, cut or unclosed one.
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <memory>

#include "libvu/datafile/krd_format.h"
#include "vu/command.h"
#include "vu/krdfile/check.h"
#include "vu/krdfile/rewrite.h"
#include "vu/support/output_file.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

struct RecoverOptions {
    std::string file;
    std::string output;
    std::string catalogueOf;
    bool force = false;
    bool json = false;
};

void print(const RecoverOptions &options, const Recording &damaged, const Recording &rewritten)
{
    size_t kept = 0;
    for (const auto &[group, blocks] : rewritten.groups)
        kept += group >= KRD_GROUP_FIRST_CHANNEL ? blocks.size() : 0;
    if (options.json) {
        const OrderedJson json = {{"file", options.file},
                                  {"output", options.output},
                                  {"blocks", kept},
                                  {"damaged_bytes", damaged.damagedBytes},
                                  {"damaged_places", damaged.damage.size()},
                                  {"unfinished_bytes", damaged.unfinishedBytes},
                                  {"catalogue_lost", !damaged.catalogue}};
        fmt::print("{}\n", json.dump(2));
        return;
    }
    fmt::print("{}: {} blocks, {}, read again and whole\n", options.output, kept,
               sizeText(rewritten.file.size()));
    if (damaged.damagedBytes > 0)
        fmt::print("  {} bytes were damaged in {} places\n", damaged.damagedBytes, damaged.damage.size());
    if (damaged.unfinishedBytes > 0)
        fmt::print("  {} bytes of a block that was never finished\n", damaged.unfinishedBytes);
    if (!damaged.catalogue)
        fmt::print("  the catalogue is lost: '--catalogue-of OTHER.krd' takes that of another recording of "
                   "this test\n");
}

int recover(RecoverOptions options)
{
    if (options.output.empty())
        options.output = std::filesystem::path(options.file).replace_extension("recovered.krd");
    const MappedFile file(options.file);
    Recording damaged = scan(file.bytes(), options.file);
    if (!damaged.catalogue && !options.catalogueOf.empty()) {
        const MappedFile other(options.catalogueOf);
        damaged.catalogue = requireCatalogue(glance(other.bytes(), options.catalogueOf), options.catalogueOf);
        damaged.catalogueIsCopy = true;
    }

    OutputFile output(options.output, options.force);
    uint64_t kept = 0;
    for (const Block &block : damaged.blocks)
        kept += block.whole.size();
    output.expect(kept);
    rewrite(damaged, [&output](Bytes bytes) {
        output.write({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    });
    const MappedFile again(output.flushed());
    const Recording rewritten = scan(again.bytes(), options.output);
    if (const std::string wrong = compareRewritten(damaged, rewritten); !wrong.empty())
        throw std::runtime_error(fmt::format("{}: {}; it was not kept", options.output, wrong));
    output.finish();
    print(options, damaged, rewritten);
    return check(damaged).sound() ? kDone : kDataMissing;
}

} // namespace

} // namespace vu::krd

void vu::addRecover(CLI::App &app, Action &chosen)
{
    auto *command =
        app.add_subcommand("recover", "Writes a whole file of every whole block in a damaged one");
    command->footer(
        "The new file has a new index and a closing block, and is read again before success is told.\n"
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
