// SPDX-License-Identifier: MIT
#include "Forwarder.h"

#include "Console.h"
#include "Failure.h"
#include "Signals.h"

#include <algorithm>
#include <iostream>
#include <thread>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr auto tellPause = 1s; // between two refusals that are told
constexpr auto countersPause = 1s;
constexpr std::size_t mostUnread = 65536;

void tellLoss(const ForwardedPort &port, std::size_t bytes)
{
    if (bytes > 0)
        tell("port " + std::to_string(port.number()) + ": " + std::to_string(bytes) +
             " bytes may not have reached the device");
}

} // namespace

Forwarder::Forwarder(const LinkOptions &link, ForwardOptions options)
    : _options(std::move(options)), _link(link)
{
    _listen();
    _listenForCommands();
    _link.setHandlers([this](int port, const std::string &bytes) { _receive(port, bytes); },
                      [this](int port, std::size_t bytes) { _noteDelivered(port, bytes); });
    _link.setPause([this](std::chrono::milliseconds time) {
        _serve();
        std::this_thread::sleep_for(time);
    });
}

void Forwarder::_listen()
{
    for (const std::string &text : _options.forwards) {
        const ForwardAddress address = parseForwardAddress(text);
        if (_ports.count(address.port) > 0)
            throw Failure(exitUsage, "port " + std::to_string(address.port) +
                                         " is forwarded twice: a port carries one client at a "
                                         "time, so name it once");
        _ports.try_emplace(address.port, address.port, _options.linger)
            .first->second.listen(address);
    }
}

// The sockets that the user has named work without.
void Forwarder::_listenForCommands()
{
    try {
        _control.emplace();
    } catch (const Failure &failure) {
        tell(std::string("other commands do not reach the device: ") + failure.what());
    }
}

// A signal is the ordinary end, also while the device is waited for.
void Forwarder::run()
{
    _announce();
    try {
        _findDevice();
        while (!endIsAsked())
            _turn();
    } catch (const Failure &) {
        if (!endIsAsked())
            throw;
    }
    _finish();
}

void Forwarder::_announce() const
{
    for (const auto &[number, port] : _ports)
        std::cout << "forwarding " << port.localName() << " to port " << number << '\n';
    std::cout.flush();
    _service.send("READY=1");
}

void Forwarder::_findDevice()
{
    _service.send("STATUS=Waiting for the device");
    _link.reopen();
    _service.send("STATUS=Forwarding");
    for (const auto &[number, port] : _ports)
        port.resume(_link.session());
    _linked = true;
}

// Clients are read before the next are let in, so that one that has gone is not in their way.
void Forwarder::_turn()
{
    for (auto &[number, port] : _ports)
        port.feed(_link.session());
    _serve();
    if (_waitForReader())
        return;
    if (!_link.step())
        _handleLoss();
    else if (!_link.session().isEstablished())
        _noteSilence();
}

// The device can be held back as a whole alone.
bool Forwarder::_waitForReader()
{
    const auto slow = std::find_if(_ports.begin(), _ports.end(),
                                   [](const auto &entry) { return entry.second.isFull(); });
    if (slow == _ports.end())
        _readerWait.end();
    else
        slow->second.waitForClient(_readerWait);
    return slow != _ports.end();
}

void Forwarder::_serve()
{
    _service.keepAlive();
    for (auto &[number, port] : _ports)
        _tellSparingly(port.tend());
    _feedMonitors();
    try {
        _welcome();
    } catch (const Failure &failure) {
        _tellSparingly(failure.what());
    }
}

void Forwarder::_welcome()
{
    if (_control)
        _control->serve(_linked ? _link.place() : "",
                        [this](const auto &request, auto &stream) { _answer(request, stream); });
    const bool isRefused = !_linked && !_options.hold;
    for (auto &[number, port] : _ports)
        _tellSparingly(port.welcome(isRefused ? "the device is not there" : ""));
}

// One that reads nothing is let go: what it missed is in the next counters.
void Forwarder::_feedMonitors()
{
    if (_monitors.empty() || Clock::now() < _nextCounters)
        return;
    _nextCounters = Clock::now() + countersPause;
    const std::string line = lineOf(_link.counters());
    _monitors.remove_if([&line](const auto &monitor) {
        monitor->putLine(line);
        return monitor->isBroken() || monitor->size() > mostUnread;
    });
}

void Forwarder::_answer(const ControlRequest &request, std::unique_ptr<FramedStream> &stream)
{
    if (request.monitors) {
        _monitors.push_back(std::move(stream));
        return;
    }
    if (!_linked)
        throw Failure(exitFailed, "the device is not there: wait for it");
    const auto entry = _ports.try_emplace(request.port, request.port, _options.linger).first;
    if (!entry->second.isFree())
        return;
    stream->putLine("{\"largest\": " + std::to_string(_link.session().maxWriteSize()) + '}');
    entry->second.adopt(std::move(stream), request.user);
}

// A client that tries again and again shall not fill the log.
void Forwarder::_tellSparingly(const std::string &text)
{
    if (text.empty() || Clock::now() - _lastTold < tellPause)
        return;
    _lastTold = Clock::now();
    tell(text);
}

void Forwarder::_receive(int port, const std::string &bytes)
{
    const auto entry = _ports.find(port);
    if (entry != _ports.end())
        entry->second.receive(bytes);
}

void Forwarder::_noteDelivered(int port, std::size_t bytes)
{
    _ports.at(port).noteDelivered(bytes);
}

void Forwarder::_noteSilence()
{
    for (auto &[number, port] : _ports)
        tellLoss(port, port.noteSilence(_link.session(), _options.hold));
}

void Forwarder::_handleLoss()
{
    _linked = false;
    tell("the link is lost: " + _link.reason() + "; waiting for the device");
    for (auto &[number, port] : _ports)
        tellLoss(port, port.noteLostLink(_link.session(), _options.hold));
    _findDevice();
    tell("the device is back");
}

void Forwarder::_finish()
{
    _service.send("STOPPING=1");
    for (const auto &[number, port] : _ports)
        tellLoss(port, port.undelivered());
}
