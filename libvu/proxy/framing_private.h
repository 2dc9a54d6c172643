// Length-prefixed records out of a node's inbuf: the loop that all readers share.
//
// A reader is a body handler. It is told each record's bytes, which it may change in place, and answers
// whether the event goes on. One that leaves early ends the event behind its record: the bytes read so far
// stay, no further read is made before they are used up, and the next event starts at the next record.
#pragma once

#include <cstdint>
#include <span>

#include "libvu/core/membuf.h"
#include "libvu/core/wire_private.h"
#include "libvu/proxy/proxy_node.h"

namespace libvu {

enum class Event { goesOn, leavesEarly };

// What stands before a body. `size` bytes of head, which may be more than have arrived; `length` of body.
struct RecordHead {
    uint32_t size;
    uint32_t length;
};

// The usual head: a big-endian length word.
inline RecordHead lengthWord(std::span<const uint8_t> arrived)
{
    return {4, arrived.size() < 4 ? 0 : loadBig<uint32_t>(arrived.data())};
}

// A length of 2^31 and more, or so close below that no buffer holds the record, cannot be told from garbage.
constexpr uint32_t kLongestBody = (uint32_t{1} << 31) - 8;

// Reports the length and puts the node into the discard state: nothing behind such a record can be found.
void loseFraming(ProxyNode *node, uint32_t length);

// Cuts off every whole record. `readHead` decodes the bytes from the next record on; `handle` takes
// (const RecordHead &, const uint8_t *head, std::span<uint8_t> body). An unfinished record moves to the front
// of inbuf, which grows to hold it.
template <typename ReadHead, typename Handle>
inline void cutRecords(ProxyNode *node, ReadHead &&readHead, Handle &&handle)
{
    Membuf &in = node->inbuf;
    for (;;) {
        uint8_t *const record = in.buf + node->parse_pos;
        const uint32_t arrived = in.size - node->parse_pos;
        const RecordHead head = readHead(std::span<const uint8_t>(record, arrived));
        if (arrived < head.size)
            break;
        if (head.length > kLongestBody) {
            loseFraming(node, head.length);
            return;
        }
        const uint32_t whole = head.size + head.length;
        if (arrived < whole) {
            // Below 2^32, since neither the record nor what stands before it exceeds 2^31.
            if (in.capacity - node->parse_pos < whole)
                membufExpand(&in, node->parse_pos + whole);
            break;
        }
        // Past the record before it is handled: one that leaves early must not come again.
        node->parse_pos += whole;
        if (handle(head, record, std::span<uint8_t>(record + head.size, head.length)) == Event::leavesEarly)
            return;
    }
    if (in.size == node->parse_pos)
        in.size = 0; // nothing to move, as a rule
    else
        membufRemove(&in, 0, node->parse_pos);
    node->read_count = 0;
    node->parse_pos = 0;
}

// One event of a reader: one read, then `handle(std::span<uint8_t> body, bool listening)` for every whole
// record. Whether anybody listens is noted before the read, whose end-of-connection callbacks may detach
// pipes; delivery itself goes along the list as it stands then.
template <typename Handle>
inline void readRecords(ProxyNode *node, Handle &&handle)
{
    const bool listening = node->pipes.first != nullptr;
    proxyNode_ReadSocket(node);
    cutRecords(node, lengthWord, [&](const RecordHead &, const uint8_t *, std::span<uint8_t> body) {
        return handle(body, listening);
    });
}

} // namespace libvu
