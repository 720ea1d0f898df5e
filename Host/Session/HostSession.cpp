// SPDX-License-Identifier: MIT
#include "HostSession.h"

#include "ByteQueue.h"

#include <algorithm>
#include <map>
#include <utility>
#include <variant>
#include <vector>

namespace usbhalhost {

namespace {

using Status = TransferResult::Status;

bool isValidPort(int port)
{
    return port >= 0 && port <= maxPort;
}

} // namespace

/** The session itself; apart from its interface, so that the interface can stay as it is. */
struct HostSession::Private
{
    Private(MessageTransport &transport, SessionTimeouts timeouts)
        : _transport(transport), _timeouts(timeouts)
    {
    }

    struct Port
    {
        ByteQueue outgoing;
        ByteQueue incoming;
        bool reopened = false;
    };

    // Payload bytes of one port in a transfer. An announcement is no payload of its port.
    struct Portion
    {
        int port;
        std::size_t bytes;
        bool reopened;
    };

    struct Transfer
    {
        std::string bytes;
        std::vector<Portion> portions;
    };

    void restart();
    StepResult step();
    StepResult listen();
    TransferResult _write();
    TransferResult _read(std::chrono::milliseconds timeout);
    StepResult _closeOrWait(const TransferResult &result);

    Transfer _nextTransfer() const;
    std::vector<int> _portsInTurn() const;
    void _addPort(Transfer &transfer, int port) const;
    void _dequeue(const Transfer &transfer);

    void _noteSilence();
    void _noteAnswer();
    void _process(const std::string &transfer);
    void _handle(const DataMessage &message);
    void _handle(const NoData &message);
    void _handle(const MaxReadSize &message);
    void _handle(const UnusableReadSize &message);
    void _handle(const DelayRequest &message);
    void _setDelayed(bool delayed);

