// SPDX-License-Identifier: MIT
#include "SeqPacketTransport.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace hostpeer {

namespace {

using Clock = std::chrono::steady_clock;
using Status = TransferResult::Status;

constexpr std::size_t largestTransfer = 65536;

// What a simulated node answers a host for which it has no cable; no device sends it.
constexpr std::string_view refusal = "another host is connected";

std::string errorText(int error)
{
    return std::strerror(error);
}

bool meansTryAgain(int error)
{
    return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}

// Rounded up, so that a wait never ends before its deadline and spins for the rest. One that is too
// long for poll ends early, and is taken up again.
int pollTimeout(Clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

} // namespace

SeqPacketTransport::SeqPacketTransport(std::string path) : _path(std::move(path))
{
    _buffer.resize(largestTransfer);
}

SeqPacketTransport::~SeqPacketTransport()
{
    close();
}

TransferResult SeqPacketTransport::connect()
{
    close();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (_path.size() >= sizeof address.sun_path)
        return {Status::Closed, "the path " + _path + " is longer than a socket's path may be"};
    std::copy(_path.begin(), _path.end(), address.sun_path);

    _fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (_fd < 0)
        return _closed("socket: " + errorText(errno));
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    if (::connect(_fd, generic, sizeof address) != 0)
        return _closed("connect to " + _path + ": " + errorText(errno));
    return {};
}

void SeqPacketTransport::close()
{
    if (_fd >= 0)
        ::close(_fd);
    _fd = -1;
}

TransferResult SeqPacketTransport::send(std::string_view transfer,
                                        std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    while (_fd >= 0) {
        const ssize_t sent = ::send(_fd, transfer.data(), transfer.size(), MSG_NOSIGNAL);
        if (sent >= 0)
            return {};
        if (!meansTryAgain(errno))
            return _closed("send: " + errorText(errno));
        TransferResult ready = _waitFor(POLLOUT, deadline);
        if (ready.status != Status::Done)
            return ready;
    }
    return {Status::Closed, "not connected"};
}

TransferResult SeqPacketTransport::receive(std::string &transfer, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    while (_fd >= 0) {
        // MSG_TRUNC reports the true size of a packet that does not fit.
        const ssize_t size = ::recv(_fd, _buffer.data(), _buffer.size(), MSG_TRUNC);
        if (size > static_cast<ssize_t>(maxTransferSize()))
            return _closed("received a transfer of " + std::to_string(size) + " bytes");
        if (size == 0)
            return _closed("the other end closed the connection");
        if (size > 0) {
            const auto length = static_cast<std::size_t>(size);
            if (std::string_view(_buffer).substr(0, length) == refusal)
                return _closed(std::string(refusal));
            transfer.assign(_buffer, 0, length);
            return {};
        }
        if (!meansTryAgain(errno))
            return _closed("recv: " + errorText(errno));
        TransferResult ready = _waitFor(POLLIN, deadline);
        if (ready.status != Status::Done)
            return ready;
    }
    return {Status::Closed, "not connected"};
}

TransferResult SeqPacketTransport::_waitFor(short events, Clock::time_point deadline) const
{
    pollfd entry{_fd, events, 0};
    const int ready = ::poll(&entry, 1, pollTimeout(deadline));
    // An error or a hang-up shows its reason in the caller's next attempt, a wait that was
    // interrupted or cut goes on there unless its time is over.
    if (ready <= 0 && Clock::now() >= deadline)
        return {Status::TimedOut, {}};
    return {};
}

TransferResult SeqPacketTransport::_closed(const std::string &reason)
{
    close();
    return {Status::Closed, reason};
}

} // namespace hostpeer
