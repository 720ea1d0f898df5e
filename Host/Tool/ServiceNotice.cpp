// SPDX-License-Identifier: MIT
#include "ServiceNotice.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::string valueOf(const char *variable)
{
    const char *value = std::getenv(variable);
    return value != nullptr ? value : "";
}

} // namespace

ServiceNotice::ServiceNotice() : _address(valueOf("NOTIFY_SOCKET")), _next(Clock::now())
{
    const std::string process = valueOf("WATCHDOG_PID");
    const long long limit = std::atoll(valueOf("WATCHDOG_USEC").c_str());
    if (limit > 0 && (process.empty() || process == std::to_string(::getpid())))
        _pause = std::chrono::microseconds(limit) / 3; // so that a late one is no lost one
}

void ServiceNotice::send(const std::string &assignments) const
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (_address.empty() || _address.size() > sizeof address.sun_path)
        return;
    std::copy(_address.begin(), _address.end(), address.sun_path);
    if (_address.front() == '@') // a name that is no file's
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + _address.size());
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ::sendto(fd, assignments.data(), assignments.size(), MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr *>(&address), size);
    ::close(fd);
}

void ServiceNotice::keepAlive()
{
    if (!_pause || Clock::now() < _next)
        return;
    _next = Clock::now() + *_pause;
    send("WATCHDOG=1");
}
