// SPDX-License-Identifier: MIT
#include "Server.h"

#include "DeviceProtocol.h"
#include "PollTimeout.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/uio.h>

namespace simnode {

namespace {

// Together below the usual limit of 1024 descriptors. Control clients may stay without a word, so
// they have a bound of their own that leaves the device its room.
constexpr std::size_t maxDeviceConnections = 600;
constexpr std::size_t maxControlConnections = 200;
constexpr std::size_t maxRefusedHosts = 16;

// The system is out of descriptors or memory: asking again at once would only take its time.
constexpr std::chrono::milliseconds acceptPause{100};

// As a transfer of its own, before the connection ends.
constexpr std::string_view hostRefusal = "another host is connected";

constexpr std::size_t maxPacketSize = 3 * maxTransferSize; // `inject` takes two digits a byte

// A small buffer, so that a host that does not read soon stops the device as the bus would. The
// kernel doubles the value; the largest transfer still fits.
constexpr int hostSendBufferSize = static_cast<int>(maxTransferSize) / 2 + 1024;

constexpr int callEvents = POLLIN | POLLRDHUP;

Node::Time now()
{
    return std::chrono::steady_clock::now();
}

bool hasEnded(short events)
{
    return (events & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
}

bool wouldBlock(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK;
}

} // namespace

bool Server::isOfDevice(Role role)
{
    return role == Role::Device || role == Role::Descriptor;
}

Server::Server(const NodeDirectory &directory, Node &node, ScriptRunner &script)
    : _directory(directory),
      _node(node),
      _script(script),
      _deviceListener((script.run(node, now()), directory.listenOn(deviceSocketName))),
      _controlListener(directory.listenOn(controlSocketName)),
      _hostListener(directory.listenOn(hostSocketName)),
      _buffer(maxPacketSize, '\0')
{
    settle();
}

// Who did something before another did is served before that other, so that a cancelled call is
// gone before the host's next transfer is looked at, and an unplugged host before a new one: what
// is served first has been polled last.
bool Server::serveOnce(int signals)
{
    PollSet polled = pollSet(signals);
    if (poll(polled.entries.data(), polled.entries.size(), waitTime()) < 0) {
        if (errno == EINTR || errno == EAGAIN)
            return false;
        throw std::runtime_error(std::string("cannot wait for events: ") + std::strerror(errno));
    }

    for (std::size_t i = 0; i < polled.devices.size(); ++i)
        serve(polled.devices[i], polled.events(polled.firstDevice() + i));
    serveHost(polled.events(polled.host()));
    if (polled.events(polled.hostListener()) != 0)
        acceptHost();
    for (std::size_t i = 0; i < polled.controls.size(); ++i)
        serve(polled.controls[i], polled.events(PollSet::firstControl + i));
    if (polled.events(PollSet::controlListener) != 0)
        acceptCaller(_controlListener, Role::Control);
    if (polled.events(PollSet::deviceListener) != 0)
        acceptCaller(_deviceListener, Role::Device);
    if (polled.events(PollSet::directory) != 0)
        _directory.checkIsThere();
    _script.run(_node, now());
    settle();
    return polled.events(PollSet::signals) != 0;
}

Server::PollSet Server::pollSet(int signals) const
{
    PollSet set;
    const auto add = [&set](const FileDescriptor &socket, int events) {
        set.entries.push_back({socket.get(), static_cast<short>(events | POLLRDHUP), 0});
    };
    const bool accepts = now() >= _acceptAgain;
    set.entries.push_back({signals, POLLIN, 0});
    set.entries.push_back({_directory.watch(), POLLIN, 0});
    add(_deviceListener, accepts && hasRoomFor(Role::Device) ? POLLIN : 0);
    add(_controlListener, accepts && hasRoomFor(Role::Control) ? POLLIN : 0);
    for (const auto &[id, connection] : _connections) {
        if (!isOfDevice(connection.role)) {
            set.controls.push_back(id);
            add(connection.socket, POLLIN);
        }
    }
    const int fromHost = _node.takesTransfers() ? POLLIN : 0;
    const int toHost = _node.transferForHost(now()) != nullptr ? POLLOUT : 0;
    add(_hostListener, accepts ? POLLIN : 0);
    add(_host, fromHost | toHost);
    for (const auto &[id, connection] : _connections) {
        if (isOfDevice(connection.role)) {
            set.devices.push_back(id);
            // Its own side is shut down for reading, which POLLIN and POLLRDHUP would tell for
            // ever.
            const bool isDescriptor = connection.role == Role::Descriptor;
            set.entries.push_back(
                {connection.socket.get(), short(isDescriptor ? 0 : callEvents), 0});
        }
    }
    return set;
}

int Server::waitTime() const
{
    int time = -1;
    for (const std::optional<Node::Time> &deadline :
         {_node.nextDeadline(), _script.nextDeadline(), acceptDeadline()}) {
        if (deadline)
            time = time < 0 ? pollTimeout(*deadline) : std::min(time, pollTimeout(*deadline));
    }
    return time;
}

std::optional<Node::Time> Server::acceptDeadline() const
{
    return now() < _acceptAgain ? std::optional<Node::Time>(_acceptAgain) : std::nullopt;
}

bool Server::hasRoomFor(Role role) const
{
    const auto count = [this](Role counted) {
        const auto found = _counts.find(counted);
        return found == _counts.end() ? 0 : found->second;
    };
    switch (role) {
    case Role::Control:
        return count(Role::Control) < maxControlConnections;
    case Role::RefusedHost:
        return count(Role::RefusedHost) < maxRefusedHosts;
    case Role::Device:
    case Role::Descriptor:
        break;
    }
    return count(Role::Device) + count(Role::Descriptor) < maxDeviceConnections;
}

// Who cannot be accepted waits in the listener's queue, and is asked for after a pause.
FileDescriptor Server::accept(const FileDescriptor &listener)
{
    FileDescriptor socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.isOpen() && !wouldBlock(errno) && errno != EINTR && errno != ECONNABORTED)
        _acceptAgain = now() + acceptPause;
    return socket;
}

void Server::acceptCaller(const FileDescriptor &listener, Role role)
{
    FileDescriptor socket = accept(listener);
    if (socket.isOpen())
        add(std::move(socket), role);
}

void Server::add(FileDescriptor socket, Role role)
{
    Connection connection;
    connection.socket = std::move(socket);
    connection.role = role;
    _connections.emplace(_nextId++, std::move(connection));
    ++_counts[role];
}

void Server::acceptHost()
{
    FileDescriptor socket = accept(_hostListener);
    if (!socket.isOpen() || !_node.acceptsHost())
        return;
    if (_host.isOpen()) {
        refuseHost(std::move(socket));
        return;
    }
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &hostSendBufferSize, sizeof(int));
    _host = std::move(socket);
    _node.hostArrived();
    settle();
}

