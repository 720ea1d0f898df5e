// SPDX-License-Identifier: MIT
#ifndef PORTHUB_H
#define PORTHUB_H

#include "ByteChunks.h"

#include <UsbHalIntf.h>

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QHash>
#include <QMutex>
#include <QVector>
#include <QWaitCondition>

#include <functional>

/** A deadline that many ms ahead; below 0 for ever. */
inline QDeadlineTimer deadlineIn(int msecs)
{
    return msecs < 0 ? QDeadlineTimer(QDeadlineTimer::Forever) : QDeadlineTimer(msecs);
}

/**
 * What one open port shares with the facade's signals, which come in other threads. Its owner makes
 * it and lays it in the hub with open(); all else in it is the hub's, guarded by its mutex.
 */
class PortRecord
{
public:
    /** wake is called in any thread, with the hub's mutex held, at most once before the next
     * look(). */
    PortRecord(int port, std::function<void()> wake) : _port(port), _wake(std::move(wake)) {}

private:
    friend class PortHub;

    const int _port;
    const std::function<void()> _wake;
    bool _awake = false;      // woken, and not yet looked
    bool _opening = false;    // the signals of an open are its own
    bool _closing = false;    // what still arrives is discarded
    bool _backlogged = false; // has left messages in the library
    quint32 _losses = 0;      // counted, so that one that is over is noticed, too
    qint64 _announced = 0;    // messages signalled and not yet taken
    qint64 _taken = 0;        // bytes that the node has taken, not yet told
    qint64 _lost = 0;         // bytes that a loss or a close has removed, not yet told
    qint64 _dropped = 0;      // unread bytes that a restart has left, not yet told
    qint64 _queuedBytes = 0;  // in the library's queue
    int _queuedMessages = 0;  // in the library's queue
};

/**
 * The ports of this process on their way into the facade: one connection to its signals, and a list
 * of what lies in its write queue. Any thread may call it. No function emits a signal of the facade
 * but open(), close() and what they say of themselves.
 */
class PortHub
{
public:
    /** What the owner of a record learns. */
    struct View
    {
        bool isUp;           // link and port, both
        quint32 losses;      // so many so far
        qint64 taken;        // bytes, since the last look
        qint64 lost;         // bytes, since the last look
        qint64 dropped;      // bytes, since the last look
        int libraryMessages; // that wait to be written, of all ports
    };

    /** The one hub, which is never destroyed: signals may come until the process is gone. */
    static PortHub &instance();

    bool setConfiguration(const ParamHal &param);
    ParamHal configuration() const;

    /** Opens the record's port in the library. Returns 0 or an error code of the facade. */
    int open(PortRecord &record);

    /** Closes the record's port in the library and forgets the record. What was lost is in look().
     */
    void close(PortRecord &record);

    View look(PortRecord &record);

    /** Wakes the record's owner, as a signal would. */
    void wake(PortRecord &record);

    /** Waits for a wake of the record's owner, at most msecs ms; below 0 without end. */
    void waitForWake(PortRecord &record, int msecs);

    /**
     * Moves messages of the library into a queue, as far as it stays within maxSize bytes. Does
     * nothing when the port has suffered other losses than the caller knows of. Returns whether
     * messages are left for want of room.
     */
    bool take(PortRecord &record, quint32 losses, qint64 maxSize, ByteChunks &to);

    /**
     * Hands at most one message's bytes to the library. Returns how many it took: none when the
     * port has suffered other losses than the caller knows of, or has enough in the queue already.
     * Less than a whole message waits for more to come, unless it is urgent.
     */
    int hand(PortRecord &record, quint32 losses, const QByteArray &bytes, bool urgent);

    /** Largest payload of one message, bytes; what the defaults give while no device is open. */
    int payloadLimit() const;

private:
    PortHub();
    void _connectSignals();
    int _reserve(PortRecord &record);
    int _openInLibrary(PortRecord &record);
    void _prepareClose(PortRecord &record);

    void _onStateChanged(DriverState state);
    void _onPortConnected(int port);
    void _onPortDisconnected(int port);
    void _onReadyRead(int port);
    void _wakeAll();
    void _wake(PortRecord &record);

    void _followQueue(int messages);
    void _loseQueued(PortRecord &record);
    bool _leavesGap(int messages);
    bool _hasUnread() const;
    bool _mayHand(const PortRecord &record, int size, bool urgent);
    void _setBacklogged(PortRecord &record, bool backlogged);
    qint64 _discardUnread(PortRecord &record);
    bool _isUp(const PortRecord &record) const;
    void _revive(PortRecord &record);

    // One of our messages in the library's queue.
    struct Queued
    {
        PortRecord *record;
        int bytes;
    };

    UsbHALIntf *const _hal;
    mutable QMutex
        _mutex; // taken before the library's own locks, which are never held around signals
    QWaitCondition _woken;
    QHash<int, PortRecord *> _records;
    QVector<Queued> _queue;
    ParamHal _param;
    bool _configured = false;
    bool _announced = false; // the link's being up, by a signal
    int _payloadLimit = 0;
    int _backlogs = 0;
    int _gap;             // the next one, after those since unread messages came or went
    QElapsedTimer _busy;  // since the last gap for the delay request
    QElapsedTimer _empty; // since the queue was seen empty in a gap
};

#endif
