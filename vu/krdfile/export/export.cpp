// `vu export`: channels of a data file in forms that other programs read.
#include <CLI/CLI.hpp>
#include <cmath>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <map>
#include <memory>
#include <set>
#include <span>

#include "vu/command.h"
#include "vu/krdfile/export/export_formats.h"
#include "vu/krdfile/tool.h"
#include "vu/support/nearest.h"
#include "vu/support/progress.h"
#include "vu/support/say.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

constexpr const ExportFormat *kFormats[] = {&kCsvFormat, &kNpyFormat, &kWavFormat, &kCandumpFormat};
constexpr uint64_t kMostRows = 1'000'000'000;

constexpr double kMaxOrigin = 1e12; // seconds; in microseconds it fits 64 bits

struct ExportOptions {
    std::string file;
    std::string directory;
    std::string format = "csv";
    std::vector<std::string> channels; // globs; none: all
    bool merge = false;
    bool force = false;
    bool json = false;
    std::optional<double> fill;
    std::optional<std::string> bus;
    std::optional<double> origin;
    std::string invalid = "none"; // or "keep"
    uint64_t most = kMostRows;
};

// A channel's name as the name of a file. File systems take 255 bytes; some are left for number and ending.
std::string fileName(const std::string &channel)
{
    constexpr size_t kLongest = 200;
    std::string name = channel.substr(0, kLongest);
    while (name.size() < channel.size() && !name.empty() && (channel[name.size()] & 0xC0) == 0x80)
        name.pop_back(); // not within a character
    for (char &c : name) {
        if (c == '/' || (c >= 0 && c < ' ') || c == '\x7f')
            c = '_';
    }
    return name.empty() || name == "." || name == ".." ? "_" + name : name;
}

// One file to write: a channel, or those of one rate.
struct Job {
    std::string name;
    std::filesystem::path path;
    std::vector<ChannelBlocks> channels;
    bool merged = false;
};

class Exporter {
public:
    Exporter(const ExportOptions &options, const ExportFormat &format, const Recording &recording)
        : options_(options), format_(format), recording_(recording), catalogue_(requireCatalogue(recording))
    {
        if (options.invalid == "keep")
            for (Channel &channel : catalogue_.channels)
                channel.invalid.reset();
        settings_.ticksPerSecond = catalogue_.ticksPerSecond;
        settings_.fill = options.fill;
        settings_.bus = options.bus.value_or("");
        settings_.originMicroseconds = std::llround(options.origin.value_or(0.0) * 1e6);
    }
    bool run(); // false if a channel that was asked for was left out, or every one

private:
    void plan();
    void add(const std::string &name, std::vector<ChannelBlocks> channels, bool merged);
    void requireRoom() const;
    void write();
    void tellLeftOut() const;
    void printJson() const;

    const ExportOptions &options_;
    const ExportFormat &format_;
    const Recording &recording_;
    Catalogue catalogue_;
    ExportSettings settings_;
    std::vector<Job> jobs_;
    std::set<std::string> taken_;                             // names of files in jobs_
    std::map<std::string, std::vector<std::string>> leftOut_; // names by reason
};

// Everything that can be wrong is found here, before the first file is written.
void Exporter::plan()
{
    std::map<double, std::vector<ChannelBlocks>> byRate;
    for (const Channel *channel : channelsNamed(catalogue_, options_.channels, options_.file)) {
        const ChannelBlocks from{channel, recording_.blocksOf(channel->group)};
        const std::string why = format_.refusal(*channel, from.blocks, settings_);
        if (!why.empty())
            leftOut_[why].push_back(channel->name);
        else if (options_.merge && channel->periodic())
            byRate[channel->sampleRate].push_back(from);
        else
            add(channel->name, {from}, false);
    }
    for (auto &[rate, channels] : byRate)
        add(fmt::format("merged_{}Hz", rate), std::move(channels), true);
    makeOutputFolder(options_.directory);
    requireRoom();
}

