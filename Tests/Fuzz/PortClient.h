// SPDX-License-Identifier: MIT
#ifndef PORTCLIENT_H
#define PORTCLIENT_H

#include "FuzzTarget.h"

#include <UsbHalPort.h>

#include <QByteArray>

/**
 * One port, what an input does with it, and what a byte stream promises of it: while the link
 * stands nothing is lost, doubled or out of order; over a loss every byte written is told as
 * written or as lost, and none of the old link is read on the new one.
 */
class PortClient
{
public:
    explicit PortClient(int number);

    int number() const { return _port.portNumber(); }

    /** One operation that the input names. */
    void act(FuzzInput &input);
    /** Opens the port when it is not, and writes so many bytes. */
    void writeOn(int size);
    /** Delivers what is posted, and lets the port's timer fire when it runs. */
    void follow();
    /** Reads all, whatever was asked for before. */
    void readOn();
    /** Whether nothing is under way; always so for a port that is closed or does not come back. */
    bool isSettled() const;
    /** Ends the process unless what the port tells fits. */
    void check() const;

    // ---- what the library and the host do

    /** The library has the message for the port. */
    void arrive(const QByteArray &payload);
    /** The next bytes that the host has for the port. */
    QByteArray nextSent(int size);
    /** The node has taken the message for the host, or has not. */
    void endWrite(const QByteArray &payload, bool works);
    void noteLoss();

private:
    void _open(FuzzInput &input);
    void _close();
    void _configure(FuzzInput &input);
    void _write(int size);
    void _useTransaction(FuzzInput &input);
    void _read(FuzzInput &input);
    void _readAll();
    void _readRest(const QByteArray &wanted, const QByteArray &bytes);
    void _wait(FuzzInput &input);
    void _forget();
    QByteArray _unread() const;

    void _onState(UsbHalPort::State state);
    void _onWritten(qint64 size);
    void _onLost(qint64 size);

    bool _announced = false; // new bytes
    bool _readsInHandler = false;

    // Of the link that the port has told of, and of one that it has not.
    QByteArray _expected;
    QByteArray _fresh;
    bool _isFresh = true;
    int _cursor = 0; // what a transaction has read
    int _sent = 0;

    // Positions in the stream to the host.
    int _written = 0;
    qint64 _told = 0; // as written or as lost
    qint64 _taken = 0;
    bool _isOrphaned = false; // the write under way is of a port that has been closed

    UsbHalPort _port; // destroyed first, as it tells of its close
};

#endif
