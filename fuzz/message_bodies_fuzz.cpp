// The bytes of a message channel of any kind, in two pieces. The first byte picks kind and settings, the
// second the pieces. Besides the sanitizers' checks: no frame is empty or overfull, and no event is without
// end.
#include "fuzz/host.h"

void fuzz(const uint8_t *data, size_t size)
{
    const char *const kinds[] = {"raw",     "nmea",    "can",         "xcp_ip",
                                 "float32", "float64", "float32_ntp", "float64_ntp"};
    // The samples of a stream are so few that no time costs many.
    const char *const settings[] = {R"(,"scale":2.5,"rezero_offset":1})",
                                    R"(,"sample_rate":1e-8,"stale_data_expiration_time":1e8,
                                        "invalid_data_output_value":-1})"};
    if (size < 2)
        return;
    const Signals signals;
    FuzzNode node(R"({"name":"m","connector":"c","data_type":"message_)" + std::string(kinds[data[0] % 8]) +
                  '"' + settings[data[0] / 8 % 2]);
    node->can_set = signals.set;
    node->xcp_set = signals.measurements;
    node->rezero_pending = data[0] >> 7;
    Pipe *pipe = node.listen();
    const std::span bytes(data + 2, size - 2);
    node.feed(bytes.first(bytes.size() * data[1] / 255));
    node.feed(bytes.subspan(bytes.size() * data[1] / 255));
    while (Frame *frame = pipeGetFrame(pipe)) {
        require(frame->length > 0 && frame->length <= frame->capacity);
        frameDelete(frame);
    }
}
