// Length-prefixed records out of the buffer of a channel's node: the loop that all readers share.
//
// A reader handles the body of each record, which it may change in place, and answers whether the event goes
// on. One that leaves early ends the event after this record: the bytes read so far stay, no further read is
// made before they are used up, and the next event starts with the next record.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

#include "libvu/core/invariants_private.h"
#include "libvu/core/membuf.h"
#include "libvu/core/wire_private.h"

struct ProxyNode; // the record itself is above this room; whoever cuts records knows it

namespace libvu {

enum class Event { goesOn, leavesEarly };

// What precedes a body: `size` bytes of head, which may be more than have arrived, and `length` of body.
struct RecordHead {
    uint32_t size;
    uint32_t length;
};

// The usual head: a big-endian length word.
inline RecordHead lengthWord(std::span<const uint8_t> arrived)
{
    return {kLengthBytes, arrived.size() < kLengthBytes ? 0 : loadBig<uint32_t>(arrived.data())};
}

// A longer one is taken for garbage.
constexpr uint32_t kLongestBody = (uint32_t{1} << 31) - 1;

// Reports the length and puts the node into the discard state: no record after this one can be found.
void loseFraming(ProxyNode *node, uint32_t length);

// Ends the events of a node whose buffer cannot grow. Its socket stays readable, and would wake the loop for
// ever.
void restWatcher(ProxyNode *node);

// The rule of a node that does not hold between two events, or null. Asked in builds for tests and fuzzing.
const char *brokenNodeRule(const ProxyNode &node);
using NodeCheck = InvariantCheck<ProxyNode, brokenNodeRule>;

// Moves what has not been parsed to the front, and ends the use of the bytes read.
template <typename Node>
inline void finishRead(Node *node)
{
    Membuf &in = node->inbuf;
    if (in.size == node->parse_pos)
        in.size = 0; // nothing to move, as a rule
    else
        membufRemove(&in, 0, node->parse_pos);
    node->read_count = 0;
    node->parse_pos = 0;
}

// Cuts off every complete record. `readHead` decodes the bytes from the next record on; `handle` takes
// (const RecordHead &, const uint8_t *head, std::span<uint8_t> body). A truncated record moves to the front
// of the buffer, which grows to hold it; where it cannot, the report of the growth is the last that the node
// does.
template <typename Node, typename ReadHead, typename Handle>
inline void cutRecords(Node *node, ReadHead &&readHead, Handle &&handle)
{
    const NodeCheck check(*node);
    Membuf &in = node->inbuf;
    uint32_t wanted = 0; // bytes of the record that is truncated
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
        const uint32_t complete = head.size + head.length;
        if (arrived < complete) {
            wanted = complete;
            break;
        }
        // Past the record before it is handled: one that leaves early must not come again.
        node->parse_pos += complete;
        if (handle(head, record, std::span<uint8_t>(record + head.size, head.length)) == Event::leavesEarly)
            return;
    }
    const uint64_t end = uint64_t{node->parse_pos} + wanted;
    if (wanted > 0 && in.capacity < end)
        membufExpand(&in, static_cast<uint32_t>(std::min<uint64_t>(end, UINT32_MAX)));
    finishRead(node);
    if (in.capacity < wanted)
        restWatcher(node);
}

// One event of a reader: one read, then `handle(std::span<uint8_t> body)` for every complete record.
template <typename Node, typename Handle>
inline void readRecords(Node *node, Handle &&handle)
{
    proxyNode_ReadSocket(node);
    cutRecords(node, lengthWord,
               [&](const RecordHead &, const uint8_t *, std::span<uint8_t> body) { return handle(body); });
}

} // namespace libvu
