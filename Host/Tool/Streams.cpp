// SPDX-License-Identifier: MIT
#include "Streams.h"

#include "Failure.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr mode_t newFileMode = 0666;
// What is received before the exchange has to wait for the reader; one transfer more may come.
constexpr std::size_t mostKept = 900000;

[[noreturn]] void fail(const std::string &what, const std::string &name, const char *advice)
{
    throw Failure(exitFailed,
                  "cannot " + what + " " + name + ": " + std::strerror(errno) + "; " + advice);
}

bool isReady(int fd, short events, int timeout)
{
    pollfd entry{fd, events, 0};
    return ::poll(&entry, 1, timeout) > 0;
}

} // namespace

void fillStandardStreams()
{
    while (true) {
        const int fd = ::open("/dev/null", O_RDWR);
        if (fd > STDERR_FILENO)
            ::close(fd);
        if (fd < 0 || fd > STDERR_FILENO)
            return;
    }
}

Input::Input(const std::string &name)
    : _name(name == "-" ? "standard input" : name),
      _fd(name == "-" ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC))
{
    if (_fd < 0)
        fail("read", _name, "name a file that can be read, or - for standard input");
}

Input::Input(int fd, std::string name) : _name(std::move(name)), _fd(fd) {}

Input::~Input()
{
    if (_fd != STDIN_FILENO)
        ::close(_fd);
}

std::string Input::take(std::size_t most)
{
    std::string bytes;
    while (!_ended && bytes.size() < most && isReady(_fd, POLLIN, 0)) {
        const std::size_t begin = bytes.size();
        bytes.resize(most);
        const ssize_t size = ::read(_fd, &bytes[begin], most - begin);
        const int error = errno;
        bytes.resize(begin + static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        if (size < 0 && (error == EINTR || error == EAGAIN))
            return bytes;
        errno = error;
        if (size < 0)
            fail("read", _name, "name something that can be read");
        _ended = size == 0;
    }
    return bytes;
}

void Input::wait(std::chrono::milliseconds limit) const
{
    isReady(_fd, POLLIN, static_cast<int>(limit.count()));
}

bool Input::endComes() const
{
    return isReady(_fd, POLLRDHUP, 0);
}

std::optional<std::uint64_t> Input::size() const
{
    struct stat status = {};
    if (::fstat(_fd, &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    return static_cast<std::uint64_t>(status.st_size);
}

Output::Output(const std::string &name)
    : _name(name == "-" ? "standard output" : name),
      _fd(name == "-" ? STDOUT_FILENO
                      : ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, newFileMode))
{
    if (_fd < 0)
        fail("write", _name, "name a file that can be written, or - for standard output");
}

Output::Output(int fd, std::string name) : _name(std::move(name)), _fd(fd) {}

Output::~Output()
{
    if (_fd != STDOUT_FILENO)
        ::close(_fd);
}

void Output::put(const std::string &bytes)
{
    _kept += bytes;
    flush(std::chrono::milliseconds(0));
}

void Output::flush(std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!_kept.empty()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        const auto wait = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT_MAX));
        if (!isReady(_fd, POLLOUT, wait) || !_write())
            return;
    }
}

// A pipe that is ready takes so many bytes without waiting.
bool Output::_write()
{
    const ssize_t size = ::write(_fd, _kept.data(), std::min<std::size_t>(_kept.size(), PIPE_BUF));
    if (size < 0 && (errno == EINTR || errno == EAGAIN))
        return false;
    if (size < 0)
        fail("write", _name, "make room, or name another place");
    _kept.erase(0, static_cast<std::size_t>(size));
    return true;
}

bool Output::isFull() const
{
    return _kept.size() >= mostKept;
}
