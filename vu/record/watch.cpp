#include "vu/record/watch.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <stdexcept>

#include "libvu/monitor/over_range.h"
#include "vu/record/host_callbacks.h"

namespace vu {

namespace {

void copyName(char (&to)[OVER_RNG_NAME_SIZE], const std::string &name)
{
    std::memcpy(to, name.data(), std::min(name.size(), sizeof to - 1)); // the record is zeroed
}

OverRngChannelConfig watchedConfig(const WatchedChannel &watched, const std::vector<Track> &tracks)
{
    const auto track = std::find_if(tracks.begin(), tracks.end(), [&](const Track &candidate) {
        return candidate.name == watched.channel;
    });
    if (track == tracks.end())
        throw std::runtime_error(fmt::format("no track {} to watch", watched.channel));
    OverRngChannelConfig config{};
    copyName(config.name, watched.channel);
    config.sample_rate = track->sample_rate;
    config.mode = watched.mode;
    config.report = watched.report;
    config.element_size = static_cast<uint16_t>(track->element_size);
    config.lower_limit = watched.lower;
    config.upper_limit = watched.upper;
    config.pipe = pipeAttachPipe(track->pipes);
    if (!config.pipe)
        throw std::bad_alloc();
    return config;
}

// "\nMONITOR (TIME):  channel 'CHANNEL' over range: VALUE > LIMIT"
void addNotice(const Monitor &monitor, std::string text, Events &events)
{
    text.erase(0, text.find_first_not_of('\n'));
    const std::string front = monitor.name + " (";
    std::optional<double> time;
    if (text.starts_with(front))
        time = std::strtod(text.c_str() + front.size(), nullptr);
    const size_t value = text.rfind("range: ");
    std::optional<double> extreme;
    if (value != std::string::npos)
        extreme = std::strtod(text.c_str() + value + 7, nullptr);
    const auto watched =
        std::find_if(monitor.channels.begin(), monitor.channels.end(), [&](const WatchedChannel &one) {
            return text.find("channel '" + one.channel + "'") != std::string::npos;
        });
    events.add("range", watched == monitor.channels.end() ? monitor.name : watched->channel, text, extreme,
               time);
}

} // namespace

Watch::Watch(const Description &test, const std::vector<Track> &tracks)
{
    GatheredErrors errors;
    for (const Monitor &monitor : test.monitors) {
        auto module = std::make_unique<Module>();
        module->monitor = &monitor;
        std::vector<OverRngChannelConfig> channels;
        for (const WatchedChannel &watched : monitor.channels)
            channels.push_back(watchedConfig(watched, tracks));
        OverRngModuleConfig config{};
        copyName(config.name, monitor.name);
        config.rate = monitor.rate;
        config.channel_count = static_cast<uint32_t>(channels.size());
        config.output = &module->output;
        module->id = Over_Rng_Detect_init(&config, channels.data());
        if (module->id < 0)
            throw std::runtime_error(fmt::format("monitor {}: {}", monitor.name, errors.take()));
        modules_.push_back(std::move(module));
    }
}

Watch::~Watch()
{
    for (const auto &module : modules_) {
        Over_Rng_Detect_stop(module->id);
        while (module->output.first)
            pipeDetachPipe(&module->output, module->output.first);
    }
}

std::vector<Track> Watch::tracks()
{
    std::vector<Track> tracks;
    for (const auto &module : modules_) {
        Track track;
        track.name = module->monitor->name;
        track.kind = "sequential";
        track.element = "float64";
        track.element_size = sizeof(double);
        track.sample_rate = module->monitor->rate;
        track.store = module->monitor->store;
        track.pipes = &module->output;
        tracks.push_back(std::move(track));
    }
    return tracks;
}

void Watch::run(Events &events)
{
    for (const auto &module : modules_) {
        const OverRngNotices *notices = Over_Rng_Detect_run(module->id);
        if (!notices)
            continue;
        for (uint32_t i = 0; i < notices->count; i++)
            addNotice(*module->monitor, notices->text[i], events);
        if (notices->dropped > 0)
            events.add("range", module->monitor->name, fmt::format("{} notices more", notices->dropped));
    }
}

} // namespace vu