    MessageTransport &_transport;
    const SessionTimeouts _timeouts;
    Handlers _handlers;
    std::map<int, Port> _ports;
    std::vector<Portion> _awaitingAnswer;
    std::string _closeReason;
    std::size_t _maxWriteSize = cautiousMaxWriteSize;
    unsigned _unanswered = 0;
    unsigned _silentSteps = 0;
    int _lastServed = -1;
    bool _maxWriteSizeKnown = false;
    bool _established = false;
    bool _answeredSinceWrite = false;
    bool _probeDue = false;
    bool _delayed = false;
};

HostSession::HostSession(MessageTransport &transport, SessionTimeouts timeouts)
    : _private(std::make_unique<Private>(transport, timeouts))
{
}

HostSession::~HostSession() = default;

void HostSession::setHandlers(Handlers handlers)
{
    _private->_handlers = std::move(handlers);
}

void HostSession::restart()
{
    _private->restart();
}

bool HostSession::send(int port, std::string_view bytes)
{
    if (!isValidPort(port))
        return false;
    _private->_ports[port].outgoing.append(bytes);
    return true;
}

bool HostSession::announceReopened(int port)
{
    if (!isValidPort(port))
        return false;
    _private->_ports[port].reopened = true;
    return true;
}

std::size_t HostSession::pendingBytes(int port) const
{
    const auto entry = _private->_ports.find(port);
    return entry == _private->_ports.end() ? 0 : entry->second.outgoing.size();
}

std::string HostSession::received(int port)
{
    const auto entry = _private->_ports.find(port);
    return entry == _private->_ports.end() ? std::string() : entry->second.incoming.takeAll();
}

HostSession::StepResult HostSession::step()
{
    return _private->step();
}

HostSession::StepResult HostSession::listen()
{
    return _private->listen();
}

bool HostSession::isEstablished() const
{
    return _private->_established;
}

bool HostSession::isDelayed() const
{
    return _private->_delayed;
}

bool HostSession::isMaxWriteSizeKnown() const
{
    return _private->_maxWriteSizeKnown;
}

std::size_t HostSession::maxWriteSize() const
{
    return _private->_maxWriteSize;
}

const std::string &HostSession::closeReason() const
{
    return _private->_closeReason;
}

void HostSession::Private::restart()
{
    _ports.clear();
    _awaitingAnswer.clear();
    _closeReason.clear();
    _maxWriteSize = cautiousMaxWriteSize;
    _maxWriteSizeKnown = false;
    _unanswered = 0;
    _silentSteps = 0;
    _lastServed = -1;
    _established = false;
    _answeredSinceWrite = false;
    _probeDue = false;
    _delayed = false;
}

HostSession::StepResult HostSession::Private::step()
{
    if (_unanswered == 0 || _probeDue) {
        const TransferResult written = _write();
        if (written.status != Status::Done)
            return _closeOrWait(written);
    }
    const TransferResult read = _read(_timeouts.step);
    if (read.status == Status::Done)
        return StepResult::Exchanged;
    if (read.status == Status::TimedOut)
        _noteSilence();
    return _closeOrWait(read);
}

HostSession::StepResult HostSession::Private::listen()
{
    const TransferResult read = _read(std::chrono::milliseconds(0));
    return read.status == Status::Done ? StepResult::Exchanged : _closeOrWait(read);
}

TransferResult HostSession::Private::_write()
{
    const Transfer transfer = _nextTransfer();
    TransferResult result = _transport.send(transfer.bytes, _timeouts.step);
    if (result.status != Status::Done)
        return result;
    _dequeue(transfer);
    _awaitingAnswer = transfer.portions;
    ++_unanswered;
    _answeredSinceWrite = false;
    _probeDue = false;
    return result;
}

TransferResult HostSession::Private::_read(std::chrono::milliseconds timeout)
{
    std::string transfer;
    TransferResult result = _transport.receive(transfer, timeout);
    if (result.status == Status::Done) {
        _noteAnswer();
        _process(transfer);
    }
    return result;
}

HostSession::StepResult HostSession::Private::_closeOrWait(const TransferResult &result)
{
    if (result.status == Status::TimedOut)
        return StepResult::Silent;
    _closeReason = result.text;
    _established = false;
    return StepResult::Closed;
}

// The device drops data until it has accepted a first message, so nothing but "no data" goes out
// before its first answer.
HostSession::Private::Transfer HostSession::Private::_nextTransfer() const
{
    Transfer transfer;
    if (_established && !_delayed) {
        for (const int port : _portsInTurn())
            _addPort(transfer, port);
    }
    if (transfer.bytes.empty())
        transfer.bytes = noDataTag;
    return transfer;
}

// All known ports, those behind the port that was served last first.
std::vector<int> HostSession::Private::_portsInTurn() const
{
    std::vector<int> ports;
    ports.reserve(_ports.size());
    for (const auto &entry : _ports)
        ports.push_back(entry.first);
    const auto next = std::upper_bound(ports.begin(), ports.end(), _lastServed);
    std::rotate(ports.begin(), next, ports.end());
    return ports;
}

void HostSession::Private::_addPort(Transfer &transfer, int port) const
{
    const Port &queues = _ports.at(port);
    const auto room = [&] {
        const std::size_t used = transfer.bytes.size() + headerSize;
        return _maxWriteSize > used ? _maxWriteSize - used : 0;
    };
    if (queues.reopened) {
        if (room() < reopenedPayload.size())
            return;
        appendDataMessage(transfer.bytes, port, reopenedPayload);
        transfer.portions.push_back({port, 0, true});
    }
    const std::string_view payload = queues.outgoing.front(std::min(room(), maxPayload));
    if (payload.empty())
        return;
    appendDataMessage(transfer.bytes, port, payload);
    transfer.portions.push_back({port, payload.size(), false});
}

void HostSession::Private::_dequeue(const Transfer &transfer)
{
    for (const Portion &portion : transfer.portions) {
        Port &queues = _ports[portion.port];
        if (portion.reopened)
            queues.reopened = false;
        queues.outgoing.removeFront(portion.bytes);
        _lastServed = portion.port;
    }
}

void HostSession::Private::_noteSilence()
{
    ++_silentSteps;
    if (_answeredSinceWrite) {
        // The device answers again, so the answer that is still missing belonged to a transfer that
        // it threw away, as it does with everything that waits when it opens its node.
        _unanswered = 0;
        _silentSteps = 0;
    } else if (_silentSteps >= _timeouts.silentSteps) {
        _silentSteps = 0;
        _probeDue = true;
        _established = false;
        _awaitingAnswer.clear();
        if (_handlers.faultSeen)
            _handlers.faultSeen("the device did not answer, asking again");
    }
}

void HostSession::Private::_noteAnswer()
{
    if (_unanswered > 0)
        --_unanswered;
    _silentSteps = 0;
    _answeredSinceWrite = true;
    _probeDue = false;
    _established = true;
    const std::vector<Portion> portions = std::exchange(_awaitingAnswer, {});
    for (const Portion &portion : portions) {
        if (portion.bytes > 0 && _handlers.bytesDelivered)
            _handlers.bytesDelivered(portion.port, portion.bytes);
    }
}

void HostSession::Private::_process(const std::string &transfer)
{
    const ParsedTransfer parsed = parseTransfer(transfer);
    for (const Message &message : parsed.messages)
        std::visit([this](const auto &alternative) { _handle(alternative); }, message);
    if (parsed.fault && _handlers.faultSeen)
        _handlers.faultSeen("byte " + std::to_string(parsed.fault->offset) + " of " +
                            std::to_string(transfer.size()) + ": " + parsed.fault->reason);
}

void HostSession::Private::_handle(const DataMessage &message)
{
    if (message.payload.empty())
        return;
    _ports[message.port].incoming.append(message.payload);
    if (_handlers.bytesReceived)
        _handlers.bytesReceived(message.port);
}

void HostSession::Private::_handle(const NoData &)
{
    _setDelayed(false);
}

void HostSession::Private::_handle(const MaxReadSize &message)
{
    _maxWriteSize = std::min(message.bytes, _transport.maxTransferSize());
    _maxWriteSizeKnown = true;
    _setDelayed(false);
}

void HostSession::Private::_handle(const UnusableReadSize &message)
{
    if (_handlers.faultSeen)
        _handlers.faultSeen("the announced maximum read size " + std::string(message.digits) +
                            " is not used");
    _setDelayed(false);
}

void HostSession::Private::_handle(const DelayRequest &)
{
    _setDelayed(true);
}

void HostSession::Private::_setDelayed(bool delayed)
{
    if (std::exchange(_delayed, delayed) != delayed && _handlers.delayChanged)
        _handlers.delayChanged(delayed);
}

} // namespace usbhalhost
