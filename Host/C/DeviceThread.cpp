// SPDX-License-Identifier: MIT
#include "DeviceThread.h"

#include <algorithm>
#include <utility>

namespace usbhalhost {

namespace {

using namespace std::chrono_literals;

constexpr auto retryPause = 100ms;
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
    _ports.try_emplace(port);
}

DeviceThread::Outcome DeviceThread::write(int port, std::string_view bytes, Clock::time_point end)
{
    Lock lock(_mutex);
    if (!_connected)
        return Outcome::Lost;
    Port &queues = _ports[port];
    queues.outgoing += bytes;
    queues.queued += bytes.size();
    const std::uint64_t target = queues.queued;
    const std::uint64_t losses = _losses;
    _changed.wait_until(lock, end, [&] { return queues.delivered >= target || _losses != losses; });
    if (_losses != losses)
        return Outcome::Lost;
    return queues.delivered >= target ? Outcome::Done : Outcome::TimedOut;
}

DeviceThread::Outcome DeviceThread::read(int port, std::size_t most, Clock::time_point end,
                                         std::string &bytes)
{
    Lock lock(_mutex);
    std::string &incoming = _ports[port].incoming;
    _changed.wait_until(lock, end, [&] { return !incoming.empty() || !_connected; });
    bytes = incoming.substr(0, most);
    incoming.erase(0, bytes.size());
    _changed.notify_all();
    if (!bytes.empty())
        return Outcome::Done;
    return _connected ? Outcome::TimedOut : Outcome::Lost;
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
    for (auto &[number, port] : _ports)
        port = Port(); // nothing of the old link reaches the new one
    _changed.notify_all();
    return result.status == TransferResult::Status::Done;
}

void DeviceThread::_exchange()
{
    _session.restart();
    while (_handOver() && _session.step() != HostSession::StepResult::Closed && _noteTurn()) {
    }
    _transport->close();
    _noteLoss();
}

// False when the end is asked for.
bool DeviceThread::_handOver()
{
    Lock lock(_mutex);
    // The device can be held back as a whole alone.
    _changed.wait(lock, [this] { return _ending || !_isFull(); });
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
    const bool fellSilent = _connected && !_session.isEstablished();
    _connected = _session.isEstablished() && _session.isMaxWriteSizeKnown();
    _changed.notify_all();
    return !fellSilent;
}

void DeviceThread::_noteLoss()
{
    const Lock lock(_mutex);
    _connected = false;
    _reason = _session.closeReason().empty() ? "the device did not answer" : _session.closeReason();
    ++_losses;
    _changed.notify_all();
}

void DeviceThread::_receive(int port)
{
    const std::string bytes = _session.received(port);
    const Lock lock(_mutex);
    const auto entry = _ports.find(port);
    if (entry != _ports.end())
        entry->second.incoming += bytes;
}

void DeviceThread::_noteDelivered(int port, std::size_t bytes)
{
    const Lock lock(_mutex);
    _ports[port].delivered += bytes;
}

bool DeviceThread::_isFull() const
{
    return std::any_of(_ports.begin(), _ports.end(),
                       [](const auto &entry) { return entry.second.incoming.size() >= mostKept; });
}

} // namespace usbhalhost
