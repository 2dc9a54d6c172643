#include "libvu/proxy/calibration.h"

#include "libvu/core/callbacks.h"
#include "libvu/proxy/kernels_private.h"

namespace {

template <typename Sample>
void applyPlain(const ProxyNode &node, Frame &frame)
{
    static const auto scaleOffset = libvu::fastest(
        libvu::scaleOffsetPlain<Sample>, libvu::scaleOffsetAvx2<Sample>, libvu::scaleOffsetAvx512<Sample>);
    // The zero is taken off in double precision, whatever the samples' width.
    scaleOffset(frame.data, frame.length, static_cast<Sample>(node.scale),
                static_cast<Sample>(node.offset - node.rezero_offset));
}

// Unlike the plain form this one calibrates in double precision for both widths. The mean is that of the
// samples as they are stored in the frame, after rounding, and is summed in their order.
template <typename Sample>
void applyPrerun(ProxyNode &node, Frame &frame)
{
    auto *const data = static_cast<uint8_t *>(frame.data);
    node.rezero_offset = 0.0;
    for (size_t i = 0; i < frame.length; i++) {
        uint8_t *const at = data + i * sizeof(Sample);
        const auto stored =
            static_cast<Sample>(std::fma(libvu::loadHost<Sample>(at), node.scale, node.offset));
        libvu::storeHost(at, stored);
        node.rezero_offset += static_cast<double>(stored);
    }
    node.rezero_offset /= static_cast<double>(static_cast<int32_t>(frame.length));
    if (node.rezero_pending && libvuRezeroCallback)
        libvuRezeroCallback(node.name, node.rezero_offset);
    // The callback may have written a zero of its own, so the field is read again.
    for (size_t i = 0; i < frame.length; i++) {
        uint8_t *const at = data + i * sizeof(Sample);
        libvu::storeHost(at, static_cast<Sample>(libvu::loadHost<Sample>(at) - node.rezero_offset));
    }
}

} // namespace

void proxyNode_applyFloatScaleOffset(ProxyNode *node, Frame *frame)
{
    applyPlain<float>(*node, *frame);
}

void proxyNode_applyDoubleScaleOffset(ProxyNode *node, Frame *frame)
{
    applyPlain<double>(*node, *frame);
}

void proxyNode_applyPrerunZeroFloatScaleOffset(ProxyNode *node, Frame *frame)
{
    applyPrerun<float>(*node, *frame);
    node->apply = proxyNode_applyFloatScaleOffset;
}

void proxyNode_applyPrerunZeroDoubleScaleOffset(ProxyNode *node, Frame *frame)
{
    applyPrerun<double>(*node, *frame);
    node->apply = proxyNode_applyDoubleScaleOffset;
}
