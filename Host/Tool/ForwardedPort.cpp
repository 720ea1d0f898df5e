// SPDX-License-Identifier: MIT
#include "ForwardedPort.h"

#include "Failure.h"

#include <utility>

using usbhalhost::HostSession;

ForwardedPort::ForwardedPort(int number, double linger) : _number(number), _linger(linger) {}

void ForwardedPort::listen(const ForwardAddress &address)
{
    _listener.emplace(address);
}

std::string ForwardedPort::welcome(const std::string &reason)
{
    // In this order, as a client may go and the next come at any time.
    if (!_listener || !_listener->isCalled() || !_takesNextClient())
        return {};
    const auto connection = _listener->accept();
    if (!connection)
        return {};
    auto client = std::make_unique<SocketStream>(*connection);
    const std::string refusal = _client ? _inUse() : reason;
    if (!refusal.empty())
        return "refused " + client->name() + ": " + refusal;
    const std::string user = client->name();
    adopt(std::move(client), user);
    return {};
}

bool ForwardedPort::isFree() const
{
    if (!_takesNextClient())
        return false;
    if (_client)
        throw Failure(exitFailed, _inUse());
    return true;
}

void ForwardedPort::adopt(std::unique_ptr<SocketStream> client, const std::string &user)
{
    _client = std::move(client);
    _user = user;
    _leaving = false;
    _lastMoved = Clock::now();
}

// One that comes while another is about to go, or its bytes are on their way, waits in the queue of
// the socket.
bool ForwardedPort::_takesNextClient() const
{
    return _client ? _leaving || !_client->endComes() : _outbox.isEmpty();
}

std::string ForwardedPort::_inUse() const
{
    return "port " + std::to_string(_number) + " is in use by " + _user;
}

std::string ForwardedPort::tend()
{
    if (!_client)
        return {};
    _client->flush();
    if (!_isDone())
        return {};
    std::string text;
    if (_client->isBroken() && !_client->hasEnded())
        text = _user + " has broken its connection to port " + std::to_string(_number);
    _client.reset();
    return text;
}

// The device does not tell that it has sent its last byte, so a client that has ended its half of
// the connection waits a while for more. A command of this program ends both.
bool ForwardedPort::_isDone() const
{
    if (_client->isBroken())
        return true;
    const bool isQuiet = _client->isFramed() || Clock::now() - _lastMoved >= _linger;
    const bool hasAll = _client->hasEnded() && _outbox.isEmpty() && isQuiet;
    return _client->isEmpty() && (_leaving || hasAll);
}

void ForwardedPort::feed(HostSession &session)
{
    const std::size_t room = _outbox.room(session.maxWriteSize());
    if (!_client || _leaving || _client->hasEnded() || room == 0)
        return;
    const std::string bytes = _client->take(room);
    if (bytes.empty() && !_client->hasEnded())
        return;
    _lastMoved = Clock::now();
    _outbox.add(bytes);
    session.send(_number, bytes);
}

void ForwardedPort::receive(const std::string &bytes)
{
    if (!_client || _leaving)
        return;
    _lastMoved = Clock::now();
    _client->put(bytes);
}

void ForwardedPort::noteDelivered(std::size_t bytes)
{
    _lastMoved = Clock::now();
    _outbox.noteDelivered(bytes);
    if (_client && !_leaving)
        _client->noteDelivered(bytes);
}

std::size_t ForwardedPort::noteLostLink(const HostSession &session, bool hold)
{
    const std::size_t lost = noteSilence(session, hold);
    _leaving = !_holds(hold);
    return _leaving ? lost + _outbox.clear() : lost;
}

// A client that does not hold has to learn of the gap. What the session has not sent still goes to
// the device.
std::size_t ForwardedPort::noteSilence(const HostSession &session, bool hold)
{
    const std::size_t lost = _outbox.takeLoss(session.pendingBytes(_number));
    _leaving = _leaving || (lost > 0 && !_holds(hold));
    return lost;
}

bool ForwardedPort::_holds(bool hold) const
{
    return hold && !(_client && _client->isFramed());
}

bool ForwardedPort::isFull() const
{
    return _client && !_leaving && _client->isFull();
}
