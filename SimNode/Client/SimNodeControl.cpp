// SPDX-License-Identifier: MIT
#include "SimNodeControl.h"

#include "DeviceProtocol.h"
#include "PollTimeout.h"
#include "SocketAddress.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace {

constexpr std::size_t maxAnswerSize = 4096;

std::string describe(const std::string &what, int error)
{
    return what + ": " + std::strerror(error);
}

} // namespace

SimNodeControl::SimNodeControl(const std::string &directory, std::chrono::milliseconds timeout)
    : _timeout(timeout), _socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
{
    if (_socket < 0)
        throw std::runtime_error(describe("no socket for the control connection", errno));
    sockaddr_un address;
    const bool fits =
        simnode::makeSocketAddress(directory.c_str(), simnode::controlSocketName, address);
    if (fits &&
        ::connect(_socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
        return;
    const int error = fits ? errno : ENAMETOOLONG;
    ::close(_socket);
    throw std::runtime_error(describe("no simnode serves " + directory, error));
}

SimNodeControl::~SimNodeControl()
{
    ::close(_socket);
}

std::string SimNodeControl::command(const std::string &text)
{
    if (text.empty())
        return "error: the command is empty";
    if (::send(_socket, text.data(), text.size(), MSG_NOSIGNAL) < 0)
        return describe("error: the command was not sent", errno);
    if (!waitForAnswer())
        return "error: no answer within " + std::to_string(_timeout.count()) + " ms";
    std::string answer(maxAnswerSize, '\0');
    const ssize_t size = ::recv(_socket, answer.data(), answer.size(), 0);
    if (size <= 0)
        return describe("error: the daemon is gone", size < 0 ? errno : ECONNRESET);
    answer.resize(static_cast<std::size_t>(size));
    return answer;
}

bool SimNodeControl::waitForAnswer() const
{
    const auto deadline = std::chrono::steady_clock::now() + _timeout;
    for (;;) {
        const int wait = simnode::pollTimeout(deadline);
        pollfd entry = {_socket, POLLIN, 0};
        const int ready = ::poll(&entry, 1, wait);
        if (ready > 0 || wait == 0 || (ready < 0 && errno != EINTR))
            return ready > 0;
    }
}

std::string SimNodeControl::statusValue(const std::string &key)
{
    const std::string answer = command("status");
    std::istringstream words(answer);
    std::string word;
    while (words >> word) {
        if (word.compare(0, key.size() + 1, key + "=") == 0)
            return word.substr(key.size() + 1);
    }
    throw std::runtime_error("no " + key + " in the status: " + answer);
}

std::string SimNodeControl::directoryFromEnvironment()
{
    const char *directory = std::getenv(simnode::directoryVariable);
    return directory != nullptr ? directory : "";
}
