// A receiver that is there: its sentences with the times at which they began to come, its pulses, heartbeats.
#pragma once

#include <memory>
#include <string>

#include "vu/source/gps/nmea_sentence.h"
#include "vu/source/gps/receiver_port.h"
#include "vu/source/producer.h"

namespace vu {

class LiveReceiver : public LiveProducer {
public:
    LiveReceiver(std::unique_ptr<ReceiverPort> port, std::string name, const Talkers &talkers);
    void start() override;
    int descriptor() const override { return port_->descriptor(); }
    bool take(WireWriter &wire, int64_t &wakeTicks) override;

private:
    void gather(WireWriter &wire, std::string_view characters, int64_t ticks);
    void finishLine(WireWriter &wire);

    std::unique_ptr<ReceiverPort> port_;
    std::string name_;
    int64_t start_ = 0;
    ReceiverEvents events_{false}; // heartbeats; the pulses are the receiver's own
    std::string line_;
    int64_t lineTicks_ = 0; // when the line began to come
    bool started_ = false;  // a line's beginning was seen: the first may be cut
    Talkers talkers_;
};

} // namespace vu
