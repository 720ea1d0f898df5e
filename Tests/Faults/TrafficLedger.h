// SPDX-License-Identifier: MIT
#ifndef TRAFFICLEDGER_H
#define TRAFFICLEDGER_H

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QStringList>

/** A numbered payload; its bytes follow from the other fields. */
struct Record
{
    enum Direction : char { ToHost = 'D', ToDevice = 'H' };

    static constexpr int headerSize = 24;
    static constexpr int smallSize = 64;

    Direction direction = ToHost;
    int port = 0;
    int connection = 0; ///< the host's, for a record to the device
    int number = 0;     ///< counted for each port and direction
    int size = smallSize;

    QByteArray bytes() const;
};

/**
 * What was sent and received, judged record by record: nothing comes twice, out of order, damaged
 * or at another port, and nothing is missing but where a connection ended between two records.
 * A connection is the host's with the node, and the device's as its signals tell. Any thread.
 */
class TrafficLedger
{
public:
    /** Forgets all. */
    void clear();

    /** The link or a port changed its state: another epoch begins. */
    void beginEpoch();
    int epoch() const;
    /** The link was lost with that many messages in the write queue: they must never arrive. */
    void dropUnsent(int messages);

    /** Offers the next record of a port to a function that returns whether it was taken. */
    template <typename Write>
    bool sendToHost(int port, Write write)
    {
        const QMutexLocker locker(&_mutex);
        Sent sent;
        sent.record = {Record::ToHost, port, 0, _toHost[port].size()};
        sent.firstEpoch = _epoch;
        if (!write(sent.record.bytes()))
            return false;
        sent.lastEpoch = _epoch;
        _toHost[port].append(sent);
        _order.append({port, sent.record.number});
        return true;
    }
    /** The bytes of the next record to the device. */
    QByteArray nextToDevice(int port, int connection, int size);

    void receivedByHost(int port, const QByteArray &bytes, int connection);
    /** The epoch is the one before the bytes were read. */
    void receivedByDevice(int port, const QByteArray &bytes, int firstEpoch);

    int sentToHost(int port) const;
    int sentToDevice(int port) const;
    /** Number behind the last record that arrived. */
    int hostNext(int port) const;
    int deviceNext(int port) const;
    int recordsArrived() const;

    /** Records to the device that are missing though no connection ended before them. */
    int missingAtDevice() const;
    /** Places at which they are missing. */
    int holesAtDevice() const;
    QStringList faults() const;

private:
    struct Sent
    {
        Record record;
        int firstEpoch = 0; // when it was offered
        int lastEpoch = 0;  // when it was taken
        bool dropped = false;
    };

    struct Place
    {
        int next = 0; // number expected next
        int epoch = 0;
        int connection = 0;
    };

    bool arrive(Place &place, const QByteArray &bytes, Record expected, const char *where);

    mutable QMutex _mutex;
    int _epoch = 0;
    QHash<int, QList<Sent>> _toHost;
    QList<QPair<int, int>> _order;    // port and number of each record in _toHost, as taken
    QHash<int, QList<int>> _toDevice; // sizes
    QHash<int, Place> _atHost;
    QHash<int, Place> _atDevice;
    int _arrived = 0;
    int _missingAtDevice = 0;
    int _holesAtDevice = 0;
    QStringList _faults;
};

#endif
