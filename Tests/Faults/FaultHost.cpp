// SPDX-License-Identifier: MIT
#include "FaultHost.h"

#include <chrono>

using namespace usbhalhost;
using namespace std::chrono_literals;

namespace {

constexpr SessionTimeouts timeouts{5ms, 10};

} // namespace

FaultHost::FaultHost(const std::string &nodeFolder, const QList<int> &ports, TrafficLedger &ledger)
    : _ports(ports),
      _ledger(ledger),
      _transport(nodeFolder + "/host"),
      _session(_transport, timeouts)
{
    HostSession::Handlers handlers;
    handlers.bytesReceived = [this](int port) { take(port); };
    _session.setHandlers(handlers);
    _thread = std::thread([this] { run(); });
}

FaultHost::~FaultHost()
{
    _ending = true;
    _thread.join();
}

void FaultHost::run()
{
    while (!_ending) {
        if (_plugged)
            exchange();
        else
            _transport.close();
        _connected = _transport.isConnected();
        std::this_thread::sleep_for(1ms);
    }
}

void FaultHost::exchange()
{
    if (!_transport.isConnected()) {
        if (_transport.connect().status != TransferResult::Status::Done)
            return;
        _session.restart();
        ++_connection;
    }
    queueRecords();
    const auto result = _session.step();
    _knowsReadSize = _session.isMaxWriteSizeKnown();
    if (result == HostSession::StepResult::Closed)
        _transport.close();
}

// One at a time and never more than a transfer carries, so that a record is one message. Large ones
// are asked for once the device has announced how much it takes.
void FaultHost::queueRecords()
{
    bool sentAll = true;
    for (const int port : _ports) {
        const int size = _sizes[port];
        if (size > 0 && _session.isEstablished() && _session.pendingBytes(port) == 0) {
            const QByteArray bytes = _ledger.nextToDevice(port, _connection, size);
            _session.send(port, {bytes.constData(), static_cast<std::size_t>(bytes.size())});
        }
        sentAll = sentAll && _session.pendingBytes(port) == 0;
    }
    _sentAll = sentAll;
}

void FaultHost::take(int port)
{
    const std::string bytes = _session.received(port);
    _ledger.receivedByHost(port, QByteArray::fromStdString(bytes), _connection);
}
