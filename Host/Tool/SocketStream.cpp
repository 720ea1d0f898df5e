// SPDX-License-Identifier: MIT
#include "SocketStream.h"

#include "Failure.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

using namespace std::chrono_literals;

namespace {

// For the owner of the other direction, which closes its own.
int copyOf(int fd)
{
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (copy < 0)
        throw Failure(exitFailed, std::string("cannot serve a connection: ") +
                                      std::strerror(errno) + "; it is refused");
    return copy;
}

} // namespace

SocketStream::SocketStream(const Connection &connection)
    : _input(connection.fd, connection.name), _output(copyOf(connection.fd), connection.name)
{
}

std::string SocketStream::take(std::size_t most)
{
    std::string bytes;
    _try([&] { bytes = _input.take(most); });
    return bytes;
}

void SocketStream::waitForBytes(std::chrono::milliseconds limit)
{
    _input.wait(limit);
}

void SocketStream::put(const std::string &bytes)
{
    _try([&] { _output.put(bytes); });
}

void SocketStream::flush()
{
    _try([&] { _output.flush(0ms); });
}

void SocketStream::waitFor(ReaderWait &wait)
{
    _try([&] { wait.waitFor(_output, name()); });
}

void SocketStream::_try(const std::function<void()> &action)
{
    try {
        if (!_broken)
            action();
    } catch (const Failure &) {
        _broken = true;
    }
}
