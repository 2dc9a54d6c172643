// Detectors of arbitrary limits and rates over arbitrary frames. Besides the sanitizers' checks: every run
// ends, and what comes out is yes or no, numbered without a gap, at most a ring's worth a run.
#include <cstdlib>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <vector>

#include "libvu/core/callbacks.h"
#include "libvu/monitor/over_range.h"

namespace {

Frame *arbitraryFrame(FuzzedDataProvider &input, uint32_t elementSize)
{
    const auto bytes = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 64) * elementSize);
    Frame *frame = frameCreate(uint32_t(bytes.size()) / elementSize, elementSize, nullptr);
    frame->length = frame->capacity;
    frame->start = input.ConsumeBool() ? input.ConsumeIntegral<int64_t>() : input.ConsumeIntegral<uint8_t>();
    if (frame->length > 0)
        memcpy(frame->data, bytes.data(), size_t{frame->length} * elementSize);
    return frame;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvuErrorCallback = libvuCriticalErrorCallback = [](const char *) { return 1; };
    FuzzedDataProvider input(data, size);
    const auto rate = [&] {
        const double usual[] = {0.1, 1, 10, 1000, 32000};
        return input.ConsumeBool() ? usual[input.ConsumeIntegralInRange(0, 4)]
                                   : input.ConsumeFloatingPoint<double>();
    };
    PipeList lists[4] = {};
    std::vector<OverRngChannelConfig> channels(input.ConsumeIntegralInRange<size_t>(0, 3));
    for (size_t i = 0; i < channels.size(); i++) {
        channels[i] = {"c",
                       rate(),
                       uint8_t(input.ConsumeIntegralInRange(0, 4)),
                       input.ConsumeBool(),
                       uint16_t(input.ConsumeBool() ? 4 : 8),
                       input.ConsumeFloatingPoint<double>(),
                       input.ConsumeFloatingPoint<double>(),
                       pipeAttachPipe(&lists[i])};
    }
    Pipe *const out = pipeAttachPipe(&lists[3]);
    const OverRngModuleConfig config{"m", rate(), uint32_t(channels.size()), &lists[3]};
    const int32_t id = Over_Rng_Detect_init(&config, channels.data());
    int64_t next = 0;
    while (id >= 0 && input.remaining_bytes() > 0) {
        if (!channels.empty())
            pipeAddFrame(channels[input.ConsumeIntegral<uint8_t>() % channels.size()].pipe,
                         arbitraryFrame(input, input.ConsumeBool() ? 4 : 8));
        if (input.ConsumeBool())
            continue;
        Over_Rng_Detect_run(id);
        if (out->queued > 4095)
            abort();
        while (Frame *frame = pipeGetFrame(out)) {
            double value;
            memcpy(&value, frame->data, sizeof value);
            if (frame->start != next++ || (value != 0.0 && value != 1.0))
                abort();
            frameDelete(frame);
        }
    }
    if (id >= 0)
        Over_Rng_Detect_stop(id);
    for (PipeList &list : lists)
        while (list.first)
            pipeDetachPipe(&list, list.first);
    return 0;
}
