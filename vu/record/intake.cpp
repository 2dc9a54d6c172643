#include "vu/record/intake.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <utility>

#include "vu/record/intake_wire.h"

namespace vu {

double steadySeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

namespace {

constexpr uint32_t kCanRecord = VU_CAN_RECORD_BYTES;
constexpr uint32_t kStreamSample = VU_STREAM_SAMPLE_BYTES;
constexpr uint32_t kSlack = 16; // in front of a rest: room for the head of its next part
// A receiver's sentences are moved back to its pulse, by a quarter of a second at most.
constexpr int64_t kMessageMargin = 20000000; // ticks

std::map<const ProxyNode *, Intake *> intakes;
double shareOfRound = 1e-3; // seconds
uint64_t roundNumber = 1;

double filledBytesPerSecond(const Channel &channel)
{
    double sum =
        channel.kind == ChannelKind::kHeldFloats ? channel.sample_rate * sizeOf(channel.values) : 0.0;
    for (const Signal &signal : channel.signals)
        sum += signal.sample_rate * sizeOf(signal.values);
    return sum;
}

} // namespace

Intake::Layout Intake::layoutOf(const ProxyNode &node, const Channel &channel)
{
    switch (channel.kind) {
    case ChannelKind::kSequential: return {kTime, node.record_size, false};
    case ChannelKind::kCan: return {0, kCanRecord, false};
    case ChannelKind::kFloats: // a record below the limit is kept together, whatever its times
    case ChannelKind::kHeldFloats: return {channel.ntp ? kTime : 0, node.record_size, channel.ntp};
    case ChannelKind::kStream: return {0, kStreamSample, true};
    default: return {0, 0, false};
    }
}

Intake::Intake(ProxyNode &node, const Channel &channel, std::vector<Sequentializer *> streams)
    : node_(node), layout_(layoutOf(node, channel)), module_stream_(channel.kind == ChannelKind::kStream),
      fraction_first_(module_stream_ && channel.little),
      sequential_(channel.kind == ChannelKind::kSequential), held_(channel.kind == ChannelKind::kHeldFloats),
      gap_margin_(layout_.entry == 0 ? kMessageMargin : 0), streams_(std::move(streams)),
      guard_(filledBytesPerSecond(channel)), sequence_(channel.sample_rate), last_earned_(steadySeconds())
{
    auto *buffer = static_cast<uint8_t *>(std::realloc(node.inbuf.buf, kReadAtOnce));
    if (!buffer)
        throw std::bad_alloc();
    node.inbuf = own_ = {kSlack, kReadAtOnce, buffer};
    batch_ = at_ = kSlack;
    intakes[&node] = this;
    reader_ = std::exchange(node.main_reader, read);
}

Intake::~Intake()
{
    intakes.erase(&node_);
    node_.inbuf = own_;
    std::free(message_.buf);
    while (Frame *frame = pool_) {
        pool_ = frame->next;
        std::free(frame);
    }
}

Intake &Intake::of(const ProxyNode &node)
{
    return *intakes.at(&node);
}

void Intake::beginRound(double share)
{
    shareOfRound = share;
    roundNumber++;
}

void Intake::read(ProxyNode *node)
{
    Intake &self = of(*node);
    if (self.isBusy() || self.worked_ == roundNumber)
        return; // one turn a round
    self.worked_ = roundNumber;
    self.receive();
    self.takeRecords();
}

// The library's one read of an event, into a buffer that stays.
void Intake::receive()
{
    makeRoom();
    const uint32_t before = own_.size, capacity = own_.capacity;
    own_.capacity = std::min(capacity, kReadAtOnce);
    node_.inbuf = own_;
    proxyNode_ReadSocket(&node_);
    own_ = node_.inbuf;
    own_.capacity = std::max(capacity, own_.capacity);
    node_.read_count = 0;
    if (own_.size == before || !guard_.watches())
        return;
    const double time = steadySeconds();
    guard_.earn(own_.size - before, time - std::exchange(last_earned_, time));
}

// Moves the rest to the front, after the room for a head.
void Intake::makeRoom()
{
    if (at_ == kSlack)
        return;
    const uint32_t rest = arrived();
    std::memmove(own_.buf + kSlack, here(), rest);
    own_.size = kSlack + rest;
    batch_ = at_ = kSlack;
}

void Intake::work()
{
    worked_ = roundNumber;
    if (filling_)
        fillPortion();
    if (!filling_ && more_)
        takeRecords();
}

void Intake::finish()
{
    ended_ = true;
    filling_ = false;
    do
        takeRecords();
    while (more_);
}

// Works through complete records until the share of this round is over.
void Intake::takeRecords()
{
    const double end = steadySeconds() + shareOfRound;
    more_ = false;
    batch_ = at_;
    uint32_t looked = at_;
    while (!filling_ && node_.state != PROXY_NODE_DISCARDS && takeNext()) {
        if (at_ - looked < kBatch)
            continue;
        looked = at_;
        handBatch();
        if (steadySeconds() < end)
            continue;
        more_ = !filling_ && node_.state != PROXY_NODE_DISCARDS;
        return;
    }
    handBatch();
}

void Intake::handBatch()
{
    if (at_ > batch_)
        hand(own_.buf + batch_, at_ - batch_);
    batch_ = at_;
}

// Lets the reader see complete records and nothing else.
void Intake::hand(uint8_t *bytes, uint32_t size)
{
    produced_ += size;
    node_.inbuf = {size, size, bytes};
    node_.parse_pos = 0;
    node_.read_count = size;
    // A reader that leaves early goes on with the record after it.
    do {
        lendFrame();
        reader_(&node_);
        if (sequential_ && node_.frame && !node_.frame->pool)
            node_.frame->pool = &pool_;
    } while (node_.read_count != 0 && node_.state != PROXY_NODE_DISCARDS);
    node_.inbuf = own_;
    node_.parse_pos = 0;
    node_.read_count = 0;
}

// A frame from the pool, as the reader would make one.
void Intake::lendFrame()
{
    if (!pool_ || node_.frame || !node_.pipes.first)
        return;
    Frame *frame = std::exchange(pool_, pool_->next);
    if (pool_)
        pool_->prev = nullptr;
    frame->next = frame->prev = nullptr;
    frame->refcount = 1;
    frame->length = 0;
    frame->reserved = 0;
    frame->start = node_.sample_count;
    const auto rounded = static_cast<float>(frame->start);
    frame->aux[0] = 0;
    std::memcpy(&frame->aux[1], &rounded, sizeof rounded);
    node_.frame = frame;
}

uint64_t Intake::takeProduced()
{
    return std::exchange(produced_, 0);
}

double Intake::seconds() const
{
    if (sequential_)
        return static_cast<double>(node_.sample_count) / sequence_.rate();
    return static_cast<double>(filling_ ? static_cast<int64_t>(filled_to_) : guard_.furthest()) /
           kTicksPerSecond;
}

uint64_t Intake::brokenBytes() const
{
    return uint64_t{arrived()} + message_.size;
}

} // namespace vu
