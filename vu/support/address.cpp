#include "vu/support/address.h"

#include <charconv>
#include <fmt/format.h>
#include <sys/un.h>

#include "vu/command.h"

namespace vu {

namespace {

Address parseTcp(const std::string &text, std::string_view rest)
{
    Address address{.family = Address::Family::Tcp, .path = {}, .host = {}, .port = 0};
    const size_t colon = rest.rfind(':');
    if (colon == std::string_view::npos || colon == 0)
        throw InputError(fmt::format("{}: expected tcp:HOST:PORT", text));
    std::string_view host = rest.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    const std::string_view port = rest.substr(colon + 1);
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
    if (error != std::errc{} || end != port.data() + port.size())
        throw InputError(fmt::format("{}: expected a port from 0 to 65535, got '{}'", text, port));
    address.host = host;
    return address;
}

} // namespace

std::string Address::text() const
{
    if (family == Family::Unix)
        return "unix:" + path;
    const bool v6 = host.find(':') != std::string::npos;
    return fmt::format("tcp:{}{}{}:{}", v6 ? "[" : "", host, v6 ? "]" : "", port);
}

Address parseAddress(const std::string &text)
{
    const std::string_view view = text;
    if (view.starts_with("tcp:"))
        return parseTcp(text, view.substr(4));
    if (!view.starts_with("unix:") || view.size() == 5)
        throw InputError(fmt::format("'{}': expected unix:PATH or tcp:HOST:PORT", text));
    Address address{
        .family = Address::Family::Unix, .path = std::string(view.substr(5)), .host = {}, .port = 0};
    if (address.path.size() >= sizeof(sockaddr_un::sun_path))
        throw InputError(fmt::format("{}: the path of a socket has at most {} bytes", text,
                                     sizeof(sockaddr_un::sun_path) - 1));
    return address;
}

} // namespace vu
