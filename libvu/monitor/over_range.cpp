#include "libvu/monitor/over_range.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "libvu/core/c_locale_private.h"
#include "libvu/core/deliver_private.h"
#include "libvu/core/report.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/monitor/element_access.h"
#include "libvu/monitor/over_range_module_private.h"
#include "libvu/monitor/window_ring_private.h"

namespace {

using libvu::kRing;
using libvu::OverRngChannel;
using libvu::OverRngModule;

constexpr uint32_t kTableStep = 10;

struct Table {
    uint32_t count;
    uint32_t capacity;
    OverRngModule **modules;
} table;

constexpr char kNotice[] = "\n%s (%.1f):  channel '%s' %s range: %f %c %f";

void internalError(const char *what)
{
    libvuCriticalError("Internal Error: %s", what);
}

bool growTable()
{
    if (table.count < table.capacity)
        return true;
    const size_t wanted = size_t{table.capacity} + kTableStep;
    auto *modules =
        static_cast<OverRngModule **>(std::realloc(table.modules, wanted * sizeof(OverRngModule *)));
    if (!modules) {
        libvuCriticalError("Failed to allocate memory for '%s'", "over range");
        return false;
    }
    table.modules = modules;
    table.capacity = static_cast<uint32_t>(wanted);
    return true;
}

OverRngModule *moduleOf(int32_t id)
{
    const auto slot = static_cast<uint32_t>(id);
    if (slot >= table.count) {
        internalError("invalid module_id");
        return nullptr;
    }
    if (!table.modules[slot])
        internalError("invalid module");
    return table.modules[slot];
}

template <typename Sample>
void repeatSamples(Frame &to, const Frame &from, uint32_t times)
{
    const auto *source = static_cast<const uint8_t *>(from.data);
    auto *target = static_cast<Sample *>(to.data); // made by us, so aligned
    for (uint32_t i = 0; i < from.length; i++)
        target = std::fill_n(target, times, libvu::loadHost<Sample>(source + i * sizeof(Sample)));
    to.length = to.capacity;
}

// The same frame with every sample repeated, at a multiple of its rate. Null after reports.
Frame *upsampled(const OverRngChannel &channel, const Frame &frame)
{
    const uint64_t length = uint64_t{frame.length} * channel.upsample;
    Frame *longer = nullptr;
    if (length <= UINT32_MAX)
        longer = frameCreate(static_cast<uint32_t>(length), frame.element_size, nullptr);
    if (!longer) {
        internalError("could not allocate up-sampled frame");
        return nullptr;
    }
    switch (channel.type) {
    case libvu::SampleType::float32: repeatSamples<float>(*longer, frame, channel.upsample); break;
    case libvu::SampleType::float64: repeatSamples<double>(*longer, frame, channel.upsample); break;
    }
    libvu::stampStart(longer, libvu::multiplySaturated(frame.start, channel.upsample));
    return longer;
}

// A frame of one channel, and the time of the oldest window that is not passed.
struct Passage {
    OverRngModule &module;
    OverRngChannel &channel;
    double back;  // time of the entry at `back`
    double first; // times of the frame's samples
    double last;
};

void guardRing(const Passage &at)
{
    const OverRngModule &module = at.module;
    // All ones while no window waits: then there is no bound to speak of.
    const uint32_t free =
        module.front >= module.back ? module.front - module.back - 1 : module.front + kRing - module.back;
    const double end = at.back + free * module.window;
    if (at.first < at.back || !(at.last < end))
        libvuCriticalError("Internal Error - ran out of output buffers: first_sample_time = %f, "
                           "back_entry_timestamp = %f, last_sample_time = %f, "
                           "back_entry_timestamp + output_buffer_window = %f",
                           at.first, at.back, at.last, end);
}

// The log has the complete text; the list of the run has as much of it as fits.
void give(OverRngModule &module, const OverRngChannel &channel, double time, bool over, double value)
{
    const char *kind = over ? "over" : "under";
    const char sign = over ? '>' : '<';
    const double limit = over ? channel.range.upper : channel.range.lower;
    logNotice(kNotice, module.name, time, channel.name, kind, value, sign, limit);
    if (!channel.report)
        return;
    OverRngNotices &notices = module.notices;
    if (notices.count == OVER_RNG_NOTICES) {
        notices.dropped++;
        return;
    }
    const libvu::CLocaleScope decimalPoints; // the same text as in the log
    std::snprintf(notices.text[notices.count++], OVER_RNG_NOTICE_SIZE, kNotice, module.name, time,
                  channel.name, kind, value, sign, limit);
}

void giveNotices(const Passage &at, const libvu::Excursions &found, double time)
{
    OverRngChannel &channel = at.channel;
    if (found.under && !channel.underReported) {
        channel.underReported = true;
        give(at.module, channel, time, false, found.underValue);
    }
    if (found.over && !channel.overReported) {
        channel.overReported = true;
        give(at.module, channel, time, true, found.overValue);
    }
}

// A sample covers all of its period. A channel's first notice is given wherever its windows are.
void mark(const Passage &at, const Frame &frame, const libvu::Excursions &found)
{
    OverRngChannel &channel = at.channel;
    const auto timeOf = [&](uint32_t sample) {
        return static_cast<double>(libvu::addSaturated(frame.start, sample)) * channel.period;
    };
    const double first = timeOf(found.first);
    const libvu::Marked marked =
        libvu::markWindows(at.module, first, timeOf(found.last) + (channel.period - libvu::kWindowEdge));
    if (marked == libvu::Marked::none)
        return;
    giveNotices(at, found, first);
    const bool wasLosing = channel.losesMarks;
    channel.losesMarks = marked == libvu::Marked::notAll;
    if (channel.losesMarks && !wasLosing)
        logWarning("%s:  channel '%s' is too far ahead, marks of its windows out of range are lost",
                   at.module.name, channel.name);
}

// A report's callback may stop the module: its memory stays until the run ends, and the caller looks whether
// it is stopped.
void watch(OverRngModule &module, uint32_t number, const Frame &frame)
{
    OverRngChannel &channel = *module.channels[number];
    const double first = static_cast<double>(frame.start) * channel.period;
    const double last = first + channel.period * (static_cast<double>(frame.length) - 1.0);
    const Passage at{module, channel, libvu::backTime(module), first, last};
    guardRing(at);
    libvu::Excursions found;
    if (channel.badMode)
        internalError("invalid mode value");
    else
        found = libvu::findExcursions(frame, channel.type, channel.range);
    if (found.over || found.under)
        mark(at, frame, found);
    libvu::passWindows(module, number, last);
}

bool isUsable(const OverRngChannel &channel, const Frame &frame)
{
    if (frame.length == 0)
        internalError("frame without samples");
    else if (frame.element_size != channel.elementSize)
        internalError("frame of another element size");
    else
        return true;
    return false;
}

// Takes over the frame.
void take(OverRngModule &module, uint32_t number, Frame *frame)
{
    const OverRngChannel &channel = *module.channels[number];
    Frame *watched = frame;
    if (!isUsable(channel, *frame)) {
        watched = nullptr;
    } else if (channel.upsample > 1) {
        watched = upsampled(channel, *frame);
    }
    if (watched)
        watch(module, number, *watched);
    if (watched != frame)
        frameDelete(watched);
    frameDelete(frame);
}

void takeAll(OverRngModule &module)
{
    for (uint32_t number = 0; number < module.channelCount && !module.stopped; number++) {
        Pipe *const pipe = module.channels[number]->pipe;
        while (!module.stopped) {
            Frame *const frame = pipeGetFrame(pipe);
            if (!frame)
                break;
            take(module, number, frame);
        }
    }
}

Frame *outputFrame(const OverRngModule &module, double value)
{
    Frame *frame = frameCreate(1, sizeof(double), nullptr);
    if (!frame) {
        internalError("could not allocate output frame");
        return nullptr;
    }
    frameBuf64Writer(frame, 0, value);
    frame->length = 1;
    libvu::stampStart(frame, module.nextStart);
    return frame;
}

// A window for which no frame can be had stays in the ring and goes out with the next run.
void putOut(OverRngModule &module)
{
    while (module.front != module.back && !module.stopped) {
        Frame *const frame = outputFrame(module, libvu::oldestWindow(module).value);
        if (!frame)
            return;
        if (!Put_Frame(frame, module.output))
            frameDelete(frame);
        module.nextStart++;
        libvu::dropOldestWindow(module);
    }
}

} // namespace

int32_t Over_Rng_Detect_init(const OverRngModuleConfig *config, const OverRngChannelConfig *channels)
{
    if (!growTable())
        return -1;
    OverRngModule *const module = libvu::makeModule(*config, channels);
    if (!module)
        return -1;
    table.modules[table.count] = module;
    return static_cast<int32_t>(table.count++);
}

OverRngNotices *Over_Rng_Detect_run(int32_t module_id)
{
    OverRngModule *const module = moduleOf(module_id);
    if (!module || module->running)
        return nullptr;
    module->notices.count = module->notices.dropped = 0;
    module->running = true;
    libvu::takeWaitingMarks(*module);
    takeAll(*module);
    libvu::passHeldBackWindows(*module);
    putOut(*module);
    module->running = false;
    if (module->stopped) {
        libvu::releaseModule(module);
        return nullptr;
    }
    return module->notices.count > 0 ? &module->notices : nullptr;
}

void Over_Rng_Detect_stop(int32_t module_id)
{
    OverRngModule *const module = moduleOf(module_id);
    if (!module)
        return;
    table.modules[static_cast<uint32_t>(module_id)] = nullptr;
    if (module->running)
        module->stopped = true;
    else
        libvu::releaseModule(module);
}
