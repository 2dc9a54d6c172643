#include "vu/source/gps/receiver_port.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <linux/pps.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <termios.h>

#include "vu/command.h"
#include "vu/source/machine_clock.h"
#include "vu/support/descriptor.h"

namespace vu {

namespace {

struct Speed {
    unsigned baud;
    speed_t code;
};
constexpr Speed kSpeeds[] = {{1200, B1200},     {2400, B2400},    {4800, B4800},   {9600, B9600},
                             {19200, B19200},   {38400, B38400},  {57600, B57600}, {115200, B115200},
                             {230400, B230400}, {460800, B460800}};

[[noreturn]] void refuse(const std::string &device)
{
    throw InputError(fmt::format("{}: {}", device, std::strerror(errno)));
}

void setUpLine(int fd, const std::string &device, unsigned baud)
{
    const auto *speed = std::find_if(std::begin(kSpeeds), std::end(kSpeeds),
                                     [&](const Speed &known) { return known.baud == baud; });
    if (speed == std::end(kSpeeds))
        throw InputError(fmt::format("--baud: {} is no speed of a serial line", baud));
    termios line{};
    if (tcgetattr(fd, &line) != 0)
        refuse(device);
    cfmakeraw(&line);
    line.c_cflag |= CLOCAL | CREAD;
    cfsetispeed(&line, speed->code);
    cfsetospeed(&line, speed->code);
    if (tcsetattr(fd, TCSANOW, &line) != 0)
        refuse(device);
}

class KernelReceiver : public ReceiverPort {
public:
    KernelReceiver(const std::string &device, unsigned baud, const std::string &pps)
        : device_(device), line_(open(device.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    {
        if (!line_)
            refuse(device);
        if (isatty(line_.get()))
            setUpLine(line_.get(), device, baud);
        if (pps.empty())
            return;
        pulse_ = Descriptor(open(pps.c_str(), O_RDWR | O_CLOEXEC));
        pps_fdata data{};
        if (!pulse_ || !fetch(data))
            refuse(pps);
        sequence_ = data.info.assert_sequence;
    }

    int descriptor() const override { return line_.get(); }
    bool hasPulses() const override { return static_cast<bool>(pulse_); }
    int64_t nowTicks() override { return machineTicks(); }

    std::optional<size_t> read(std::span<char> to) override
    {
        const ssize_t count = ::read(line_.get(), to.data(), to.size());
        if (count > 0)
            return static_cast<size_t>(count);
        if (count == 0)
            return std::nullopt;
        if (errno == EAGAIN || errno == EINTR)
            return 0;
        throw std::runtime_error(fmt::format("{}: {}", device_, std::strerror(errno)));
    }

    std::optional<int64_t> pulseTicks() override
    {
        pps_fdata data{};
        if (!pulse_ || !fetch(data) || data.info.assert_sequence == sequence_)
            return std::nullopt;
        sequence_ = data.info.assert_sequence;
        return ticksOfWallTime(data.info.assert_tu.sec * 1'000'000'000 + data.info.assert_tu.nsec);
    }

private:
    bool fetch(pps_fdata &data) const
    {
        data.timeout = {}; // the latest pulse, without waiting for the next
        return ioctl(pulse_.get(), PPS_FETCH, &data) == 0;
    }

    std::string device_;
    Descriptor line_;
    Descriptor pulse_;
    uint32_t sequence_ = 0;
};

} // namespace

std::unique_ptr<ReceiverPort> openReceiver(const std::string &device, unsigned baud, const std::string &pps)
{
    return std::make_unique<KernelReceiver>(device, baud, pps);
}

} // namespace vu