// Names that differ only in what a file name cannot hold get numbers.
void Exporter::add(const std::string &name, std::vector<ChannelBlocks> channels, bool merged)
{
    const std::string base = fileName(name);
    std::string unique = base;
    for (int number = 2; !taken_.insert(unique).second; ++number)
        unique = fmt::format("{}_{}", base, number);
    jobs_.push_back({name,
                     std::filesystem::path(options_.directory) / fmt::format("{}.{}", unique, format_.name),
                     std::move(channels), merged});
}

// A few bytes of run lengths, or a fill over a gap, mean more rows than a disk holds.
void Exporter::requireRoom() const
{
    for (const Job &job : jobs_) {
        requireOutput(job.path, std::span(&options_.file, 1));
        std::error_code ignored;
        if (!options_.force && std::filesystem::exists(job.path, ignored))
            throw InputError(fmt::format("{}: exists already, and nothing was written; --force overwrites it",
                                         printable(job.path.string())));
        if (!job.channels.front().channel->periodic())
            continue;
        const uint64_t rows = mergedRows(job.channels, settings_);
        if (rows > options_.most)
            throw InputError(
                fmt::format("{}: would have {} rows, and nothing was written; '--most {}' allows "
                            "them",
                            printable(job.name), rows, rows));
    }
}

void Exporter::write()
{
    uint64_t bytes = 0;
    for (const Job &job : jobs_)
        for (const auto &[channel, blocks] : job.channels)
            for (const Block &block : blocks)
                bytes += block.size;
    ReadProgress progress(printable(options_.file), bytes);
    settings_.progress = &progress;
    for (const Job &job : jobs_) {
        TextFile file(job.path, options_.force);
        if (job.merged)
            writeMergedCsv(job.channels, settings_, file);
        else
            format_.write(*job.channels.front().channel, job.channels.front().blocks, settings_, file);
        file.finish();
        if (!options_.json)
            fmt::print("{}\n", printable(job.path.string(), SIZE_MAX));
    }
    settings_.progress = nullptr;
}

bool Exporter::run()
{
    plan();
    write();
    if (options_.json)
        printJson();
    tellLeftOut();
    if (jobs_.empty())
        say("{}: nothing was written: no channel has the form {}\n", printable(options_.file), format_.name);
    // Only a channel that was asked for counts as missing: most files hold some that a form cannot take.
    return !jobs_.empty() && (leftOut_.empty() || options_.channels.empty());
}

// One line a reason: a candump log takes one channel of a file with hundreds.
void Exporter::tellLeftOut() const
{
    constexpr size_t kNamed = 3;
    for (const auto &[why, names] : leftOut_) {
        const std::span shown(names.data(), std::min(names.size(), kNamed));
        const std::string more =
            names.size() > kNamed ? fmt::format(" and {} more", names.size() - kNamed) : "";
        say("left out: {}{}: {}\n", printable(fmt::format("{}", fmt::join(shown, ", "))), more, why);
    }
}

void Exporter::printJson() const
{
    OrderedJson json = answerOf(recording_);
    json["written"] = json["left_out"] = OrderedJson::array();
    for (const Job &job : jobs_)
        json["written"].push_back({{"channel", job.name}, {"path", job.path.string()}});
    for (const auto &[why, names] : leftOut_)
        for (const std::string &name : names)
            json["left_out"].push_back({{"channel", name}, {"why", why}});
    printAnswer(std::move(json));
}

const ExportFormat &formatNamed(const std::string &name)
{
    std::vector<std::string> names;
    for (const ExportFormat *format : kFormats) {
        if (format->name == name)
            return *format;
        names.emplace_back(format->name);
    }
    throw InputError(fmt::format("--format: expected {}, got '{}'{}", fmt::join(names, ", "), printable(name),
                                 didYouMean(name, names)));
}

// The forms that take an option, as a mistake names them.
void requireFor(bool given, const char *option, bool ExportFormat::*takes, const ExportFormat &format)
{
    if (!given || format.*takes)
        return;
    std::vector<std::string> names;
    for (const ExportFormat *other : kFormats)
        if (other->*takes)
            names.emplace_back(other->name);
    throw InputError(fmt::format("{}: expected with --format {} only, and this is {}", option,
                                 fmt::join(names, ", "), format.name));
}

