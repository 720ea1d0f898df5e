// SPDX-License-Identifier: MIT
#ifndef LINKMODEL_H
#define LINKMODEL_H

#include <AbstractDriver.h>
#include <ReceiveModel.h>

#include <QList>

/**
 * What the device does with one driver, worked out a second time: the receive path's model, and
 * around it the write queue, the cycle of reads and writes and the loss of the link.
 */
class LinkModel
{
public:
    explicit LinkModel(const AbstractDriver &driver) : _driver(driver) {}

    /** The payload bytes that are queued. */
    int write(int port, const QByteArray &data);
    bool close(int port);
    void peerDisconnect(int port);

    /** The driver was opened. */
    void beginWithDriver() { _encodedSize = 0; }
    /** What the device writes now. */
    QByteArray nextWrite();
    /** The read half is over; an empty block stands for a failure. */
    void endRead(const QByteArray &block);
    void endWrite(bool done);

    int queuedMessages() const { return _fifo.size(); }
    bool readsNext() const { return _readsNext; }
    quint32 bytesWaiting() const;

    ReceiveModel ports;

private:
    struct Queued
    {
        quint64 number;
        int port;
        QByteArray message;
    };

    bool _mustDelay();
    void _clearFifoFor(int port);
    void _checkLink();

    const AbstractDriver &_driver;
    QList<Queued> _fifo;
    quint64 _lastNumber = 0;
    quint64 _inFlight = 0; // number of the queued message that is being written, 0: none
    bool _readsNext = true;
    bool _handshaking = true;
    bool _forcedLoss = false;
    bool _delayRequested = false;
    quint32 _readErrors = 0;
    quint32 _writeErrors = 0;
    quint32 _encodedSize = 0;
    QByteArray _noData = "DEVICE_NODATA";
};

#endif
