#include "vu/source/can/can_live.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>

#include "vu/source/kinds.h"

namespace vu {

namespace {

constexpr int kBodyLimit = 512;
// Between the kernel's stamp on a frame and its arrival here passes a moment; time told meanwhile must not
// overtake it.
constexpr int64_t kMarginTicks = kTicksPerSecond / 500;
constexpr int64_t kWakeTicks = kCanTimeSpacing - kMarginTicks;

} // namespace

void LiveCan::start()
{
    while (port_->receive()) // what came before the reader is nobody's
        ;
    start_ = port_->nowTicks();
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
        lost_ = std::max(lost_, arrival->lostSoFar);
        if (arrival->kind == CanArrival::Kind::Fd) {
            ++fd_;
        } else if (arrival->kind == CanArrival::Kind::Error) {
            ++errors_;
        } else {
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

std::vector<std::string> LiveCan::notes() const
{
    std::vector<std::string> lines;
    if (fd_ != 0)
        lines.push_back(fmt::format("FD frames left out: {}", fd_));
    if (errors_ != 0)
        lines.push_back(fmt::format("error frames left out: {}", errors_));
    if (lost_ != 0)
        lines.push_back(fmt::format("frames lost in the kernel, which had no room for them: {}", lost_));
    return lines;
}

void addCan(CLI::App &source, Action &chosen)
{
    CLI::App *kind = source.add_subcommand(
        "can", "The frames of a SocketCAN interface, live, with the kernel's timestamps\n"
               "Times count from the moment when the reader came.\n"
               "Example: vu source can can0 --listen unix:run/can0.sock");
    auto interface = std::make_shared<std::string>();
    kind->add_option("INTERFACE", *interface, "such as can0")->required();
    const auto common = addCommonOptions(*kind);
    kind->callback([interface, common, &chosen] {
        chosen = [interface, common] {
            LiveCan can(openCan(*interface));
            return serve(common->settled(), can);
        };
    });
}

} // namespace vu
