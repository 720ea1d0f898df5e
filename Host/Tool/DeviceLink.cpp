// SPDX-License-Identifier: MIT
#include "DeviceLink.h"

#include "CapturingTransport.h"
#include "Console.h"
#include "DeviceChoice.h"
#include "Failure.h"
#include "Signals.h"

#include <cstdio>
#include <thread>
#include <utility>

using namespace usbhalhost;
using namespace std::chrono_literals;

namespace {

constexpr auto retryPause = 100ms;
constexpr auto silentWait = 1s; // of a wait that is not told
constexpr int mostFaults = 3;
// Long enough for what a device is still to answer, short enough to be asked again for the end.
constexpr SessionTimeouts turns{500ms, 4};
constexpr std::chrono::duration<double> forEver = 24h * 365 * 100;

std::string secondsText(double seconds)
{
    char text[32] = {};
    std::snprintf(text, sizeof text, "%g s", seconds);
    return text;
}

} // namespace

DeviceLink::DeviceLink(LinkOptions options)
    : _options(std::move(options)),
      _capture(tell),
      _pause([](std::chrono::milliseconds time) { std::this_thread::sleep_for(time); })
{
    if (_options.capture.empty())
        return;
    const std::string error = _capture.start(_options.capture, _options.captureSize);
    if (!error.empty())
        throw Failure(exitFailed, error);
}

void DeviceLink::setHandlers(std::function<void(int, const std::string &)> received,
                             std::function<void(int, std::size_t)> delivered)
{
    _received = std::move(received);
    _delivered = std::move(delivered);
}

void DeviceLink::setDetour(std::function<bool()> detour)
{
    _detour = std::move(detour);
}

void DeviceLink::setPause(std::function<void(std::chrono::milliseconds)> pause)
{
    _pause = std::move(pause);
}

void DeviceLink::open()
{
    _openWithin(std::chrono::duration<double>(_options.wait));
}

void DeviceLink::reopen()
{
    _openWithin(forEver);
}

void DeviceLink::_openWithin(std::chrono::duration<double> limit)
{
    _waitBegan = Clock::now();
    _waitTold = false;
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(limit);
    Attempt attempt = _try(end);
    while (attempt == Attempt::NoDevice && Clock::now() < end && !endIsAsked()) {
        _pause(retryPause);
        attempt = _try(end);
    }
    _wasOpen = _wasOpen || attempt == Attempt::Done;
    if (attempt == Attempt::Done)
        return;
    if (endIsAsked())
        throw Failure(exitFailed,
                      "ended by a signal while waiting for " + wordsFor(_options.device));
    if (attempt == Attempt::NoAnswer)
        throw Failure(exitTimeOut, wordsFor(_options.device) + " has not answered for " +
                                       secondsText(_options.wait) +
                                       ": is its program running, and a port open?");
    throw Failure(exitNoDevice, "no device for " + secondsText(_options.wait) + ": " + _reason);
}

DeviceLink::Attempt DeviceLink::_try(Clock::time_point limit)
{
    if (_detour && _detour())
        return Attempt::Done;
    if (!_connect()) {
        _waitFor(wordsFor(_options.device) + " (" + _reason + ")");
        return Attempt::NoDevice;
    }
    if (_establish(limit))
        return Attempt::Done;
    if (_transport->isConnected())
        return Attempt::NoAnswer;
    _reason += "; end the host that has it, if there is one";
    return Attempt::NoDevice;
}

bool DeviceLink::_connect()
{
    if (!_name) {
        _name = chooseDevice(_options.device);
        if (!_name) {
            _reason = "there is none on USB and no simulated node: plug one in";
            return false;
        }
        _begin(*_name);
    }
    const TransferResult result = _transport->connect();
    _reason = result.text;
    // A device that is just being plugged in again may not have its permissions yet.
    if (result.status != TransferResult::Status::Done && !result.mayComeLater && !_wasOpen)
        throw Failure(exitFailed, result.text);
    _place = placeOf(*_name);
    return result.status == TransferResult::Status::Done;
}

void DeviceLink::_begin(const DeviceName &name)
{
    _transport = std::make_unique<TracingTransport>(_newTransport(name), _options.trace);
    _session = std::make_unique<HostSession>(*_transport, turns);
    HostSession::Handlers handlers;
    handlers.bytesReceived = [this](int port) { _noteReceived(port); };
    handlers.bytesDelivered = [this](int port, std::size_t bytes) { _noteDelivered(port, bytes); };
    handlers.delayChanged = [this](bool delayed) { _noteDelay(delayed); };
    handlers.faultSeen = [this](const std::string &text) { _noteFault(text); };
    _session->setHandlers(std::move(handlers));
}

std::unique_ptr<DeviceTransport> DeviceLink::_newTransport(const DeviceName &name)
{
    if (_options.capture.empty())
        return newTransport(name);
    return std::make_unique<CapturingTransport>(name, _capture);
}

// Until the device has said how much it takes, it may be one that speaks something else. It is
// asked once even when the time is over: a node that another host has says so.
bool DeviceLink::_establish(Clock::time_point limit)
{
    _session->restart();
    _faults = 0;
    while (!endIsAsked() && step()) {
        if (_session->isMaxWriteSizeKnown())
            return true;
        if (Clock::now() >= limit)
            return false;
        _waitFor(wordsFor(_options.device) + " to answer");
        _pause(0ms);
    }
    return false;
}

bool DeviceLink::step()
{
    const HostSession::StepResult result = _session->step();
    _counters.turns += result == HostSession::StepResult::Exchanged ? 1 : 0;
    _counters.isUp = _session->isEstablished();
    if (result != HostSession::StepResult::Closed)
        return true;
    ++_counters.losses;
    _reason = _session->closeReason();
    return false;
}

void DeviceLink::_noteReceived(int port)
{
    const std::string bytes = _session->received(port);
    _counters.ports[port].received += bytes.size();
    if (_received)
        _received(port, bytes);
}

void DeviceLink::_noteDelivered(int port, std::size_t bytes)
{
    _counters.ports[port].delivered += bytes;
    if (_delivered)
        _delivered(port, bytes);
}

void DeviceLink::_noteDelay(bool delayed)
{
    _counters.delays += delayed ? 1 : 0;
    tell(delayed ? "the device asks to wait" : "the device takes bytes again");
}

void DeviceLink::_noteFault(const std::string &text)
{
    if (_transport->lastReceived().empty())
        return; // silence of a device that has never answered is told by the wait for it
    ++_counters.faults;
    const std::string excerpt = excerptOf(_transport->lastReceived());
    if (!_session->isMaxWriteSizeKnown() && ++_faults >= mostFaults)
        throw Failure(exitFailed, wordsFor(_options.device) +
                                      " speaks something else than UsbHal: it sent " + excerpt +
                                      "; name another one with --device");
    tell(text + "; the last that the device sent: " + excerpt);
}

void DeviceLink::_waitFor(const std::string &what)
{
    if (_waitTold || Clock::now() - _waitBegan < silentWait)
        return;
    _waitTold = true;
    tell("waiting for " + what);
}
