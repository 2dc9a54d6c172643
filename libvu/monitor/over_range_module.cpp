// Making and releasing a detector's records.
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

#include "libvu/core/report.h"
#include "libvu/monitor/element_access.h"
#include "libvu/monitor/over_range_module_private.h"

namespace libvu {

namespace {

struct ReleaseModule {
    void operator()(OverRngModule *module) const { releaseModule(module); }
};

bool outOfMemory(const char *what)
{
    libvuCriticalError("Failed to allocate memory for '%s'", what);
    return false;
}

bool isUsableRate(double rate)
{
    return rate > 0.0 && std::isfinite(rate) && std::isfinite(1.0 / rate);
}

bool refuseRates()
{
    libvuCriticalError("Internal Error: %s", "invalid rate");
    return false;
}

// The configured text need not be terminated if it fills its field.
char *copyName(const char (&name)[OVER_RNG_NAME_SIZE])
{
    return strndup(name, sizeof name);
}

// Slow channels are up-sampled, so that every window holds samples of theirs.
bool setPeriod(OverRngChannel &channel, double rate, double sampleRate)
{
    if (!isUsableRate(sampleRate))
        return refuseRates();
    if (sampleRate > rate) {
        channel.period = 1.0 / sampleRate;
        return true;
    }
    const double factor = 2.0 * (rate / sampleRate + 1.0);
    if (!(factor < std::numeric_limits<uint16_t>::max() + 1.0))
        return refuseRates();
    channel.upsample = static_cast<uint16_t>(factor);
    channel.period = 1.0 / (channel.upsample * sampleRate);
    return true;
}

void setRange(OverRngChannel &channel, const OverRngChannelConfig &config)
{
    constexpr double kNever = std::numeric_limits<double>::infinity();
    const bool both = config.mode == OVER_RNG_BOTH_LIMITS;
    channel.badMode = config.mode < OVER_RNG_BOTH_LIMITS || config.mode > OVER_RNG_LOWER_LIMIT;
    channel.range.upper = both || config.mode == OVER_RNG_UPPER_LIMIT ? config.upper_limit : kNever;
    channel.range.lower = both || config.mode == OVER_RNG_LOWER_LIMIT ? config.lower_limit : -kNever;
    channel.range.showsExtreme = both;
}

bool addChannel(OverRngModule &module, uint32_t number, const OverRngChannelConfig &config)
{
    OverRngChannel *channel = module.channels[number] = makeZeroed<OverRngChannel>().release();
    if (!channel)
        return outOfMemory("channel");
    channel->name = copyName(config.name);
    if (!channel->name)
        return outOfMemory("channel");
    if (!getFrameBufReader(config.element_size)) // reports a size that nothing can read
        return false;
    channel->elementSize = config.element_size;
    channel->type = config.element_size == sizeof(float) ? SampleType::float32 : SampleType::float64;
    channel->report = config.report;
    channel->pipe = config.pipe;
    setRange(*channel, config);
    return setPeriod(*channel, module.rate, config.sample_rate);
}

// A module without channels needs no memory for them, and null is no failure then.
bool allocateArrays(OverRngModule &module)
{
    const size_t channels = module.channelCount;
    module.noticeText = static_cast<char *>(std::calloc(OVER_RNG_NOTICES, OVER_RNG_NOTICE_SIZE));
    if (!module.noticeText)
        return outOfMemory("over range");
    for (size_t i = 0; i < OVER_RNG_NOTICES; i++)
        module.notices.text[i] = module.noticeText + i * OVER_RNG_NOTICE_SIZE;
    if (channels == 0)
        return true;
    module.channels = static_cast<OverRngChannel **>(std::calloc(channels, sizeof(OverRngChannel *)));
    if (!module.channels)
        return outOfMemory("channel pointers");
    module.seen = static_cast<uint8_t *>(std::calloc(kRing, channels));
    if (!module.seen)
        return outOfMemory("over range");
    for (size_t i = 0; i < kRing; i++)
        module.entries[i].seen = module.seen + i * channels;
    return true;
}

bool fillModule(OverRngModule &module, const OverRngModuleConfig &config,
                const OverRngChannelConfig *channels)
{
    if (!isUsableRate(config.rate))
        return refuseRates();
    module.name = copyName(config.name);
    if (!module.name)
        return outOfMemory("over range");
    module.rate = config.rate;
    module.window = 1.0 / config.rate;
    module.channelCount = config.channel_count;
    module.output = config.output;
    if (!allocateArrays(module))
        return false;
    for (uint32_t i = 0; i < module.channelCount; i++)
        if (!addChannel(module, i, channels[i]))
            return false;
    return true;
}

} // namespace

OverRngModule *makeModule(const OverRngModuleConfig &config, const OverRngChannelConfig *channels)
{
    std::unique_ptr<OverRngModule, ReleaseModule> module(makeZeroed<OverRngModule>().release());
    if (!module) {
        outOfMemory("over range");
        return nullptr;
    }
    return fillModule(*module, config, channels) ? module.release() : nullptr;
}

void releaseModule(OverRngModule *module)
{
    for (uint32_t i = 0; module->channels && i < module->channelCount; i++) {
        if (module->channels[i])
            std::free(module->channels[i]->name);
        std::free(module->channels[i]);
    }
    std::free(module->channels);
    std::free(module->seen);
    std::free(module->noticeText);
    std::free(module->name);
    std::free(module);
}

} // namespace libvu
