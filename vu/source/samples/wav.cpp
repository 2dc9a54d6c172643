#include <CLI/CLI.hpp>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sndfile.h>

#include "vu/command.h"
#include "vu/source/kinds.h"
#include "vu/source/samples/sample_stream.h"

namespace vu {

namespace {

struct WavOptions {
    std::string file;
    int channel = 0;
    bool normalise = false;
};

sf_count_t readFrames(SNDFILE *file, float *to, sf_count_t frames)
{
    return sf_readf_float(file, to, frames);
}

sf_count_t readFrames(SNDFILE *file, double *to, sf_count_t frames)
{
    return sf_readf_double(file, to, frames);
}

uint32_t numberAt(const char *bytes, bool big)
{
    uint32_t number;
    std::memcpy(&number, bytes, sizeof number);
    return big ? reversed(number) : number;
}

// The frames that a WAV file announces beyond its end; the library reads what is there without a word. A
// size of 0 or of all ones is that of a writer that could not know it.
uint64_t missingFrames(const std::string &path)
{
    constexpr size_t kChunkHead = 8, kAlignAt = 12;
    std::ifstream file(path, std::ios::binary);
    std::error_code ignored;
    const uint64_t length = std::filesystem::file_size(path, ignored);
    char head[12];
    if (ignored || !file.read(head, sizeof head))
        return 0;
    const bool big = std::memcmp(head, "RIFX", 4) == 0;
    if ((!big && std::memcmp(head, "RIFF", 4) != 0) || std::memcmp(head + 8, "WAVE", 4) != 0)
        return 0;
    uint64_t at = sizeof head, align = 0;
    while (file.seekg(static_cast<std::streamoff>(at)) && file.read(head, kChunkHead)) {
        const uint32_t size = numberAt(head + 4, big);
        at += kChunkHead;
        if (std::memcmp(head, "data", 4) == 0) {
            const bool known = size != 0 && size != UINT32_MAX && align != 0;
            return known && at + size > length ? (at + size - length + align - 1) / align : 0;
        }
        char format[16];
        if (std::memcmp(head, "fmt ", 4) == 0 && size >= sizeof format && file.read(format, sizeof format))
            align = static_cast<uint64_t>(numberAt(format + kAlignAt, big) >> (big ? 16 : 0)) & 0xFFFF;
        at += size + (size & 1); // chunks begin at even places
    }
    return 0;
}

class WavReader : public SampleReader {
public:
    WavReader(const std::string &path, int channel, bool normalised) : channel_(channel)
    {
        file_.reset(sf_open(path.c_str(), SFM_READ, &info_));
        if (file_)
            missing_ = missingFrames(path);
        if (!file_)
            throw InputError(fmt::format("{}: {}", path, sf_strerror(nullptr)));
        if (channel < 0 || channel >= info_.channels)
            throw InputError(
                fmt::format("{}: --channel: expected 0 to {}, got {}", path, info_.channels - 1, channel));
        // Otherwise an integer sample is its own number. Samples that are floats already stay as they are.
        for (const int command : {SFC_SET_NORM_FLOAT, SFC_SET_NORM_DOUBLE})
            sf_command(file_.get(), command, nullptr, normalised ? SF_TRUE : SF_FALSE);
    }

    double rate() const { return info_.samplerate; }
    size_t read(std::span<float> out) override { return pick(out, floats_); }
    size_t read(std::span<double> out) override { return pick(out, doubles_); }
    uint64_t missing() const override { return missing_; }

private:
    template <class T>
    size_t pick(std::span<T> out, std::vector<T> &frames)
    {
        const auto width = static_cast<size_t>(info_.channels);
        frames.resize(out.size() * width);
        const sf_count_t count = readFrames(file_.get(), frames.data(), static_cast<sf_count_t>(out.size()));
        for (size_t i = 0; i < static_cast<size_t>(count); ++i)
            out[i] = frames[i * width + static_cast<size_t>(channel_)];
        return static_cast<size_t>(count);
    }

    struct Close {
        void operator()(SNDFILE *file) const { sf_close(file); }
    };
    int channel_;
    uint64_t missing_ = 0;
    SF_INFO info_{};
    std::unique_ptr<SNDFILE, Close> file_;
    std::vector<float> floats_;
    std::vector<double> doubles_;
};

int serveWav(ServeOptions serving, const WavOptions &options)
{
    auto reader = std::make_unique<WavReader>(options.file, options.channel, options.normalise);
    if (serving.sampleRate == 0.0)
        serving.sampleRate = reader->rate();
    return serveSamples(serving, std::move(reader));
}

} // namespace

void addWav(CLI::App &source, Action &chosen)
{
    CLI::App *kind = source.add_subcommand(
        "wav", "One channel of a sound file (WAV of either byte order, and what else libsndfile reads)\n"
               "Example: vu source wav hammer.wav --listen unix:run/force.sock "
               "--data-type sequential_float64 --channel 1");
    auto options = std::make_shared<WavOptions>();
    kind->add_option("FILE", options->file, "the file")->required();
    kind->add_option("--channel", options->channel, "channel of the file, counted from 0 [0]");
    kind->add_flag("--normalise", options->normalise,
                   "integer samples as parts of full scale, from -1 to 1, instead of as their numbers");
    chooseKind(*kind, chosen, options, serveWav);
}

} // namespace vu
