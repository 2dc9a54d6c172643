#include "libvu/monitor/element_access.h"

#include <limits>

#include "libvu/core/deliver_private.h"
#include "libvu/core/report.h"
#include "libvu/core/wire_private.h"

namespace {

// A payload that the host brought may lie at any address.
template <typename Sample>
uint8_t *elementAt(const Frame *frame, uint32_t index)
{
    return static_cast<uint8_t *>(frame->data) + size_t{index} * sizeof(Sample);
}

template <typename Sample>
double readElement(const Frame *frame, uint32_t index)
{
    return static_cast<double>(libvu::loadHost<Sample>(elementAt<Sample>(frame, index)));
}

// Two strict tests in the samples' order: a NaN changes nothing, and of two zeros the first one stays.
template <typename Sample>
int32_t minMax(Pipe *pipe, double *result)
{
    double least = std::numeric_limits<double>::max();
    double most = -least;
    const Frame *frame = pipeHasFrames(pipe) ? pipe->oldest : nullptr;
    for (; frame; frame = frame->prev) {
        for (uint32_t i = 0; i < frame->length; i++) {
            const double value = readElement<Sample>(frame, i);
            if (value > most)
                most = value;
            if (least > value)
                least = value;
        }
    }
    result[0] = least;
    result[1] = most;
    return least > most ? -1 : 0;
}

void reportSize(int32_t elementSize)
{
    libvuCriticalError("Internal Error: unsupported frame element_size: %d", elementSize);
}

} // namespace

double frameBuf32Reader(const Frame *frame, uint32_t index)
{
    return readElement<float>(frame, index);
}

double frameBuf64Reader(const Frame *frame, uint32_t index)
{
    return readElement<double>(frame, index);
}

void frameBuf32Writer(Frame *frame, uint32_t index, double value)
{
    libvu::storeHost(elementAt<float>(frame, index), static_cast<float>(value));
}

void frameBuf64Writer(Frame *frame, uint32_t index, double value)
{
    libvu::storeHost(elementAt<double>(frame, index), value);
}

FrameBufReader getFrameBufReader(int32_t element_size)
{
    if (element_size == sizeof(float))
        return frameBuf32Reader;
    if (element_size == sizeof(double))
        return frameBuf64Reader;
    reportSize(element_size);
    return nullptr;
}

FrameBufWriter getFrameBufWriter(int32_t element_size)
{
    if (element_size == sizeof(float))
        return frameBuf32Writer;
    if (element_size == sizeof(double))
        return frameBuf64Writer;
    reportSize(element_size);
    return nullptr;
}

int32_t Put_Frame(Frame *frame, PipeList *list)
{
    if (!list) {
        libvuError("Pipe list not given");
        return 0;
    }
    if (!frame) {
        libvuError("Frame not given");
        return 0;
    }
    if (!list->first)
        return 0;
    libvu::deliver(*list, frame);
    return 1;
}

int32_t calculate_min_max_float32(Pipe *pipe, double *min_max)
{
    return minMax<float>(pipe, min_max);
}

int32_t calculate_min_max_float64(Pipe *pipe, double *min_max)
{
    return minMax<double>(pipe, min_max);
}
