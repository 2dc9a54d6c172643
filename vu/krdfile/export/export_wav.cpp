// RIFF WAVE with floating-point samples, one channel a file.
#include <cmath>
#include <limits>

#include "vu/krdfile/export/export_formats.h"

namespace vu::krd {

namespace {

constexpr uint16_t kIeeeFloat = 3;
constexpr uint64_t kHeaderBytes = 50; // what RIFF counts beyond the samples: WAVE, fmt, fact, head of data

// 32 bits where they hold every value exactly.
uint16_t sampleBytes(const Channel &channel)
{
    const bool narrow =
        channel.identity() && (channel.element == Element::kFloat32 || channel.valueSize() <= 2);
    return narrow ? sizeof(float) : sizeof(double);
}

std::string refusal(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings)
{
    if (!channel.periodic())
        return "messages have no sample rate, and WAV needs one";
    if (channel.sampleRate != std::floor(channel.sampleRate) || channel.sampleRate > UINT32_MAX)
        return fmt::format("WAV holds whole sample rates, and this one is {} Hz", channel.sampleRate);
    const Extent extent = extentOf(channel, blocks, settings);
    if (extent.missing > 0)
        return fmt::format("{} samples are missing, and WAV has no sample numbers to show it; '--fill VALUE' "
                           "puts a value in their place",
                           extent.missing);
    if (extent.samples > (UINT32_MAX - kHeaderBytes - 1) / sampleBytes(channel))
        return "it has more samples than the 4 GiB of a WAV file hold";
    return {};
}

template <typename T>
void append(TextFile &file, T value)
{
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    file.append({bytes, sizeof bytes});
}

void write(const Channel &channel, std::span<const Block> blocks, const ExportSettings &settings,
           TextFile &file)
{
    const uint16_t width = sampleBytes(channel);
    const auto samples = static_cast<uint32_t>(extentOf(channel, blocks, settings).samples);
    const auto rate = static_cast<uint32_t>(channel.sampleRate);
    file.append("RIFF");
    append<uint32_t>(file, static_cast<uint32_t>(kHeaderBytes) + samples * width);
    file.append("WAVEfmt ");
    append<uint32_t>(file, 18);
    append<uint16_t>(file, kIeeeFloat);
    append<uint16_t>(file, 1); // channels
    append<uint32_t>(file, rate);
    append<uint32_t>(file, rate * width); // bytes a second; readers do not rely on it, and it may wrap
    append<uint16_t>(file, width);
    append<uint16_t>(file, static_cast<uint16_t>(8 * width));
    append<uint16_t>(file, 0); // no extension
    file.append("fact");
    append<uint32_t>(file, 4);
    append<uint32_t>(file, samples);
    file.append("data");
    append<uint32_t>(file, samples * width);
    forEachSample(channel, blocks, settings, [&](int64_t, const Number &number, bool noValue) {
        const double value = noValue ? std::numeric_limits<double>::quiet_NaN() : toDouble(number);
        if (width == sizeof(float))
            append(file, static_cast<float>(value));
        else
            append(file, value);
    });
}

} // namespace

const ExportFormat kWavFormat = {
    "wav", "sound files of periodic channels, floating point", false, true, false, refusal, write};

} // namespace vu::krd
