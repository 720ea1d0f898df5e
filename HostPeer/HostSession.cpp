// SPDX-License-Identifier: MIT
#include "HostSession.h"

#include <algorithm>

namespace hostpeer {

namespace {

using Status = TransferResult::Status;

bool isValidPort(int port)
{
    return port >= 0 && port <= maxPort;
}

} // namespace

HostSession::HostSession(MessageTransport &transport, SessionTimeouts timeouts)
    : _transport(transport), _timeouts(timeouts)
{
}

void HostSession::restart()
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

bool HostSession::send(int port, std::string_view bytes)
{
    if (!isValidPort(port))
        return false;
    _ports[port].outgoing.append(bytes);
    return true;
}

bool HostSession::announceReopened(int port)
{
    if (!isValidPort(port))
        return false;
    _ports[port].reopened = true;
    return true;
}

std::size_t HostSession::pendingBytes(int port) const
{
    const auto entry = _ports.find(port);
    return entry == _ports.end() ? 0 : entry->second.outgoing.size();
}

std::string HostSession::received(int port)
{
    const auto entry = _ports.find(port);
    return entry == _ports.end() ? std::string() : entry->second.incoming.takeAll();
}

HostSession::StepResult HostSession::step()
{
    if (_unanswered == 0 || _probeDue) {
        const TransferResult written = _write();
        if (written.status != Status::Done)
            return _closeOrWait(written);
    }
    const TransferResult read = _read();
    if (read.status == Status::Done)
        return StepResult::Exchanged;
    if (read.status == Status::TimedOut)
        _noteSilence();
    return _closeOrWait(read);
}

TransferResult HostSession::_write()
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

TransferResult HostSession::_read()
{
    std::string transfer;
    TransferResult result = _transport.receive(transfer, _timeouts.step);
    if (result.status == Status::Done) {
        _noteAnswer();
        _process(transfer);
    }
    return result;
}

HostSession::StepResult HostSession::_closeOrWait(const TransferResult &result)
{
    if (result.status == Status::TimedOut)
        return StepResult::Silent;
    _closeReason = result.text;
    _established = false;
    return StepResult::Closed;
}

// The device drops data until it has accepted a first message, so nothing but "no data" goes out
// before its first answer.
HostSession::Transfer HostSession::_nextTransfer() const
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
std::vector<int> HostSession::_portsInTurn() const
{
    std::vector<int> ports;
    ports.reserve(_ports.size());
    for (const auto &entry : _ports)
        ports.push_back(entry.first);
    const auto next = std::upper_bound(ports.begin(), ports.end(), _lastServed);
    std::rotate(ports.begin(), next, ports.end());
    return ports;
}

void HostSession::_addPort(Transfer &transfer, int port) const
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

void HostSession::_dequeue(const Transfer &transfer)
{
    for (const Portion &portion : transfer.portions) {
        Port &queues = _ports[portion.port];
        if (portion.reopened)
            queues.reopened = false;
        queues.outgoing.removeFront(portion.bytes);
        _lastServed = portion.port;
    }
}

void HostSession::_noteSilence()
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

void HostSession::_noteAnswer()
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

void HostSession::_process(const std::string &transfer)
{
    const ParsedTransfer parsed = parseTransfer(transfer);
    for (const Message &message : parsed.messages)
        std::visit([this](const auto &alternative) { _handle(alternative); }, message);
    if (parsed.fault && _handlers.faultSeen)
        _handlers.faultSeen("byte " + std::to_string(parsed.fault->offset) + " of " +
                            std::to_string(transfer.size()) + ": " + parsed.fault->reason);
}

void HostSession::_handle(const DataMessage &message)
{
    if (message.payload.empty())
        return;
    _ports[message.port].incoming.append(message.payload);
    if (_handlers.bytesReceived)
        _handlers.bytesReceived(message.port);
}

void HostSession::_handle(const NoData &)
{
    _setDelayed(false);
}

void HostSession::_handle(const MaxReadSize &message)
{
    _maxWriteSize = std::min(message.bytes, _transport.maxTransferSize());
    _maxWriteSizeKnown = true;
    _setDelayed(false);
}

void HostSession::_handle(const UnusableReadSize &message)
{
    if (_handlers.faultSeen)
        _handlers.faultSeen("the announced maximum read size " + std::string(message.digits) +
                            " is not used");
    _setDelayed(false);
}

void HostSession::_handle(const DelayRequest &)
{
    _setDelayed(true);
}

void HostSession::_setDelayed(bool delayed)
{
    if (std::exchange(_delayed, delayed) != delayed && _handlers.delayChanged)
        _handlers.delayChanged(delayed);
}

} // namespace hostpeer
