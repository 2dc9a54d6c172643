// A CAN interface as a channel, live.
#pragma once

#include <memory>
#include <string>

#include "vu/source/can/can_port.h"
#include "vu/source/producer.h"

namespace vu {

class LiveCan : public LiveProducer {
public:
    explicit LiveCan(std::unique_ptr<CanPort> port) : port_(std::move(port)) {}
    void start() override;
    int descriptor() const override { return port_->descriptor(); }
    bool take(WireWriter &wire, int64_t &wakeTicks) override;

private:
    void noteLost(const CanArrival &arrival);

    std::unique_ptr<CanPort> port_;
    int64_t start_ = 0;
    int64_t told_ = 0;  // the latest time sent
    uint64_t lost_ = 0; // in the kernel, as it counts them
};

} // namespace vu
