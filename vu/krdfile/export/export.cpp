// `vu export`: channels of a data file in forms that other programs read.
#include <CLI/CLI.hpp>
#include <cmath>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fnmatch.h>
#include <map>
#include <memory>
#include <set>
#include <span>

#include "vu/command.h"
#include "vu/krdfile/export/export_formats.h"
#include "vu/krdfile/recording.h"

namespace vu::krd {

namespace {

constexpr const ExportFormat *kFormats[] = {&kCsvFormat, &kNpyFormat, &kWavFormat, &kCandumpFormat};

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
    std::string bus;
    double origin = 0.0;
};

// A channel's name as the name of a file.
std::string fileName(const std::string &channel)
{
    std::string name = channel;
    for (char &c : name) {
        if (c == '/' || (c >= 0 && c < ' ') || c == '\x7f')
            c = '_';
    }
    return name.empty() || name == "." || name == ".." ? "_" + name : name;
}

class Exporter {
public:
    Exporter(const ExportOptions &options, const Recording &recording, const Catalogue &catalogue)
        : options_(options), recording_(recording), catalogue_(catalogue)
    {
        settings_.ticksPerSecond = catalogue.ticksPerSecond;
        settings_.fill = options.fill;
        settings_.bus = options.bus;
        settings_.originMicroseconds = std::llround(options.origin * 1e6);
    }
    bool run(); // false if a channel that was asked for was left out

private:
    std::vector<ChannelBlocks> selected();
    void writeOne(const ExportFormat &format, const ChannelBlocks &from);
    void writeMerged(double rate, const std::vector<ChannelBlocks> &channels);
    std::filesystem::path pathFor(const std::string &name, const char *ending);
    void tellLeftOut() const;

    const ExportOptions &options_;
    const Recording &recording_;
    const Catalogue &catalogue_;
    ExportSettings settings_;
    std::set<std::string> taken_; // names of files written already
    OrderedJson written_ = OrderedJson::array();
    std::map<std::string, std::vector<std::string>> leftOut_; // names by reason
};

bool Exporter::run()
{
    const auto format = std::ranges::find(kFormats, options_.format, &ExportFormat::name);
    std::map<double, std::vector<ChannelBlocks>> byRate;
    std::filesystem::create_directories(options_.directory);
    for (const ChannelBlocks &from : selected()) {
        const std::string why = (*format)->refusal(*from.channel, from.blocks, settings_);
        if (!why.empty())
            leftOut_[why].push_back(from.channel->name);
        else if (options_.merge && from.channel->periodic())
            byRate[from.channel->sampleRate].push_back(from);
        else
            writeOne(**format, from);
    }
    for (const auto &[rate, channels] : byRate)
        writeMerged(rate, channels);
    if (options_.json)
        fmt::print("{}\n", OrderedJson({{"file", options_.file}, {"written", written_}}).dump(2));
    tellLeftOut();
    // Only a channel that was asked for counts as missing: most files hold some that a form can not take.
    return leftOut_.empty() || options_.channels.empty();
}

std::vector<ChannelBlocks> Exporter::selected()
{
    std::vector<ChannelBlocks> chosen;
    std::set<std::string> unused(options_.channels.begin(), options_.channels.end());
    for (const Channel &channel : catalogue_.channels) {
        bool wanted = options_.channels.empty();
        for (const std::string &glob : options_.channels) {
            if (fnmatch(glob.c_str(), channel.name.c_str(), 0) != 0)
                continue;
            wanted = true;
            unused.erase(glob);
        }
        if (wanted)
            chosen.push_back({&channel, recording_.blocksOf(channel.group)});
    }
    if (!unused.empty())
        throw InputError(
            fmt::format("{}: --channel '{}': expected the name of a channel in the file; 'vu info' "
                        "lists them",
                        options_.file, *unused.begin()));
    return chosen;
}

void Exporter::writeOne(const ExportFormat &format, const ChannelBlocks &from)
{
    const auto path = pathFor(from.channel->name, format.name);
    TextFile file(path, options_.force);
    format.write(*from.channel, from.blocks, settings_, file);
    file.finish();
}

void Exporter::writeMerged(double rate, const std::vector<ChannelBlocks> &channels)
{
    TextFile file(pathFor(fmt::format("merged_{}Hz", rate), "csv"), options_.force);
    writeMergedCsv(channels, settings_, file);
}

// Names that differ only in what a file name can not hold get numbers.
std::filesystem::path Exporter::pathFor(const std::string &name, const char *ending)
{
    const std::string base = fileName(name);
    std::string unique = base;
    for (int number = 2; !taken_.insert(unique).second; ++number)
        unique = fmt::format("{}_{}", base, number);
    const auto path = std::filesystem::path(options_.directory) / fmt::format("{}.{}", unique, ending);
    if (options_.json)
        written_.push_back({{"channel", name}, {"path", path.string()}});
    else
        fmt::print("{}\n", path.string());
    return path;
}

// One line a reason: a candump log takes one channel of a file with hundreds.
void Exporter::tellLeftOut() const
{
    constexpr size_t kNamed = 3;
    for (const auto &[why, names] : leftOut_) {
        const std::span shown(names.data(), std::min(names.size(), kNamed));
        const std::string more =
            names.size() > kNamed ? fmt::format(" and {} more", names.size() - kNamed) : "";
        fmt::print(stderr, "left out: {}{}: {}\n", fmt::join(shown, ", "), more, why);
    }
}

int exportChannels(const ExportOptions &options)
{
    if (!(std::abs(options.origin) < kMaxOrigin))
        throw InputError("--origin: expected a time in seconds");
    if (options.merge && options.format != kCsvFormat.name)
        throw InputError("--merge: expected with --format csv only");
    const MappedFile file(options.file);
    const Recording recording = scan(file.bytes(), options.file);
    const bool whole = Exporter(options, recording, requireCatalogue(recording, options.file)).run();
    if (recording.damagedBytes > 0)
        fmt::print(stderr,
                   "{0}: {1} bytes are damaged, and what was in them is missing; 'vu verify {0}' says more\n",
                   options.file, recording.damagedBytes);
    return whole && recording.damagedBytes == 0 ? kDone : kDataMissing;
}

} // namespace

} // namespace vu::krd

