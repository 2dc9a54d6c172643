#include "vu/source/can/can_live.h"

#include <algorithm>

#include "vu/source/kinds.h"

namespace vu {

namespace {

constexpr int kBodyLimit = 512;
// Between the kernel's stamp on a frame and its arrival here passes a moment; a time sent meanwhile must not
// overtake it.
constexpr int64_t kMarginTicks = kTicksPerSecond / 500;
constexpr int64_t kWakeTicks = kCanTimeSpacing - kMarginTicks;

} // namespace

void LiveCan::start()
{
    while (const auto arrival = port_->receive()) // what came before the reader is nobody's
        lost_ = std::max(lost_, arrival->lostSoFar);
    start_ = port_->nowTicks();
}

// The kernel counts what it had no room for since the interface was opened, and says so with a later frame.
void LiveCan::noteLost(const CanArrival &arrival)
{
    if (arrival.lostSoFar <= lost_)
        return;
    account_.read(arrival.lostSoFar - lost_);
    account_.leaveOut("lost_in_kernel", arrival.lostSoFar - lost_);
    lost_ = arrival.lostSoFar;
}

bool LiveCan::take(WireWriter &wire, int64_t &wakeTicks)
{
    const int64_t now = port_->nowTicks() - start_;
    wire.beginRecord();
    bool any = false;
    int count = 0;
    for (; count < kBodyLimit; ++count) {
        const auto arrival = port_->receive();
        if (!arrival)
            break;
        noteLost(*arrival);
        account_.read();
        if (arrival->kind == CanArrival::Kind::Fd) {
            account_.leaveOut("can_fd");
        } else if (arrival->kind == CanArrival::Kind::Error) {
            account_.leaveOut("error_frames");
        } else {
            account_.wrote();
            const int64_t ticks = std::max<int64_t>(0, arrival->ticks - start_);
            writeCan(wire, ticks, arrival->frame);
            any = true;
            told_ = std::max(told_, ticks);
        }
    }
    const int64_t passed = std::max(told_, count < kBodyLimit ? now - kMarginTicks : 0);
    if (passed > told_ || !any) // a record without any entry is none
        writeCanTime(wire, told_ = passed);
    wire.endRecord();
    wakeTicks = now + (count < kBodyLimit ? kWakeTicks : 0);
    return true;
}

void addCan(CLI::App &source, Action &chosen)
{
    CLI::App *kind = source.add_subcommand(
        "can",
        "The frames of a SocketCAN interface, live, with the kernel's timestamps\n"
        "Times count from the moment when the reader came. CAN FD frames of at most 8 bytes are taken like\n"
        "classic ones.\n"
        "Example: vu source can can0 --listen unix:run/can0.sock");
    auto interface = std::make_shared<std::string>();
    kind->add_option("INTERFACE", *interface, "such as can0")->required();
    addLeaveOut(*kind);
    chooseKind(*kind, chosen, interface, [](const ServeOptions &serving, const std::string &name) {
        LiveCan can(openCan(name));
        return serve(serving, can);
    });
}

} // namespace vu
