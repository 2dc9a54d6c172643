// Detectors of arbitrary limits and rates over arbitrary frames. Besides the sanitizers' checks: every run
// ends, and what comes out is yes or no, numbered without a gap, at most a ring's worth a run.
#include <vector>

#include "fuzz/host.h"

static Frame *arbitraryFrame(FuzzedDataProvider &input, uint32_t elementSize)
{
    Frame *frame = frameCreate(input.ConsumeIntegralInRange(0u, 64u), elementSize, nullptr);
    frame->length = uint32_t(input.ConsumeData(frame->data, frame->capacity * elementSize)) / elementSize;
    frame->start = input.ConsumeBool() ? input.ConsumeIntegral<int64_t>() : input.ConsumeIntegral<uint8_t>();
    return frame;
}

void fuzz(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto rate = [&] {
        return input.ConsumeBool() ? input.PickValueInArray({0.1, 1.0, 10.0, 1000.0, 32000.0})
                                   : input.ConsumeFloatingPoint<double>();
    };
    PipeList inputs = {}, output = {};
    std::vector<OverRngChannelConfig> channels(input.ConsumeIntegralInRange<size_t>(0, 3));
    for (OverRngChannelConfig &channel : channels) {
        const auto mode = input.ConsumeIntegralInRange<uint8_t>(0, 4);
        const auto width = input.PickValueInArray<uint16_t>({4, 8});
        const auto lower = input.ConsumeFloatingPoint<double>(), upper = input.ConsumeFloatingPoint<double>();
        channel = {"c", rate(), mode, input.ConsumeBool(), width, lower, upper, pipeAttachPipe(&inputs)};
    }
    Pipe *const out = pipeAttachPipe(&output);
    const OverRngModuleConfig config{"m", rate(), uint32_t(channels.size()), &output};
    const int32_t id = Over_Rng_Detect_init(&config, channels.data());
    int64_t next = 0;
    while (id >= 0 && input.remaining_bytes() > 0) {
        if (!channels.empty())
            pipeAddFrame(channels[input.ConsumeIntegral<uint8_t>() % channels.size()].pipe,
                         arbitraryFrame(input, input.ConsumeBool() ? 4 : 8));
        if (input.ConsumeBool())
            continue;
        Over_Rng_Detect_run(id);
        require(out->queued <= 4095);
        while (Frame *frame = pipeGetFrame(out)) {
            const double value = frameBuf64Reader(frame, 0);
            require(frame->start == next++ && (value == 0.0 || value == 1.0));
            frameDelete(frame);
        }
    }
    if (id >= 0)
        Over_Rng_Detect_stop(id);
    while (inputs.first)
        pipeDetachPipe(&inputs, inputs.first);
    pipeDetachPipe(&output, out);
}
