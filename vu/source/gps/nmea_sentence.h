// NMEA sentences and the two events that a source adds to them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "vu/source/serve/input_account.h"
#include "vu/source/serve/wire_writer.h"

namespace vu {

// The pulses and heartbeats of a source, in the order in which they go out.
//
// A heartbeat says that time has got so far and moves every channel on, so it must not overtake a value. A
// value goes back from its arrival to its fix by at most a quarter of a second, and so a heartbeat, sent
// every third of a second, carries the time of a quarter of a second ago.
class ReceiverEvents {
public:
    explicit ReceiverEvents(bool pulses) : pulses_(pulses) {}

    int64_t next() const; // when the next event goes out, in ticks from the start
    // A heartbeat is held back as if it went out at `limit`, the arrival of what is not yet sent, if that is
    // earlier.
    void write(WireWriter &wire, int64_t limit = INT64_MAX);
    // Pulses of seconds from `from` on and before `to` are lost.
    void losePulses(double from, double to);
    static void writePulse(WireWriter &wire, int64_t ticks);
    // A heartbeat that goes out at `ticks`; none before a quarter of a second.
    static void writeHeartbeat(WireWriter &wire, int64_t ticks);
    // The last record, when nothing can come any more: time has got to `ticks` itself.
    static void writeEnd(WireWriter &wire, int64_t ticks);

private:
    bool pulses_;
    int64_t pulse_ = 0;     // the next, in seconds
    int64_t heartbeat_ = 1; // the next, in thirds of a second
    double lostFrom_ = 0.0;
    double lostTo_ = 0.0;
};

constexpr int64_t kHeartbeatsPerSecond = 3;

// "GPGSA,A,3" becomes "$GPGSA,A,3*hh\r\n".
std::string nmeaSentence(std::string_view fields);

// What a line is, from its "$" on: a sentence has printable characters, and if it has a checksum, the right
// one.
enum class Soundness { Sound, WrongChecksum, NoSentence };
Soundness soundnessOf(std::string_view line);
// The cause under which the account has a line that is not sound.
const char *causeOf(Soundness soundness);

// Receivers of several systems speak as the talker "GN". Signals are made of what the talker "GP" says.
class Talkers {
public:
    // `list`: talkers that are taken as "GP", "GN,GL" for instance, or "none". Throws InputError.
    explicit Talkers(const std::string &list);
    // The sentence as "GP" would say it, with a new checksum if it has one, if it is of one of the talkers;
    // else as it is. The first one becomes a note in the account, with its place.
    std::string translate(std::string_view sentence, InputAccount &account, const std::string &where);

private:
    std::vector<std::string> talkers_;
    bool noted_ = false;
};

// Field `number` of a sentence, counted from the id, which is 0; without the checksum. Empty if there is
// none.
std::string_view nmeaField(std::string_view sentence, size_t number);

} // namespace vu
