// SPDX-License-Identifier: MIT
#include "HostEnd.h"

#include <chrono>

using namespace usbhalhost;
using namespace std::chrono_literals;

namespace {

// Short, so that a step does not keep the callers waiting, and so that a device that discards what
// came while it opened its node is soon asked again.
constexpr SessionTimeouts timeouts{20ms, 15};

} // namespace

HostEnd::HostEnd(const std::string &nodeFolder)
    : _transport(nodeFolder + "/host"), _session(_transport, timeouts)
{
    HostSession::Handlers handlers;
    handlers.bytesReceived = [this](int port) {
        const std::string bytes = _session.received(port);
        _received[port].append(bytes.data(), static_cast<int>(bytes.size()));
    };
    _session.setHandlers(handlers);
    _thread = std::thread([this] { run(); });
}

HostEnd::~HostEnd()
{
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _ending = true;
    }
    _thread.join();
}

void HostEnd::plugIn()
{
    const std::lock_guard<std::mutex> lock(_mutex);
    _plugged = true;
}

void HostEnd::unplug()
{
    const std::lock_guard<std::mutex> lock(_mutex);
    _plugged = false;
    _transport.close();
    // What was queued belongs to the connection that is gone.
    _session.restart();
}

bool HostEnd::pause(int msecs)
{
    std::unique_lock<std::mutex> lock(_mutex);
    _pauseRequested = true;
    return _changed.wait_for(lock, std::chrono::milliseconds(msecs), [this] { return _paused; });
}

void HostEnd::resume()
{
    const std::lock_guard<std::mutex> lock(_mutex);
    _pauseRequested = false;
    _paused = false;
}

void HostEnd::send(int port, const QByteArray &bytes)
{
    const std::lock_guard<std::mutex> lock(_mutex);
    _session.send(port, {bytes.constData(), static_cast<std::size_t>(bytes.size())});
}

void HostEnd::announceReopened(int port)
{
    const std::lock_guard<std::mutex> lock(_mutex);
    _session.announceReopened(port);
}

QByteArray HostEnd::received(int port) const
{
    const std::lock_guard<std::mutex> lock(_mutex);
    const QByteArray bytes = _received.value(port);
    return QByteArray(bytes.constData(), bytes.size()); // shares nothing with the other thread
}

bool HostEnd::waitForReceived(int port, const QByteArray &bytes, int msecs) const
{
    std::unique_lock<std::mutex> lock(_mutex);
    return _changed.wait_for(lock, std::chrono::milliseconds(msecs),
                             [&] { return _received.value(port) == bytes; });
}

bool HostEnd::isEstablished() const
{
    const std::lock_guard<std::mutex> lock(_mutex);
    return _session.isEstablished();
}

bool HostEnd::isDelayed() const
{
    const std::lock_guard<std::mutex> lock(_mutex);
    return _session.isDelayed();
}

void HostEnd::run()
{
    for (;;) {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            if (_ending)
                return;
            if (_plugged && !_paused)
                exchange();
        }
        // Gives the callers a chance to take the mutex.
        std::this_thread::sleep_for(1ms);
    }
}

void HostEnd::exchange()
{
    if (!_transport.isConnected()) {
        if (_transport.connect().status != TransferResult::Status::Done)
            return;
        _session.restart();
    }
    const HostSession::StepResult result = _session.step();
    if (result == HostSession::StepResult::Closed)
        _transport.close();
    _paused = _pauseRequested && result == HostSession::StepResult::Exchanged;
    _changed.notify_all();
}
