// SPDX-License-Identifier: MIT
#include "TrafficLedger.h"

#include <WireMessages.h>

#include <QMutexLocker>

namespace {

QByteArray digits(int value, int width)
{
    return QByteArray::number(value).rightJustified(width, '0');
}

} // namespace

QByteArray Record::bytes() const
{
    return direction + digits(port, 4) + digits(connection, 6) + digits(number, 8) +
           digits(size, 5) + patternBytes(size - headerSize, number + port);
}

void TrafficLedger::clear()
{
    const QMutexLocker locker(&_mutex);
    _toHost.clear();
    _order.clear();
    _toDevice.clear();
    _atHost.clear();
    _atDevice.clear();
    _arrived = 0;
    _missingAtDevice = 0;
    _holesAtDevice = 0;
    _faults.clear();
}

void TrafficLedger::beginEpoch()
{
    const QMutexLocker locker(&_mutex);
    ++_epoch;
}

int TrafficLedger::epoch() const
{
    const QMutexLocker locker(&_mutex);
    return _epoch;
}

void TrafficLedger::dropUnsent(int messages)
{
    const QMutexLocker locker(&_mutex);
    for (int i = qMax(0, _order.size() - messages); i < _order.size(); ++i)
        _toHost[_order.at(i).first][_order.at(i).second].dropped = true;
}

QByteArray TrafficLedger::nextToDevice(int port, int connection, int size)
{
    const QMutexLocker locker(&_mutex);
    QList<int> &sizes = _toDevice[port];
    sizes.append(size);
    return Record{Record::ToDevice, port, connection, sizes.size() - 1, size}.bytes();
}

// Whether the bytes are the record that their own header tells, at its port and not before its
// turn.
bool TrafficLedger::arrive(Place &place, const QByteArray &bytes, Record expected,
                           const char *where)
{
    expected.connection = bytes.mid(5, 6).toInt();
    expected.number = bytes.mid(11, 8).toInt();
    expected.size = bytes.size();
    const QString what = QStringLiteral("port %1 %2: record %3 of connection %4")
                             .arg(expected.port)
                             .arg(where)
                             .arg(expected.number)
                             .arg(expected.connection);
    if (bytes.size() < Record::headerSize || expected.bytes() != bytes) {
        _faults.append(what + " is damaged or not this port's: " + bytes.left(40).toHex());
        return false;
    }
    if (expected.number < place.next) {
        _faults.append(what + " came twice or late");
        return false;
    }
    ++_arrived;
    return true;
}

void TrafficLedger::receivedByHost(int port, const QByteArray &bytes, int connection)
{
    const QMutexLocker locker(&_mutex);
    Place &place = _atHost[port];
    if (!arrive(place, bytes, {Record::ToHost, port}, "at the host"))
        return;
    const int number = bytes.mid(11, 8).toInt();
    const Sent sent = _toHost.value(port).value(number);
    const bool sameConnection =
        place.next > 0 && connection == place.connection && sent.lastEpoch == place.epoch;
    const QString what = QStringLiteral("port %1 at the host: record %2").arg(port).arg(number);
    if (number >= _toHost.value(port).size())
        _faults.append(what + " was never sent");
    if (sent.dropped)
        _faults.append(what + " is of a connection that was lost");
    if (number > place.next && sameConnection)
        _faults.append(what + QStringLiteral(" came, but %1 never").arg(place.next));
    place = {number + 1, sent.firstEpoch, connection};
}

void TrafficLedger::receivedByDevice(int port, const QByteArray &bytes, int firstEpoch)
{
    const QMutexLocker locker(&_mutex);
    Place &place = _atDevice[port];
    if (!arrive(place, bytes, {Record::ToDevice, port}, "at the device"))
        return;
    const int connection = bytes.mid(5, 6).toInt();
    const int number = bytes.mid(11, 8).toInt();
    if (number >= _toDevice.value(port).size())
        _faults.append(QStringLiteral("port %1 at the device: record %2 was never sent")
                           .arg(port)
                           .arg(number));
    const bool sameConnection =
        place.next > 0 && connection == place.connection && _epoch == place.epoch;
    if (number > place.next && sameConnection) {
        _missingAtDevice += number - place.next;
        ++_holesAtDevice;
    }
    place = {number + 1, firstEpoch, connection};
}

int TrafficLedger::sentToHost(int port) const
{
    const QMutexLocker locker(&_mutex);
    return _toHost.value(port).size();
}

int TrafficLedger::sentToDevice(int port) const
{
    const QMutexLocker locker(&_mutex);
    return _toDevice.value(port).size();
}

int TrafficLedger::hostNext(int port) const
{
    const QMutexLocker locker(&_mutex);
    return _atHost.value(port).next;
}

int TrafficLedger::deviceNext(int port) const
{
    const QMutexLocker locker(&_mutex);
    return _atDevice.value(port).next;
}

int TrafficLedger::recordsArrived() const
{
    const QMutexLocker locker(&_mutex);
    return _arrived;
}

int TrafficLedger::missingAtDevice() const
{
    const QMutexLocker locker(&_mutex);
    return _missingAtDevice;
}

int TrafficLedger::holesAtDevice() const
{
    const QMutexLocker locker(&_mutex);
    return _holesAtDevice;
}

QStringList TrafficLedger::faults() const
{
    const QMutexLocker locker(&_mutex);
    return _faults;
}
