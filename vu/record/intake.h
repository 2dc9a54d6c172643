// What comes in on a channel, before the library's reader sees it.
//
// The library reads once an event and then works through every record it has. One peer could keep it at that
// for seconds: with a record of 256 MiB, a flood of tiny ones, or a timestamp that fills an hour. So the host
// puts itself in front of the node's reader. It gives the node a buffer of fixed size, looks at each complete
// record once, and hands the reader as many as fit a short time; the rest waits for the next round of the
// loop. A record of many entries that does not fit the buffer is handed on as several shorter ones; one that
// is a single message is gathered up to kLongestMessage and left out beyond that. Times are checked on the
// way (TimeGuard), a long gap is filled in portions, and frames of periodic channels come from a pool.
#pragma once

#include <cstdint>
#include <vector>

#include "libvu/proxy/proxy_node.h"
#include "libvu/time/sequentializer.h"
#include "vu/description/description.h"
#include "vu/record/sequence_check.h"
#include "vu/record/time_guard.h"

namespace vu {

class Intake {
public:
    static constexpr uint32_t kLongestMessage = 1 << 20; // bytes of a record that cannot be divided

    // Installs itself as the node's reader; to be made before the loop runs. The node outlives it.
    Intake(ProxyNode &node, const Channel &channel, std::vector<Sequentializer *> streams);
    ~Intake();
    Intake(const Intake &) = delete;
    Intake &operator=(const Intake &) = delete;

    // The intake of a node: the library hands its reader nothing else.
    static Intake &of(const ProxyNode &node);
    // What the library's reader is from now on.
    void setReader(void (*reader)(ProxyNode *)) { reader_ = reader; }

    // A new round of the loop, in which one channel may take so long.
    static void beginRound(double share);

    // Something is left to do that waits for no more bytes: work() is to be called once a round.
    bool isBusy() const { return filling_ || more_; }
    void work();
    // Does what is left, for a channel that is over; gaps are not filled any more.
    void finish();

    // How much it has handed on or filled since the last call, in bytes.
    uint64_t takeProduced();
    // How far the channel's own time has come, in seconds.
    double seconds() const;
    // Bytes of a record that never became complete.
    uint64_t brokenBytes() const;
    uint64_t tooLong() const { return too_long_; } // messages beyond kLongestMessage, left out
    const TimeGuard &guard() const { return guard_; }
    const SequenceCheck &sequence() const { return sequence_; }

private:
    // How the body of a record is divided.
    struct Layout {
        uint32_t head;  // bytes in front of its entries
        uint32_t entry; // bytes of an entry, which begins with its time; 0: the body is one message
        bool ntp;
    };
    struct Head {
        uint32_t size;   // bytes in front of the body
        uint32_t length; // of the body
        bool divisible;  // into entries
    };

    static void read(ProxyNode *node);
    static Layout layoutOf(const ProxyNode &node, const Channel &channel);
    void receive();
    void makeRoom();
    void takeRecords();
    // Each goes one step forward, or returns false where more bytes have to come first.
    bool takeNext();
    bool takeNew();
    bool takeComplete(const Head &head);
    bool takeLong(const Head &head);
    bool takePart();
    bool gatherMessage();
    bool skip();

    bool readHead(Head &head) const;
    void divide(const Head &head);
    void handPart(uint32_t entries);
    uint32_t fineEntries(uint32_t place, uint32_t count);
    uint32_t entriesAtOnce() const;
    bool completesFrame(const Head &head) const;
    void noteSequence(const Head &head);
    int64_t ticksAt(const uint8_t *bytes) const;
    TimeGuard::Verdict judge(const uint8_t *time);
    bool takeMessage(const uint8_t *time, uint32_t length);
    void pass(uint32_t bytes);
    void beginGap(int64_t ticks);
    void fillPortion();
    void fillHeld(int64_t ticks);

    void handBatch();
    void hand(uint8_t *bytes, uint32_t size);
    void lendFrame();
    uint32_t arrived() const { return own_.size - at_; }
    uint8_t *here() const { return own_.buf + at_; }

    ProxyNode &node_;
    const Layout layout_;
    const bool module_stream_;
    const bool fraction_first_; // of a little-endian module stream
    const bool sequential_;
    const bool held_;          // the channel itself is a stream of held values
    const int64_t gap_margin_; // ticks in front of the end of a gap that the reader fills itself
    const std::vector<Sequentializer *> streams_;
    void (*reader_)(ProxyNode *);
    TimeGuard guard_;
    SequenceCheck sequence_;
    double last_earned_;

    Membuf own_;          // the node's buffer; the node itself sees only what it is to read
    uint32_t batch_;      // where the records begin that are ready and not yet handed on
    uint32_t at_;         // where the next ones begin
    uint64_t worked_ = 0; // the last round in which it has had its turn
    bool more_ = false;   // the share was over before the bytes were
    bool ended_ = false;  // no gap is filled any more

    // The record that is being divided, gathered or left out. `rest_` counts the bytes of it from `at_` on,
    // also those that have not come, and is 0 between records.
    enum class Rest { kEntries, kMessage, kSkipped } rest_is_ = Rest::kEntries;
    uint64_t rest_ = 0;
    uint8_t head_[16] = {};  // the record's head and the bytes in front of its entries
    uint32_t head_size_ = 0; // of both
    uint32_t head_word_ = 0; // of the head alone
    Membuf message_{};       // what has been gathered

    bool filling_ = false;
    int64_t gap_end_ = 0;    // ticks
    double filled_to_ = 0.0; // ticks

    Frame *pool_ = nullptr;
    uint64_t produced_ = 0; // bytes
    uint64_t too_long_ = 0;
};

} // namespace vu