int exportChannels(const ExportOptions &options)
{
    const ExportFormat &format = formatNamed(options.format);
    requireFor(options.merge, "--merge", &ExportFormat::tables, format);
    requireFor(options.fill.has_value(), "--fill", &ExportFormat::samples, format);
    requireFor(options.bus.has_value(), "--bus", &ExportFormat::bus, format);
    requireFor(options.origin.has_value(), "--origin", &ExportFormat::bus, format);
    if (!(std::abs(options.origin.value_or(0.0)) < kMaxOrigin))
        throw InputError("--origin: expected a time in seconds, at most 1e12");
    if (options.invalid != "none" && options.invalid != "keep")
        throw InputError(
            fmt::format("--invalid: expected none or keep, got '{}'", printable(options.invalid)));
    const Recording recording = scan(openInput(options.file));
    const bool all = Exporter(options, format, recording).run();
    const int status = statusOf(recording);
    return all ? status : kDataMissing;
}

std::string formatHelp()
{
    std::string text;
    for (const ExportFormat *format : kFormats)
        text += fmt::format("{}{}: {}", text.empty() ? "" : "; ", format->name, format->help);
    return text;
}

} // namespace

std::span<const ExportFormat *const> exportFormats()
{
    return kFormats;
}

} // namespace vu::krd

void vu::addExport(CLI::App &app, Action &chosen)
{
    auto *command = app.add_subcommand(
        "export", "Writes channels of a data file as files of other forms: CSV, NumPy, WAV, candump");
    command->footer(
        "One file a channel, at its own rate, in physical values; nothing is resampled. CSV of a "
        "periodic channel:\n"
        "sample,time,value with the time in seconds from the start of the test; of messages: "
        "tick,time and what they\n"
        "hold (ticks of 25 ns from the start of the test; NTP channels from 1970 on). A sample "
        "that is missing is a\n"
        "jump of the sample number; a NumPy array with one has records of sample and value. What stands "
        "for \"no value\"\n"
        "is an empty cell, or a NaN (an array of whole numbers that has one is float64). CAN "
        "identifiers and bytes\n"
        "are written as 0x1E3.\n"
        "Exit status 3: the file is damaged or was not ended properly, or a channel asked for has no "
        "such form.\n"
        "Example: vu export drive.krd -o drive --format csv --channel 'Engine*'");
    const auto options = std::make_shared<krd::ExportOptions>();
    command->add_option("FILE", options->file, "The data file")->required();
    command
        ->add_option("-o,--output", options->directory, "The folder for the files; made if it is not there")
        ->required();
    command->add_option("--format", options->format, krd::formatHelp())->capture_default_str();
    command->add_option("--channel", options->channels, "Only channels that match this glob; may be repeated")
        ->allow_extra_args(false);
    command->add_flag("--merge", options->merge, "CSV: periodic channels of one rate into one table");
    command->add_option("--fill", options->fill, "A value for samples that are missing between others");
    command->add_option("--bus", options->bus,
                        "candump: the name of the bus; that of the channel if not given");
    command->add_option("--origin", options->origin, "candump: the time of tick 0 in seconds [0]");
    command
        ->add_option("--invalid", options->invalid,
                     "What stands for \"no value\": none leaves it out, keep writes the number")
        ->capture_default_str();
    command
        ->add_option(
            "--most", options->most,
            "Rows of one file beyond which nothing is written; run lengths and --fill can mean very many")
        ->check([](const std::string &text) {
            return text.starts_with('-') ? fmt::format("expected a whole number from 0, got '{}'", text) : "";
        })
        ->capture_default_str();
    command->add_flag("--force", options->force, "Overwrite files that exist");
    command->add_flag("--json", options->json, "Answer with JSON: what was written");
    command->callback([&chosen, options] { chosen = [options] { return krd::exportChannels(*options); }; });
}
