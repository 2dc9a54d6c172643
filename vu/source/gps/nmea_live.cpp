#include "vu/source/gps/nmea_live.h"

#include <algorithm>

namespace vu {

namespace {

constexpr size_t kLineLimit = 512;                        // no sentence is that long
constexpr int64_t kPulseLookTicks = kTicksPerSecond / 50; // a pulse has to go ahead of its sentences

} // namespace

LiveReceiver::LiveReceiver(std::unique_ptr<ReceiverPort> port, std::string name, const Talkers &talkers)
    : port_(std::move(port)), name_(std::move(name)), talkers_(talkers)
{
}

void LiveReceiver::start()
{
    start_ = port_->nowTicks();
    port_->pulseTicks(); // what came before the reader is nobody's
}

bool LiveReceiver::take(WireWriter &wire, int64_t &wakeTicks)
{
    const int64_t now = port_->nowTicks() - start_;
    if (const auto pulse = port_->pulseTicks(); pulse && *pulse >= start_)
        ReceiverEvents::writePulse(wire, *pulse - start_);
    // A sentence that is still coming will carry the time of its beginning; noise without an end will not.
    const bool coming = !line_.empty() && now - lineTicks_ < kTicksPerSecond;
    while (events_.next() <= now)
        events_.write(wire, coming ? lineTicks_ : INT64_MAX);
    char piece[512];
    const auto count = port_->read(piece);
    if (count)
        gather(wire, std::string_view(piece, *count), now);
    wakeTicks = port_->hasPulses() ? std::min(events_.next(), now + kPulseLookTicks) : events_.next();
    return count.has_value();
}

void LiveReceiver::gather(WireWriter &wire, std::string_view characters, int64_t ticks)
{
    for (const char c : characters) {
        if (c == '\n' || c == '\r') {
            finishLine(wire);
            continue;
        }
        if (line_.empty())
            lineTicks_ = ticks;
        if (line_.size() < kLineLimit)
            line_ += c;
    }
}

void LiveReceiver::finishLine(WireWriter &wire)
{
    if (line_.empty())
        return;
    const Soundness soundness = soundnessOf(line_);
    if (soundness == Soundness::Sound) {
        wire.timed(lineTicks_, talkers_.translate(line_, account_, name_) + "\r\n");
        account_.made();
    } else if (started_) {
        account_.read();
        account_.leaveOut(causeOf(soundness), name_, line_);
    }
    started_ = true;
    line_.clear();
}

} // namespace vu
