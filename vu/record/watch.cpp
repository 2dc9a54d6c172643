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

const Track &trackOf(const WatchedChannel &watched, const std::vector<Track> &tracks)
{
    const auto track = std::find_if(tracks.begin(), tracks.end(), [&](const Track &candidate) {
        return candidate.name == watched.channel;
    });
    if (track == tracks.end())
        throw std::runtime_error(fmt::format("no track {} to watch", watched.channel));
    return *track;
}

OverRngChannelConfig watchedConfig(const WatchedChannel &watched, const Track &track)
{
    OverRngChannelConfig config{};
    copyName(config.name, watched.channel);
    config.sample_rate = track.sample_rate;
    config.mode = watched.mode;
    config.report = watched.report;
    config.element_size = static_cast<uint16_t>(track.element_size);
    config.lower_limit = watched.lower;
    config.upper_limit = watched.upper;
    config.pipe = pipeAttachPipe(track.pipes);
    if (!config.pipe)
        throw std::bad_alloc();
    return config;
}

// Windows that end at or before the newest sample of a track. A window whose end is within rounding of that
// sample is not counted on: at worst it is put out without having been expected.
uint64_t windowsPassed(const Track &track, double rate)
{
    constexpr double kRounding = 1e-6; // windows
    const int64_t samples = track.stream ? track.stream->sample_count
                            : track.node ? track.node->sample_count
                                         : 0;
    const double windows = static_cast<double>(samples - 1) / track.sample_rate * rate - kRounding;
    return windows >= 1.0 && windows < 0x1p63 ? static_cast<uint64_t>(windows) : 0;
}

bool belongsTo(const Track &track, const std::string &channel)
{
    return track.name == channel || track.parent == channel;
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
        for (const WatchedChannel &watched : monitor.channels) {
            module->watched.push_back(trackOf(watched, tracks));
            channels.push_back(watchedConfig(watched, module->watched.back()));
        }
        module->counter = pipeAttachPipe(&module->output);
        if (!module->counter)
            throw std::bad_alloc();
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
        track.counted = &module->complete;
        tracks.push_back(std::move(track));
    }
    return tracks;
}

void Watch::count(Module &module)
{
    uint64_t complete = UINT64_MAX;
    for (const Track &track : module.watched)
        complete = std::min(complete, windowsPassed(track, module.monitor->rate));
    while (Frame *frame = pipeGetFrame(module.counter)) {
        module.put_out += frame->length;
        frameDelete(frame);
    }
    module.complete = std::max(complete, module.put_out);
}

// Returns whether windows came out.
bool Watch::runOnce(Module &module, Events &events)
{
    const uint64_t before = module.put_out;
    const OverRngNotices *notices = Over_Rng_Detect_run(module.id);
    for (uint32_t i = 0; notices && i < notices->count; i++)
        addNotice(*module.monitor, notices->text[i], events);
    if (notices && notices->dropped > 0)
        events.add("range", module.monitor->name, fmt::format("{} notices more", notices->dropped));
    count(module);
    return module.put_out > before;
}

// The detector puts out a ring of windows in one run. What several runs bring has to be stored before more
// comes, or it would fill the memory.
bool Watch::run(Events &events)
{
    constexpr int kMostRuns = 16;
    bool more = false;
    for (const auto &module : modules_) {
        int runs = 0;
        while (runOnce(*module, events) && runs < kMostRuns)
            runs++;
        more = more || runs == kMostRuns;
    }
    return more;
}

void Watch::noteEnd(const std::string &channel, Events &events)
{
    for (const auto &module : modules_) {
        const auto ended = std::find_if(module->watched.begin(), module->watched.end(),
                                        [&](const Track &track) { return belongsTo(track, channel); });
        if (module->ended || ended == module->watched.end())
            continue;
        module->ended = true;
        events.add("monitor_ended", module->monitor->name,
                   fmt::format("its track ends, since '{}' brings no more samples", ended->name));
    }
}

} // namespace vu
