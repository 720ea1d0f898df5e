// SPDX-License-Identifier: MIT
#include "ReceiveModel.h"

#include "MessageCutter.h"

#include <algorithm>

namespace {

constexpr quint32 mostClients = 5;

} // namespace

bool ReceiveModel::receive(const QByteArray &buffer)
{
    int total = 0;
    bool accepted = false;
    do {
        int consumed = 0;
        const auto rest =
            QByteArray::fromRawData(buffer.constData() + total, buffer.size() - total);
        accepted = receiveOne(rest, consumed);
        total += consumed;
    } while (accepted && total < buffer.size());
    return accepted;
}

bool ReceiveModel::receiveOne(const QByteArray &rest, int &consumed)
{
    const CutMessage message = cutMessage(rest);
    consumed = message.size;
    if (message.kind == CutMessage::Kind::NoData)
        peerBusy = false;
    else if (message.kind == CutMessage::Kind::Wait)
        peerBusy = true;
    else if (message.kind != CutMessage::Kind::Data || !deliver(message.port, message.payload))
        return false;
    markConnected();
    return true;
}

bool ReceiveModel::deliver(int number, const QByteArray &payload)
{
    const auto found = ports.find(number);
    if (found != ports.end() && found->second.hasQueue &&
        found->second.state == SocketState::OPENED) {
        if (found->second.queue.size() + payload.size() > 124000)
            return false;
        store(found->second, payload);
    } else if (payload == "DEVICE_CONN") {
        Port &reopened = ports[number];
        reopened.known = true;
        if (reopened.state == SocketState::DISCONNECTED)
            reopened.state = SocketState::OPENED;
        connected = true;
        reopened.hasQueue = true;
        store(reopened, payload);
    }
    return true;
}

void ReceiveModel::store(Port &port, const QByteArray &payload)
{
    port.queue.append(payload);
    ++announced;
}

void ReceiveModel::markConnected()
{
    if (connected)
        return;
    connected = true;
    for (auto &entry : ports) {
        if (entry.second.state == SocketState::DISCONNECTED)
            entry.second.state = SocketState::OPENED;
    }
}

bool ReceiveModel::open(int port)
{
    if (clients >= mostClients || this->port(port).state == SocketState::OPENED)
        return false;
    Port &opened = ports[port];
    discardQueue(opened);
    opened.known = true;
    opened.hasQueue = true;
    opened.state = SocketState::OPENED;
    ++clients;
    return true;
}

bool ReceiveModel::close(int port)
{
    const Port &before = this->port(port);
    if (!before.hasQueue || before.state == SocketState::CLOSED || clients == 0)
        return false;
    discardQueue(ports[port]);
    ports[port].state = SocketState::CLOSED;
    --clients;
    return true;
}

void ReceiveModel::discardQueue(Port &port)
{
    for (const QByteArray &payload : qAsConst(port.queue)) {
        const int zero = payload.indexOf('\0');
        if (zero >= 0)
            remainder += static_cast<quint32>(payload.size() - zero);
    }
    port.queue.clear();
}

void ReceiveModel::peerDisconnect(int port)
{
    if (this->port(port).state == SocketState::OPENED)
        ports[port].state = SocketState::DISCONNECTED;
}

void ReceiveModel::loseLink()
{
    connected = false;
    remainder = 0;
    for (auto &entry : ports) {
        entry.second.queue.clear();
        if (entry.second.state == SocketState::OPENED)
            entry.second.state = SocketState::DISCONNECTED;
    }
}

QByteArray ReceiveModel::read(int port, unsigned int maxSize)
{
    const QByteArray part = peek(port, maxSize);
    if (!isUsable(port) || this->port(port).queue.isEmpty())
        return part;
    QByteArray &head = ports[port].queue.first();
    if (part.size() == head.size())
        ports[port].queue.removeFirst();
    else
        head = head.mid(part.size());
    return part;
}

QByteArray ReceiveModel::peek(int port, unsigned int maxSize) const
{
    if (!isUsable(port) || this->port(port).queue.isEmpty())
        return QByteArray();
    const QByteArray head = this->port(port).queue.first();
    return head.left(static_cast<int>(std::min<quint64>(maxSize, quint64(head.size()))));
}

int ReceiveModel::headSize(int port) const
{
    const Port &found = this->port(port);
    return found.queue.isEmpty() ? 0 : found.queue.first().size();
}

bool ReceiveModel::isUsable(int port) const
{
    return connected && this->port(port).state == SocketState::OPENED;
}

const ReceiveModel::Port &ReceiveModel::port(int number) const
{
    static const Port unknown;
    const auto found = ports.find(number);
    return found == ports.end() ? unknown : found->second;
}

QList<int> ReceiveModel::openPorts() const
{
    QList<int> numbers;
    for (const auto &entry : ports) {
        if (entry.second.state == SocketState::OPENED)
            numbers.append(entry.first);
    }
    return numbers;
}

quint64 ReceiveModel::bytesHeld() const
{
    quint64 sum = 0;
    for (const auto &entry : ports) {
        for (const QByteArray &payload : entry.second.queue)
            sum += static_cast<quint64>(payload.size());
    }
    return sum;
}
