// The forms in which a channel leaves a data file. Each writes one channel into one file.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "vu/krdfile/samples.h"
#include "vu/support/text_file.h"

namespace vu::krd {

struct ExportSettings {
    int64_t ticksPerSecond = 0;
    ReadProgress *progress = nullptr; // of the whole export
    std::optional<double> fill;       // value of samples that are missing; nothing: they are left out
    std::string bus;                  // of a candump log; empty: the channel's name
    int64_t originMicroseconds = 0;   // of a candump log: the time of tick 0
};

struct ExportFormat {
    const char *name; // and the ending of its files
    const char *help;
    bool tables;  // takes --merge
    bool samples; // takes --fill: it can hold periodic channels
    bool bus;     // takes --bus and --origin
    // Why this channel has no such form; empty if it has one.
    std::string (*refusal)(const Channel &channel, std::span<const Block> blocks,
                           const ExportSettings &settings);
    void (*write)(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings,
                  TextFile &file);
};

// Every form there is: names, help and what options apply come from here.
std::span<const ExportFormat *const> exportFormats();

extern const ExportFormat kCsvFormat, kNpyFormat, kWavFormat, kCandumpFormat;

struct ChannelBlocks {
    const Channel *channel = nullptr;
    std::span<const Block> blocks;
};
// Periodic channels of one rate in one table: a row for each sample that any of them has, empty where one has
// none.
void writeMergedCsv(const std::vector<ChannelBlocks> &channels, const ExportSettings &settings,
                    TextFile &file); // does not finish it

// Samples with their gaps, as settings.fill says: visit(sample, value, whether it stands for "no value") for
// each.
template <typename Visit>
void forEachSample(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings,
                   Visit &&visit)
{
    std::optional<int64_t> expected;
    for (SampleCursor cursor(channel, blocks, settings.progress); !cursor.atEnd(); cursor.next()) {
        if (settings.fill && expected) {
            for (int64_t missing = *expected; missing < cursor.sample(); ++missing)
                visit(missing, Number(*settings.fill), false);
        }
        visit(cursor.sample(), cursor.value(), cursor.noValue());
        expected = sampleAfter(cursor.sample(), 1);
    }
}

// What a periodic channel comes to: samples that forEachSample() visits, and those missing without a fill.
struct Extent {
    uint64_t samples = 0; // at most INT64_MAX, like every sample number
    uint64_t missing = 0;
    bool no_values = false;     // some mean "no value"
    int64_t begin = 0, end = 0; // of the sample numbers
};
Extent extentOf(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings);

// Rows of the table that writeMergedCsv() makes of them, or more.
uint64_t mergedRows(const std::vector<ChannelBlocks> &channels, const ExportSettings &settings);

// The fields of a raw CAN record after its time.
struct CanFrame {
    uint32_t id = 0;
    bool extended = false; // 29 bits
    bool remote = false;
    Bytes data;
    std::string idText() const; // hexadecimal, 3 digits or 8
};
CanFrame canFrame(Bytes body);

std::string hexText(Bytes bytes);

} // namespace vu::krd