// The connection stays until the other end closes it: what that has sent meanwhile would else make
// it miss the text.
void Server::refuseHost(FileDescriptor socket)
{
    if (send(socket.get(), hostRefusal.data(), hostRefusal.size(), MSG_NOSIGNAL) < 0 ||
        !hasRoomFor(Role::RefusedHost))
        return;
    shutdown(socket.get(), SHUT_WR);
    add(std::move(socket), Role::RefusedHost);
}

void Server::serveHost(short events)
{
    if (hasEnded(events))
        dropHost();
    else if ((events & POLLIN) != 0)
        takeTransfer();
    settle();
}

void Server::takeTransfer()
{
    const ssize_t size = recv(_host.get(), _buffer.data(), _buffer.size(), MSG_TRUNC);
    if (size > static_cast<ssize_t>(maxTransferSize)) {
        std::fprintf(stderr, "simnode: the host sent a transfer of %zd bytes; at most %zu fit\n",
                     size, maxTransferSize);
        dropHost();
    } else if (size >= 0) {
        _node.transferFromHost(_buffer.substr(0, static_cast<std::size_t>(size)), now());
    }
}

void Server::serve(ConnectionId id, short events)
{
    const auto found = _connections.find(id);
    if (events == 0 || found == _connections.end())
        return;
    const Role role = found->second.role;
    // A call whose thread is gone has no effect, even if its request was not yet looked at.
    if (role != Role::Control && hasEnded(events)) {
        end(id);
        return;
    }
    const ssize_t size =
        recv(found->second.socket.get(), _buffer.data(), _buffer.size(), MSG_TRUNC);
    if (size < 0 && wouldBlock(errno))
        return;
    if (size <= 0 || size > static_cast<ssize_t>(_buffer.size())) {
        end(id);
        return;
    }
    const std::string_view packet(_buffer.data(), static_cast<std::size_t>(size));
    if (role == Role::Control)
        serveControl(id, packet);
    else if (role == Role::Device)
        serveDevice(id, packet);
    settle();
}

