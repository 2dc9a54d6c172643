// What a source of each kind is to the loop that serves it.
#pragma once

#include <cstdint>

#include "vu/source/serve/input_account.h"
#include "vu/source/serve/wire_writer.h"

namespace vu {

// Data whose times are known beforehand: a simulation or a recording.
class Producer {
public:
    virtual ~Producer() = default;
    // Writes the next records that go out together, and sets the time at which they are due, in ticks from
    // the start of the source. False at the end of the data; what was written then still goes out.
    virtual bool next(WireWriter &wire, int64_t &dueTicks) = 0;
    const InputAccount &account() const { return account_; }

protected:
    InputAccount account_;
};

// Data that comes from outside at its own time.
class LiveProducer {
public:
    virtual ~LiveProducer() = default;
    // The reader is there: its time 0 is now.
    virtual void start() = 0;
    // The descriptor whose readable event wakes the source.
    virtual int descriptor() const = 0;
    // Writes what has come since, and sets the time of the next call that must not be later, in ticks from
    // the start. False when nothing more can come.
    virtual bool take(WireWriter &wire, int64_t &wakeTicks) = 0;
    const InputAccount &account() const { return account_; }

protected:
    InputAccount account_;
};

} // namespace vu
