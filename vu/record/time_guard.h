// Keeps a time that cannot be true from filling the memory.
//
// Streams that hold values write one sample for every period that time has passed, all at once: one garbled
// timestamp far ahead would fill hours, or never end. Before the reader of a channel sees its records, those
// whose time lies so far ahead that the channel's streams would take more than kMostFilledBytes are cut out.
#pragma once

#include <cstdint>

#include "libvu/proxy/proxy_node.h"
#include "vu/description/description.h"

namespace vu {

constexpr double kMostFilledBytes = 1 << 30;

class TimeGuard {
public:
    // Installs itself in front of the node's reader, if the channel has streams that time could fill. To be
    // made before the loop runs; both outlive it.
    TimeGuard(ProxyNode &node, const Channel &channel);
    ~TimeGuard();
    TimeGuard(const TimeGuard &) = delete;
    TimeGuard &operator=(const TimeGuard &) = delete;

    uint64_t cut() const { return cut_; }          // records or entries so far
    double aheadSeconds() const { return ahead_; } // how far ahead the first of them was

private:
    struct Layout {
        uint32_t head;  // bytes of a body in front of its entries
        uint32_t entry; // bytes of an entry, each with a time; 0: the body itself has one
        bool ntp;
    };

    static void read(ProxyNode *node);
    void check();
    uint32_t checkBody(uint32_t place, uint32_t length);
    bool isCredible(uint32_t place);
    int64_t ticksAt(uint32_t place) const;
    void cutBytes(uint32_t place, uint32_t length);
    void checkStream();

    ProxyNode &node_;
    Layout layout_{};
    bool stream_;
    bool fraction_first_ = false; // of a little-endian module stream
    void (*reader_)(ProxyNode *) = nullptr;
    int64_t furthest_ = 0; // ticks
    double most_ = 0.0;    // ticks that may pass in one go
    uint64_t cut_ = 0;
    double ahead_ = 0.0;
};

} // namespace vu
