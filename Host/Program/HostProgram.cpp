// SPDX-License-Identifier: MIT
#include "HostProgram.h"

#include <array>
#include <cerrno>
#include <iostream>
#include <poll.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace usbhalhost {

namespace {

using namespace std::chrono_literals;

constexpr auto connectLimit = 10s;
constexpr auto connectPause = 20ms;
constexpr std::size_t mostUndelivered = 100000; // bytes read ahead of the device

void tell(const std::string &text)
{
    std::cerr << "usbhal-host: " << text << std::endl;
}

} // namespace

HostProgram::HostProgram(HostOptions options)
    : _options(std::move(options)), _transport(_options.node + "/host"), _session(_transport)
{
    HostSession::Handlers handlers;
    handlers.bytesReceived = [this](int port) { _print(port); };
    handlers.bytesDelivered = [this](int, std::size_t bytes) {
        _undelivered -= bytes;
        _lastMoved = Clock::now();
    };
    handlers.delayChanged = [](bool delayed) {
        tell(delayed ? "the device asks to wait" : "the device takes bytes again");
    };
    handlers.faultSeen = [this](const std::string &text) {
        if (_session.isMaxWriteSizeKnown()) // before that there may be no device yet
            tell(text);
    };
    _session.setHandlers(std::move(handlers));
}

bool HostProgram::run()
{
    if (!_connect())
        return false;
    _lastMoved = Clock::now();
    while (!_isOver()) {
        _takeInput();
        if (_session.step() == HostSession::StepResult::Closed) {
            tell(_session.closeReason());
            break;
        }
        _noteLoss();
    }
    _lost += _undelivered;
    if (_lost > 0)
        tell(std::to_string(_lost) + " bytes may not have reached the device");
    return _lost == 0;
}

bool HostProgram::_connect()
{
    const Clock::time_point limit = Clock::now() + connectLimit;
    TransferResult result = _transport.connect();
    while (result.status != TransferResult::Status::Done && Clock::now() < limit) {
        std::this_thread::sleep_for(connectPause);
        result = _transport.connect();
    }
    if (result.status == TransferResult::Status::Done)
        return true;
    tell(result.text);
    return false;
}

// Never waits: the exchange with the device has to go on.
void HostProgram::_takeInput()
{
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (_inputEnded || _undelivered >= mostUndelivered || ::poll(&input, 1, 0) <= 0)
        return;
    std::array<char, 4096> bytes;
    const ssize_t size = ::read(STDIN_FILENO, bytes.data(), bytes.size());
    if (size < 0 && errno == EINTR)
        return;
    _lastMoved = Clock::now();
    _inputEnded = size <= 0;
    if (_inputEnded)
        return;
    _undelivered += static_cast<std::size_t>(size);
    _session.send(_options.port, {bytes.data(), static_cast<std::size_t>(size)});
}

// A device that has fallen silent has thrown away what it was sent and did not answer.
void HostProgram::_noteLoss()
{
    if (_session.isEstablished())
        return;
    const std::size_t pending = _session.pendingBytes(_options.port);
    _lost += _undelivered - pending;
    _undelivered = pending;
}

bool HostProgram::_isOver() const
{
    return _inputEnded && _undelivered == 0 && _session.isEstablished() &&
           Clock::now() - _lastMoved >= std::chrono::duration<double>(_options.linger);
}

void HostProgram::_print(int port)
{
    const std::string bytes = _session.received(port);
    if (port != _options.port)
        return;
    std::cout << bytes << std::flush;
    _lastMoved = Clock::now();
}

} // namespace usbhalhost