void vu::addExport(CLI::App &app, Action &chosen)
{
    auto *command =
        app.add_subcommand("export", "Writes channels of a data file as CSV, NumPy, WAV or candump files");
    command->footer("One file a channel, at its own rate, in physical values; nothing is resampled. CSV of a "
                    "periodic channel:\n"
                    "sample,time,value with the time in seconds from the start of the test; of messages: "
                    "tick,time and what they\n"
                    "hold (ticks of 25 ns from the start of the test; NTP channels from 1970 on). A sample "
                    "that is missing is a\n"
                    "jump of the sample number; a NumPy array with one has records of sample and value.\n"
                    "Exit status 3: the file is damaged, or a channel asked for has no such form.\n"
                    "Example: vu export drive.krd -o drive --format csv --channel 'Engine*'");
    const auto options = std::make_shared<krd::ExportOptions>();
    command->add_option("FILE", options->file, "The data file")->required();
    command
        ->add_option("-o,--output", options->directory, "The folder for the files; made if it is not there")
        ->required();
    command->add_option("--format", options->format, "csv, npy, wav or candump")
        ->check(CLI::IsMember({"csv", "npy", "wav", "candump"}))
        ->capture_default_str();
    command->add_option("--channel", options->channels, "Only channels that match this glob; may be repeated")
        ->allow_extra_args(false);
    command->add_flag("--merge", options->merge, "CSV: periodic channels of one rate into one table");
    command->add_option("--fill", options->fill, "A value for samples that are missing between others");
    command->add_option("--bus", options->bus,
                        "candump: the name of the bus; that of the channel if not given");
    command->add_option("--origin", options->origin, "candump: the time of tick 0 in seconds")
        ->capture_default_str();
    command->add_flag("--force", options->force, "Overwrite files that exist");
    command->add_flag("--json", options->json, "Answer with JSON: what was written");
    command->callback([&chosen, options] { chosen = [options] { return krd::exportChannels(*options); }; });
}
