#include "vu/record/time_guard.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <utility>

namespace vu {

namespace {

constexpr double kTicksPerSecond = 40e6;
constexpr uint32_t kLengthWord = 4;
constexpr uint32_t kTime = 8;
constexpr uint32_t kCanRecord = 21;
constexpr uint32_t kStreamSample = 12;

// The library hands its reader nothing but the node.
std::map<const ProxyNode *, TimeGuard *> guards;

uint32_t loadWord(const uint8_t *bytes, bool little = false)
{
    uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    return little ? word : __builtin_bswap32(word);
}

void storeWord(uint8_t *bytes, uint32_t word)
{
    word = __builtin_bswap32(word);
    std::memcpy(bytes, &word, sizeof word);
}

double filledBytesPerSecond(const Channel &channel)
{
    double sum =
        channel.kind == ChannelKind::kHeldFloats ? channel.sample_rate * sizeOf(channel.values) : 0.0;
    for (const Signal &signal : channel.signals)
        sum += signal.sample_rate * sizeOf(signal.values);
    return sum;
}

} // namespace

TimeGuard::TimeGuard(ProxyNode &node, const Channel &channel)
    : node_(node), stream_(channel.kind == ChannelKind::kStream)
{
    const double rate = filledBytesPerSecond(channel);
    if (rate <= 0.0)
        return;
    most_ = kMostFilledBytes / rate * kTicksPerSecond;
    if (channel.kind == ChannelKind::kCan)
        layout_ = {0, kCanRecord, false};
    else if (channel.kind == ChannelKind::kHeldFloats)
        layout_ = {channel.ntp ? kTime : 0, node.record_size, channel.ntp};
    else if (stream_)
        layout_ = {0, kStreamSample, true};
    fraction_first_ = stream_ && channel.little;
    reader_ = std::exchange(node.main_reader, read);
    guards[&node] = this;
}

TimeGuard::~TimeGuard()
{
    guards.erase(&node_);
}

void TimeGuard::read(ProxyNode *node)
{
    TimeGuard &guard = *guards.at(node);
    if (node->read_count == 0) { // else the reader is not done with records that have been looked at
        proxyNode_ReadSocket(node);
        if (node->read_count == 0)
            return; // nothing came, or the connection has ended
        guard.stream_ ? guard.checkStream() : guard.check();
    }
    guard.reader_(node);
}

int64_t TimeGuard::ticksAt(uint32_t place) const
{
    const uint8_t *bytes = node_.inbuf.buf + place;
    const uint32_t first = loadWord(bytes, fraction_first_), second = loadWord(bytes + 4, fraction_first_);
    if (!layout_.ntp)
        return static_cast<int64_t>((uint64_t{first} << 32) | second);
    const uint32_t words[2] = {fraction_first_ ? second : first, fraction_first_ ? first : second};
    return static_cast<int64_t>(ntp_to_ts(words) - static_cast<double>(node_.start_time));
}

bool TimeGuard::isCredible(uint32_t place)
{
    const int64_t ticks = ticksAt(place);
    const double ahead = static_cast<double>(ticks) - static_cast<double>(furthest_);
    if (ahead <= most_) {
        furthest_ = std::max(furthest_, ticks);
        return true;
    }
    if (cut_++ == 0)
        ahead_ = ahead / kTicksPerSecond;
    return false;
}

void TimeGuard::cutBytes(uint32_t place, uint32_t length)
{
    membufRemove(&node_.inbuf, place, length);
}

// Looks at one body and returns what is left of its `length`.
uint32_t TimeGuard::checkBody(uint32_t place, uint32_t length)
{
    if (layout_.entry == 0) {
        if (length >= kTime && !isCredible(place)) {
            cutBytes(place, length);
            return 0;
        }
        return length;
    }
    uint32_t at = layout_.head;
    while (at + layout_.entry <= length) {
        if (isCredible(place + at)) {
            at += layout_.entry;
        } else {
            cutBytes(place + at, layout_.entry);
            length -= layout_.entry;
        }
    }
    return length;
}

// All complete records, each a length word and a body.
void TimeGuard::check()
{
    uint32_t at = 0;
    while (uint64_t{at} + kLengthWord <= node_.inbuf.size) {
        const uint32_t length = loadWord(node_.inbuf.buf + at);
        if (uint64_t{at} + kLengthWord + length > node_.inbuf.size)
            return;
        const uint32_t left = checkBody(at + kLengthWord, length);
        if (left == length) {
            at += kLengthWord + length;
        } else if (left <= layout_.head) { // nothing in it any more
            cutBytes(at, kLengthWord + left);
        } else {
            storeWord(node_.inbuf.buf + at, left);
            at += kLengthWord + left;
        }
    }
}

// The same for a module stream: a header word with type and size, and the size behind it if that is 0.
void TimeGuard::checkStream()
{
    constexpr uint32_t kSizeShift = 20, kSizeMask = 0xFF, kTypeShift = 28, kTypeMask = 3, kMetainfo = 2;
    uint32_t at = 0;
    while (uint64_t{at} + kLengthWord <= node_.inbuf.size) {
        const uint32_t header = loadWord(node_.inbuf.buf + at);
        const bool shortSize = ((header >> kSizeShift) & kSizeMask) != 0;
        const uint32_t head = shortSize ? kLengthWord : 2 * kLengthWord;
        if (uint64_t{at} + head > node_.inbuf.size)
            return;
        const uint32_t length =
            shortSize ? (header >> kSizeShift) & kSizeMask : loadWord(node_.inbuf.buf + at + kLengthWord);
        if (uint64_t{at} + head + length > node_.inbuf.size)
            return;
        const bool data = ((header >> kTypeShift) & kTypeMask) != kMetainfo;
        const uint32_t left = data ? checkBody(at + head, length) : length;
        if (left != length && left == 0) {
            cutBytes(at, head);
            continue;
        }
        if (left != length && shortSize)
            storeWord(node_.inbuf.buf + at, (header & ~(kSizeMask << kSizeShift)) | (left << kSizeShift));
        else if (left != length)
            storeWord(node_.inbuf.buf + at + kLengthWord, left);
        at += head + left;
    }
}

} // namespace vu
