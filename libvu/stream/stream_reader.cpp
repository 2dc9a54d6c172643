// Records of a module stream out of a node's inbuf: metainfo to process_metainfo(), data to its signal's
// slot.
#include "libvu/core/framing_private.h"
#include "libvu/core/report.h"
#include "libvu/core/wire_private.h"
#include "libvu/proxy/proxy_node.h"
#include "libvu/stream/metainfo.h"
#include "libvu/stream/stream_signal.h"

using libvu::Event;

namespace {

constexpr uint32_t kWord = 4;         // bytes
constexpr uint32_t kMetainfoHead = 4; // bytes in front of the JSON text, not read
constexpr uint32_t kMetainfo = 2;     // the record type; all others are data

// Big-endian, whatever the marker says: 2 bits not read, 2 of type, 8 of size, 20 of signal number.
struct HeaderWord {
    uint32_t bits;
    uint32_t type() const { return bits >> 28 & 0x3; }
    uint32_t size() const { return bits >> 20 & 0xFF; }
    uint32_t signalNumber() const { return bits & 0xFFFFF; }
};

// Size 0 says that the payload size follows in a word of its own.
libvu::RecordHead readHead(std::span<const uint8_t> arrived)
{
    libvu::WireReader wire(arrived);
    const HeaderWord header{wire.u32be()};
    if (!wire.ok())
        return {kWord, 0};
    if (header.size() != 0)
        return {kWord, header.size()};
    return {2 * kWord, wire.u32be()};
}

void takeMetainfo(ProxyNode *node, uint32_t signalNumber, std::span<const uint8_t> payload)
{
    if (payload.size() < kMetainfoHead) {
        logWarning("Channel %s: metainfo of %u bytes holds no text and is passed over", node->name,
                   static_cast<uint32_t>(payload.size()));
        return;
    }
    const auto text = payload.subspan(kMetainfoHead);
    process_metainfo(node, signalNumber, text.data(), static_cast<uint32_t>(text.size()));
}

void takeData(ProxyNode *node, uint32_t signalNumber, std::span<uint8_t> payload)
{
    auto *table = static_cast<StreamSlot *>(node->channel_aux);
    if (!table || signalNumber >= STREAM_SLOTS)
        return;
    const StreamSlot &slot = table[signalNumber];
    if (slot.handler && slot.context)
        slot.handler(slot.context, payload.data(), static_cast<uint32_t>(payload.size()),
                     static_cast<float>(node->scale), static_cast<float>(node->offset));
}

} // namespace

void proxyNode_ProxyReaderZNTStream(ProxyNode *node)
{
    proxyNode_ReadSocket(node);
    libvu::cutRecords(node, readHead,
                      [node](const libvu::RecordHead &, const uint8_t *head, std::span<uint8_t> payload) {
                          const HeaderWord header{libvu::loadBig<uint32_t>(head)};
                          if (payload.empty())
                              return Event::leavesEarly;
                          if (header.type() == kMetainfo)
                              takeMetainfo(node, header.signalNumber(), payload);
                          else
                              takeData(node, header.signalNumber(), payload);
                          return Event::goesOn;
                      });
}
