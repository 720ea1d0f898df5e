// SPDX-License-Identifier: MIT
#include "ListeningSocket.h"

#include "Failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int mostWaiting = 16;
constexpr mode_t forOthers = S_IRWXG | S_IRWXO;

[[noreturn]] void fail(const std::string &name, const std::string &advice)
{
    throw Failure(exitFailed,
                  "cannot listen on " + name + ": " + std::strerror(errno) + "; " + advice);
}

// Keeps errno.
void closeFailed(int fd)
{
    const int error = errno;
    if (fd >= 0)
        ::close(fd);
    errno = error;
}

// Negative, with errno, when that cannot be done.
int listenOn(const addrinfo &address)
{
    const int fd = ::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(fd, address.ai_addr, address.ai_addrlen) == 0 && ::listen(fd, mostWaiting) == 0)
        return fd;
    closeFailed(fd);
    return -1;
}

struct FreeAddresses
{
    void operator()(addrinfo *first) const { freeaddrinfo(first); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

Addresses resolve(const ForwardAddress &address)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    // A system without /etc/hosts knows no name, not even this one.
    const std::string host = address.host == "localhost" ? "127.0.0.1" : address.host;
    addrinfo *found = nullptr;
    const int error =
        getaddrinfo(host.c_str(), std::to_string(address.localPort).c_str(), &hints, &found);
    if (error != 0)
        throw Failure(exitFailed, "cannot find the address " + address.host + ": " +
                                      gai_strerror(error) + "; name one of this machine");
    return Addresses(found);
}

std::string numbersOf(const sockaddr_storage &address, socklen_t size)
{
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    getnameinfo(reinterpret_cast<const sockaddr *>(&address), size, host.data(), host.size(),
                port.data(), port.size(), NI_NUMERICHOST | NI_NUMERICSERV);
    const std::string shown = host.data();
    const bool isLong = address.ss_family == AF_INET6;
    return (isLong ? "[" + shown + "]" : shown) + ":" + port.data();
}

// Empty for a path that is too long.
std::optional<sockaddr_un> addressOf(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return std::nullopt;
    std::copy(path.begin(), path.end(), address.sun_path);
    return address;
}

const sockaddr *generic(const sockaddr_un &address)
{
    return reinterpret_cast<const sockaddr *>(&address);
}

bool isSocket(const std::string &path)
{
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// A socket that nobody listens on any more.
bool isLeftBehind(const std::string &path)
{
    const int fd = connectToPath(path);
    if (fd >= 0)
        ::close(fd);
    return fd < 0 && errno == ECONNREFUSED && isSocket(path);
}

} // namespace

int connectToPath(const std::string &path)
{
    const std::optional<sockaddr_un> address = addressOf(path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (address && fd >= 0 && ::connect(fd, generic(*address), sizeof *address) == 0)
        return fd;
    closeFailed(fd);
    return -1;
}

ListeningSocket::ListeningSocket(const ForwardAddress &address) : _path(address.path)
{
    if (_path.empty())
        _listenOnTcp(address);
    else
        _listenOnPath();
}

ListeningSocket::~ListeningSocket()
{
    if (!_path.empty())
        ::unlink(_path.c_str());
    ::close(_fd);
}

void ListeningSocket::_listenOnTcp(const ForwardAddress &address)
{
    const Addresses addresses = resolve(address);
    for (const addrinfo *each = addresses.get(); each != nullptr && _fd < 0; each = each->ai_next)
        _fd = listenOn(*each);
    if (_fd < 0)
        fail(address.host + ":" + std::to_string(address.localPort),
             "choose another local port, or 0 for a free one");
    sockaddr_storage own{};
    socklen_t size = sizeof own;
    getsockname(_fd, reinterpret_cast<sockaddr *>(&own), &size);
    _name = numbersOf(own, size);
}

void ListeningSocket::_listenOnPath()
{
    _name = _path;
    const std::optional<sockaddr_un> address = addressOf(_path);
    if (!address)
        throw Failure(exitFailed, "the path " + _path + " is longer than a socket's path may be");
    if (isLeftBehind(_path))
        ::unlink(_path.c_str());
    _fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const mode_t before = ::umask(forOthers);
    const bool isBound = _fd >= 0 && ::bind(_fd, generic(*address), sizeof *address) == 0;
    ::umask(before);
    if (!isBound || ::listen(_fd, mostWaiting) != 0)
        fail(_path, "choose another path");
}

std::optional<Connection> ListeningSocket::accept() const
{
    const int fd = ::accept4(_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0)
        return Connection{fd, _peerOf(fd)};
    const int error = errno;
    // The system says so even when there is no client to accept.
    if ((error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) && isCalled())
        throw Failure(exitFailed, "cannot accept a client on " + _name + ": " +
                                      std::strerror(error) + "; it has to wait");
    return std::nullopt;
}

bool ListeningSocket::isCalled() const
{
    pollfd entry{_fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0;
}

std::string ListeningSocket::_peerOf(int fd) const
{
    if (!_path.empty()) {
        ucred peer{};
        socklen_t size = sizeof peer;
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
        return "process " + std::to_string(peer.pid);
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size);
    return numbersOf(peer, size);
}
