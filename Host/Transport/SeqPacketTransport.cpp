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

namespace usbhalhost {

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

// A node that is not there yet, or whose host's end is taken, may be there later. A folder that
// does not exist is a mistake of the caller.
bool mayComeLater(int error, const std::string &path)
{
    if (error == ENOENT)
        return ::access(path.substr(0, path.rfind('/') + 1).c_str(), F_OK) == 0;
    return error == ECONNREFUSED || error == EAGAIN;
}

} // namespace

struct SeqPacketTransport::Private
{
    TransferResult _waitFor(short events, Clock::time_point deadline) const;
    TransferResult _closed(const std::string &reason);
    void _close();

    std::string _path;
    std::string _buffer;
    int _fd = -1;
};

SeqPacketTransport::SeqPacketTransport(std::string path) : _private(std::make_unique<Private>())
{
    _private->_path = std::move(path);
    _private->_buffer.resize(largestTransfer);
}

SeqPacketTransport::~SeqPacketTransport()
{
    _private->_close();
}

bool SeqPacketTransport::isConnected() const
{
    return _private->_fd >= 0;
}

std::size_t SeqPacketTransport::maxTransferSize() const
{
    return _private->_buffer.size();
}

TransferResult SeqPacketTransport::connect()
{
    close();
    const std::string &path = _private->_path;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return {Status::Closed, "the path " + path + " is longer than a socket's path may be"};
    std::copy(path.begin(), path.end(), address.sun_path);

    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    _private->_fd = fd;
    if (fd < 0)
        return _private->_closed("socket: " + errorText(errno));
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    if (::connect(fd, generic, sizeof address) == 0)
        return {};
    const int error = errno;
    const bool later = mayComeLater(error, path);
    TransferResult result = _private->_closed(
        "connect to " + path + ": " + errorText(error) +
        (later ? "; start the node" : "; name the folder of a node that this user may use"));
    result.mayComeLater = later;
    return result;
}

void SeqPacketTransport::close()
{
    _private->_close();
}

TransferResult SeqPacketTransport::send(std::string_view transfer,
                                        std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    while (_private->_fd >= 0) {
        const ssize_t sent = ::send(_private->_fd, transfer.data(), transfer.size(), MSG_NOSIGNAL);
        if (sent >= 0)
            return {};
        if (!meansTryAgain(errno))
            return _private->_closed("send: " + errorText(errno));
        TransferResult ready = _private->_waitFor(POLLOUT, deadline);
        if (ready.status != Status::Done)
            return ready;
    }
    return {Status::Closed, "not connected"};
}

TransferResult SeqPacketTransport::receive(std::string &transfer, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    while (_private->_fd >= 0) {
        // MSG_TRUNC reports the true size of a packet that does not fit.
        const ssize_t size =
            ::recv(_private->_fd, _private->_buffer.data(), _private->_buffer.size(), MSG_TRUNC);
        if (size > static_cast<ssize_t>(maxTransferSize()))
            return _private->_closed("received a transfer of " + std::to_string(size) + " bytes");
        if (size == 0)
            return _private->_closed("the other end closed the connection");
        if (size > 0) {
            const auto length = static_cast<std::size_t>(size);
            if (std::string_view(_private->_buffer).substr(0, length) == refusal)
                return _private->_closed(std::string(refusal));
            transfer.assign(_private->_buffer, 0, length);
            return {};
        }
        if (!meansTryAgain(errno))
            return _private->_closed("recv: " + errorText(errno));
        TransferResult ready = _private->_waitFor(POLLIN, deadline);
        if (ready.status != Status::Done)
            return ready;
    }
    return {Status::Closed, "not connected"};
}

TransferResult SeqPacketTransport::Private::_waitFor(short events, Clock::time_point deadline) const
{
    pollfd entry{_fd, events, 0};
    const int ready = ::poll(&entry, 1, pollTimeout(deadline));
    // An error or a hang-up shows its reason in the caller's next attempt, a wait that was
    // interrupted or cut goes on there unless its time is over.
    if (ready <= 0 && Clock::now() >= deadline)
        return {Status::TimedOut, {}};
    return {};
}

void SeqPacketTransport::Private::_close()
{
    if (_fd >= 0)
        ::close(_fd);
    _fd = -1;
}

TransferResult SeqPacketTransport::Private::_closed(const std::string &reason)
{
    _close();
    return {Status::Closed, reason};
}

} // namespace usbhalhost