void Server::serveDevice(ConnectionId id, std::string_view packet)
{
    DeviceRequest request;
    if (packet.size() < sizeof(request) || packet.size() > sizeof(request) + maxTransferSize) {
        end(id);
        return;
    }
    std::memcpy(&request, packet.data(), sizeof(request));
    _connections.at(id).handle = request.handle;
    _node.submit(id, request, std::string(packet.substr(sizeof(request))), now());
}

void Server::serveControl(ConnectionId id, std::string_view packet)
{
    const ParsedCommand parsed = parseCommand(packet);
    const std::string answer =
        parsed.command ? _node.execute(*parsed.command, now()) : "error: " + parsed.error;
    settle();
    const ssize_t sent =
        send(_connections.at(id).socket.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    if (sent < 0)
        end(id);
}

void Server::end(ConnectionId id)
{
    const auto found = _connections.find(id);
    if (found->second.role == Role::Device)
        _node.abandon(id);
    else if (found->second.role == Role::Descriptor)
        release(found->second.handle);
    forget(found);
}

void Server::release(std::uint32_t handle)
{
    _node.release(handle);
    _readable.erase(handle);
}

void Server::forget(Connections::iterator connection)
{
    --_counts[connection->second.role];
    _connections.erase(connection);
}

void Server::dropHost()
{
    _host.reset();
    _node.hostLeft();
}

// Brings sockets and node into line after an event: transfers go out before time-outs are looked
// at, so that a write with a time-out of 0 succeeds when the host has room.
void Server::settle()
{
    followCable();
    sendTransfers();
    _node.advance(now());
    sendReplies();
    showWaitingTransfers();
}

// With the cable out the socket's name stays and refuses connections.
void Server::followCable()
{
    if (_host.isOpen() && !_node.hostConnected())
        _host.reset();
    if (!_node.acceptsHost())
        _hostListener.reset();
    else if (!_hostListener.isOpen())
        _hostListener = _directory.listenOn(hostSocketName);
}

void Server::sendTransfers()
{
    while (const std::string *transfer = _node.transferForHost(now())) {
        if (send(_host.get(), transfer->data(), transfer->size(), MSG_NOSIGNAL) >= 0) {
            _node.hostTookTransfer();
        } else {
            if (!wouldBlock(errno))
                dropHost();
            return;
        }
    }
}

void Server::sendReplies()
{
    for (Node::Reply &reply : _node.takeReplies())
        sendReply(std::move(reply));
}

void Server::sendReply(Node::Reply reply)
{
    const auto found = _connections.find(reply.call);
    if (found == _connections.end())
        return;
    const std::uint32_t handle = found->second.handle;
    reply.header.isDrained = _readable.count(handle) != 0 && !_node.isReadable(handle) ? 1 : 0;
    iovec parts[2] = {{&reply.header, sizeof(reply.header)},
                      {reply.data.data(), reply.data.size()}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    if (reply.header.handle != 0)
        becomeDescriptor(found->second);
    const bool isSent = sendmsg(found->second.socket.get(), &message, MSG_NOSIGNAL) >= 0;
    if (isSent && reply.header.isDrained != 0)
        _readable.erase(handle);
    if (!isSent || reply.header.handle == 0)
        end(reply.call);
}

// What a program sends here on its own, around the preload library, is to fail and not to be lost.
void Server::becomeDescriptor(Connection &connection)
{
    --_counts[Role::Device];
    ++_counts[Role::Descriptor];
    connection.role = Role::Descriptor;
    shutdown(connection.socket.get(), SHUT_RD);
}

// An empty packet makes a descriptor readable for poll and its like, until a reply takes it back.
void Server::showWaitingTransfers()
{
    for (const auto &[id, connection] : _connections) {
        const bool isNew = connection.role == Role::Descriptor &&
                           _readable.count(connection.handle) == 0 &&
                           _node.isReadable(connection.handle);
        if (isNew && send(connection.socket.get(), "", 0, MSG_NOSIGNAL) == 0)
            _readable.insert(connection.handle);
    }
}

} // namespace simnode
