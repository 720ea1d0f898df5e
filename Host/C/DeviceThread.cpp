// SPDX-License-Identifier: MIT
#include "DeviceThread.h"

#include <algorithm>
#include <utility>

namespace usbhalhost {

namespace {

using namespace std::chrono_literals;

constexpr auto retryPause = 100ms;
constexpr auto longestHold = 100ms; // of the device, before it is seen whether it is still there
// What is kept for a port before the exchange waits for its reader; one transfer more may come.
constexpr std::size_t mostKept = 900000;

} // namespace

DeviceThread::DeviceThread(std::unique_ptr<DeviceTransport> transport)
    : _transport(std::move(transport)), _session(*_transport)
{
    HostSession::Handlers handlers;
    handlers.bytesReceived = [this](int port) { _receive(port); };
    handlers.bytesDelivered = [this](int port, std::size_t bytes) { _noteDelivered(port, bytes); };
    _session.setHandlers(std::move(handlers));
    _thread = std::thread([this] { _run(); });
}

DeviceThread::~DeviceThread()
{
    {
        const Lock lock(_mutex);
        _ending = true;
    }
    _changed.notify_all();
    _thread.join();
}

DeviceThread::Outcome DeviceThread::waitConnected(bool connected, Clock::time_point end)
{
    Lock lock(_mutex);
    _changed.wait_until(lock, end, [&] { return _connected == connected || _hopeless; });
    if (_connected == connected)
        return Outcome::Done;
    return _hopeless ? Outcome::Failed : Outcome::TimedOut;
}

bool DeviceThread::isConnected()
{
    const Lock lock(_mutex);
    return _connected;
}

void DeviceThread::openPort(int port)
{
    const Lock lock(_mutex);
    _ports[port].isOpen = true;
}

void DeviceThread::closePort(int port)
{
    const Lock lock(_mutex);
    Port *queues = _findOpen(port);
    if (queues == nullptr)
        return;
    queues->isOpen = queues->isCut = queues->isAnew = false;
    queues->incoming.clear();
    _changed.notify_all();
}

DeviceThread::Outcome DeviceThread::write(int port, std::string_view bytes, Clock::time_point end)
{
    Lock lock(_mutex);
    Port *queues = _findOpen(port);
    if (queues == nullptr || !_connected)
        return queues == nullptr ? Outcome::NotOpen : Outcome::Lost;
    queues->outgoing += bytes;
    queues->queued += bytes.size();
    const std::uint64_t target = queues->queued;
    const std::uint64_t losses = _losses;
    const auto isDelivered = [&] { return _losses == losses && queues->delivered >= target; };
    _changed.wait_until(lock, end,
                        [&] { return isDelivered() || _losses != losses || !queues->isOpen; });
    if (isDelivered())
        return Outcome::Done;
    if (_losses != losses)
        return Outcome::Lost;
    return queues->isOpen ? Outcome::TimedOut : Outcome::NotOpen;
}

DeviceThread::Outcome DeviceThread::read(int port, std::size_t most, Clock::time_point end,
                                         std::string &bytes)
{
    Lock lock(_mutex);
    Port *queues = _findOpen(port);
    if (queues == nullptr || most == 0)
        return queues == nullptr ? Outcome::NotOpen : Outcome::Done;
    std::string &incoming = queues->incoming;
    const auto isLost = [&] { return queues->isAnew || (!_connected && incoming.empty()); };
    _changed.wait_until(lock, end,
                        [&] { return !incoming.empty() || isLost() || !queues->isOpen; });
    if (!queues->isOpen)
        return Outcome::NotOpen;
    if (isLost()) {
        queues->isCut = queues->isAnew = false;
        return Outcome::Lost;
    }
    bytes = incoming.substr(0, most);
    incoming.erase(0, bytes.size());
    _changed.notify_all();
    return bytes.empty() ? Outcome::TimedOut : Outcome::Done;
}

std::string DeviceThread::reason()
{
    const Lock lock(_mutex);
    return _reason;
}

void DeviceThread::_run()
{
    Lock lock(_mutex);
    while (!_ending && !_hopeless) {
        lock.unlock();
        if (_connect())
            _exchange();
        lock.lock();
        _changed.wait_for(lock, retryPause, [this] { return _ending || _hopeless; });
    }
}

bool DeviceThread::_connect()
{
    const TransferResult result = _transport->connect();
    const Lock lock(_mutex);
    _reason = result.text;
    _hopeless =
        result.status == TransferResult::Status::Closed && !result.mayComeLater && _losses == 0;
    const bool isDone = result.status == TransferResult::Status::Done;
    if (isDone)
        _resetPorts();
    _changed.notify_all();
    return isDone;
}

// Nothing of the old link reaches the new one.
void DeviceThread::_resetPorts()
{
    for (auto &[number, port] : _ports)
        port = Port{port.isOpen, port.isCut, port.isCut};
}

void DeviceThread::_exchange()
{
    _session.restart();
    while (_turn() && _noteTurn()) {
    }
    _transport->close();
    _noteLoss();
}

// False when the link is lost or the end is asked for.
bool DeviceThread::_turn()
{
    if (_isHeldBack())
        return _session.listen() != HostSession::StepResult::Closed;
    return _handOver() && _session.step() != HostSession::StepResult::Closed;
}

// Waits for the readers, as the device can be held back as a whole alone.
bool DeviceThread::_isHeldBack()
{
    Lock lock(_mutex);
    return !_changed.wait_for(lock, longestHold, [this] { return _ending || !_isFull(); });
}

// False when the end is asked for.
bool DeviceThread::_handOver()
{
    const Lock lock(_mutex);
    for (auto &[number, port] : _ports) {
        if (!port.outgoing.empty())
            _session.send(number, std::exchange(port.outgoing, {}));
    }
    return !_ending;
}

// False when the device has not answered: it has thrown away what was on its way, so all begins
// anew.
bool DeviceThread::_noteTurn()
{
    const Lock lock(_mutex);
    if (_connected && !_session.isEstablished())
        return false;
    _connected = _session.isEstablished() && _session.isMaxWriteSizeKnown();
    _changed.notify_all();
    return true;
}

void DeviceThread::_noteLoss()
{
    const Lock lock(_mutex);
    for (auto &[number, port] : _ports)
        port.isCut = port.isCut || (_connected && port.isOpen);
    _connected = false;
    _reason = _session.closeReason().empty() ? "the device did not answer" : _session.closeReason();
    ++_losses;
    _changed.notify_all();
}

void DeviceThread::_receive(int port)
{
    const std::string bytes = _session.received(port);
    const Lock lock(_mutex);
    Port *queues = _findOpen(port);
    if (queues != nullptr)
        queues->incoming += bytes;
}

void DeviceThread::_noteDelivered(int port, std::size_t bytes)
{
    const Lock lock(_mutex);
    _ports.at(port).delivered += bytes;
}

bool DeviceThread::_isFull() const
{
    return std::any_of(_ports.begin(), _ports.end(),
                       [](const auto &entry) { return entry.second.incoming.size() >= mostKept; });
}

// Null when it is not open.
DeviceThread::Port *DeviceThread::_findOpen(int port)
{
    const auto entry = _ports.find(port);
    return entry != _ports.end() && entry->second.isOpen ? &entry->second : nullptr;
}

} // namespace usbhalhost
