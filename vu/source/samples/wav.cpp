#include <CLI/CLI.hpp>
#include <filesystem>
#include <fmt/format.h>
#include <sndfile.h>

#include "vu/command.h"
#include "vu/source/kinds.h"
#include "vu/source/samples/sample_stream.h"

namespace vu {

namespace {

sf_count_t readFrames(SNDFILE *file, float *to, sf_count_t frames)
{
    return sf_readf_float(file, to, frames);
}

sf_count_t readFrames(SNDFILE *file, double *to, sf_count_t frames)
{
    return sf_readf_double(file, to, frames);
}

class WavReader : public SampleReader {
public:
    WavReader(const std::string &path, int channel, bool normalised) : channel_(channel)
    {
        file_.reset(sf_open(path.c_str(), SFM_READ, &info_));
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
    SF_INFO info_{};
    std::unique_ptr<SNDFILE, Close> file_;
    std::vector<float> floats_;
    std::vector<double> doubles_;
};

} // namespace

void addWav(CLI::App &source, Action &chosen)
{
    struct Options {
        std::string file;
        int channel = 0;
        bool normalise = false;
    };
    CLI::App *kind = source.add_subcommand(
        "wav", "One channel of a sound file (WAV of either byte order, and what else libsndfile reads)\n"
               "Example: vu source wav hammer.wav --listen unix:run/force.sock "
               "--data-type sequential_float64 --channel 1");
    auto options = std::make_shared<Options>();
    kind->add_option("FILE", options->file, "the file")->required();
    kind->add_option("--channel", options->channel, "channel of the file, counted from 0 [0]");
    kind->add_flag("--normalise", options->normalise,
                   "integer samples as parts of full scale, from -1 to 1, instead of as their numbers");
    const auto common = addCommonOptions(*kind);
    kind->callback([options, common, &chosen] {
        chosen = [options, common] {
            ServeOptions serving = common->settled();
            auto reader = std::make_unique<WavReader>(options->file, options->channel, options->normalise);
            if (serving.sampleRate == 0.0)
                serving.sampleRate = reader->rate();
            return serveSamples(serving, std::move(reader));
        };
    });
}

} // namespace vu
