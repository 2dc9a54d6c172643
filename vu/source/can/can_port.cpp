#include "vu/source/can/can_port.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <linux/can.h>
#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "vu/command.h"
#include "vu/source/machine_clock.h"
#include "vu/support/descriptor.h"

namespace vu {

namespace {

constexpr int kReceiveBytes = 4 * 1024 * 1024; // a busy bus for seconds, while the reader stalls

class KernelCan : public CanPort {
public:
    explicit KernelCan(const std::string &interface)
        : interface_(interface), socket_(socket(PF_CAN, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, CAN_RAW))
    {
        if (!socket_)
            refuse();
        ifreq request{};
        if (interface.size() >= sizeof request.ifr_name)
            throw InputError(fmt::format("{}: no interface has a name that long", interface));
        std::memcpy(request.ifr_name, interface.data(), interface.size());
        if (ioctl(socket_.get(), SIOCGIFINDEX, &request) != 0)
            refuse();
        option(SOL_CAN_RAW, CAN_RAW_FD_FRAMES, 1);
        option(SOL_CAN_RAW, CAN_RAW_ERR_FILTER, CAN_ERR_MASK);
        option(SOL_SOCKET, SO_TIMESTAMPNS, 1);
        option(SOL_SOCKET, SO_RXQ_OVFL, 1);
        option(SOL_SOCKET, SO_RCVBUF, kReceiveBytes);
        sockaddr_can name{};
        name.can_family = AF_CAN;
        name.can_ifindex = request.ifr_ifindex;
        if (bind(socket_.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0)
            refuse();
    }

    int descriptor() const override { return socket_.get(); }
    int64_t nowTicks() override { return machineTicks(); }
    std::optional<CanArrival> receive() override;

private:
    [[noreturn]] void refuse() const
    {
        throw InputError(fmt::format("{}: {}", interface_, std::strerror(errno)));
    }
    // An option that the kernel does not know only costs what it would have reported.
    void option(int level, int name, int value)
    {
        setsockopt(socket_.get(), level, name, &value, sizeof value);
    }
    void readControl(msghdr &message, CanArrival &arrival);

    std::string interface_;
    Descriptor socket_;
};

void KernelCan::readControl(msghdr &message, CanArrival &arrival)
{
    arrival.ticks = nowTicks(); // unless the kernel says better
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET)
            continue;
        if (part->cmsg_type == SO_TIMESTAMPNS) {
            timespec time{};
            std::memcpy(&time, CMSG_DATA(part), sizeof time);
            arrival.ticks = ticksOfWallTime(time.tv_sec * 1'000'000'000 + time.tv_nsec);
        } else if (part->cmsg_type == SO_RXQ_OVFL) {
            uint32_t lost = 0;
            std::memcpy(&lost, CMSG_DATA(part), sizeof lost);
            arrival.lostSoFar = lost;
        }
    }
}

std::optional<CanArrival> KernelCan::receive()
{
    canfd_frame frame{};
    iovec piece{&frame, sizeof frame};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(uint32_t))];
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t count = recvmsg(socket_.get(), &message, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return std::nullopt;
    if (count < 0)
        throw std::runtime_error(fmt::format("{}: {}", interface_, std::strerror(errno)));

    CanArrival arrival;
    readControl(message, arrival);
    const bool fd = count == CANFD_MTU;
    if (count != CAN_MTU && !(fd && frame.len <= CAN_MAX_DLEN)) {
        arrival.kind = CanArrival::Kind::Fd;
        return arrival;
    }
    if ((frame.can_id & CAN_ERR_FLAG) != 0)
        arrival.kind = CanArrival::Kind::Error;
    arrival.frame.extended = (frame.can_id & CAN_EFF_FLAG) != 0;
    arrival.frame.remote = (frame.can_id & CAN_RTR_FLAG) != 0;
    arrival.frame.id = frame.can_id & (arrival.frame.extended ? CAN_EFF_MASK : CAN_SFF_MASK);
    arrival.frame.length = std::min<uint8_t>(frame.len, CAN_MAX_DLEN);
    if (!arrival.frame.remote)
        std::memcpy(arrival.frame.data.data(), frame.data, arrival.frame.length);
    return arrival;
}

} // namespace

std::unique_ptr<CanPort> openCan(const std::string &interface)
{
    return std::make_unique<KernelCan>(interface);
}

} // namespace vu
