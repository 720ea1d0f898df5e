// SPDX-License-Identifier: MIT
#include "Traffic.h"

#include <algorithm>

namespace {

constexpr int portBits = 3;
constexpr int portMask = (1 << portBits) - 1;

} // namespace

QByteArray Traffic::makeBytes(int port, int size, QRandomGenerator &random)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = static_cast<char>((random.generate() << portBits) | static_cast<quint32>(port));
    return bytes;
}

void Traffic::noteReceived(int port, const QByteArray &bytes)
{
    for (const char byte : bytes) {
        if ((byte & portMask) != port)
            fail(port, QString("got a byte of port %1").arg(byte & portMask));
    }
    _ports[port].received += bytes;
}

qint64 Traffic::receivedBytes() const
{
    qint64 sum = 0;
    for (const Streams &streams : _ports)
        sum += streams.received.size();
    return sum;
}

void Traffic::clear()
{
    _ports.clear();
    _forgotten.clear();
}

bool Traffic::isComplete(int port) const
{
    if (_forgotten.contains(port))
        return true;
    const Streams streams = _ports.value(port);
    return streams.received.size() >= streams.sent.size();
}

bool Traffic::isComplete() const
{
    const QList<int> ports = _ports.keys();
    return std::all_of(ports.begin(), ports.end(), [this](int port) { return isComplete(port); });
}

void Traffic::expectPrefix(int port) const
{
    if (_forgotten.contains(port))
        return;
    const Streams streams = _ports.value(port);
    if (!streams.sent.startsWith(streams.received))
        fail(port, QString("got other bytes than those sent, within the first %1 of %2")
                       .arg(streams.received.size())
                       .arg(streams.sent.size()));
}

void Traffic::expectComplete(int port) const
{
    expectPrefix(port);
    const Streams streams = _ports.value(port);
    if (!isComplete(port))
        fail(port,
             QString("got %1 bytes of %2").arg(streams.received.size()).arg(streams.sent.size()));
}

void Traffic::fail(int port, const QString &text) const
{
    throw SoakFailure(QString("port %1, %2: %3").arg(port).arg(_way, text));
}
