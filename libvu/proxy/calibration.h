/* Calibration kernels: what a node's `apply` does to a full frame of samples in host order, in place.
 *
 * Each sample becomes x * scale + offset - zero, fused, with one rounding. The pre-run forms take the mean of
 * the calibrated frame as the channel's zero, subtract it, and make way for the plain form of their width.
 * Nothing fails; a NaN in the first frame makes the zero a NaN. Thread: the loop's, inside a reader. */
#ifndef LIBVU_PROXY_CALIBRATION_H
#define LIBVU_PROXY_CALIBRATION_H

#include "libvu/proxy/proxy_node.h"

/* x = fma(x, scale, offset - rezero_offset). In the float form, both operands are narrowed to float32 and the
 * arithmetic is single precision. */
VU_API void proxyNode_applyFloatScaleOffset(ProxyNode *node, Frame *frame);
VU_API void proxyNode_applyDoubleScaleOffset(ProxyNode *node, Frame *frame);
/* Sets `rezero_offset` to the mean of the frame's fma(x, scale, offset), reports it to libvuRezeroCallback if
 * `rezero_pending` is set (which stays set), and subtracts it. */
VU_API void proxyNode_applyPrerunZeroFloatScaleOffset(ProxyNode *node, Frame *frame);
VU_API void proxyNode_applyPrerunZeroDoubleScaleOffset(ProxyNode *node, Frame *frame);

#endif
