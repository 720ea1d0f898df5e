// SPDX-License-Identifier: MIT
#ifndef STORMHOST_H
#define STORMHOST_H

#include "Payloads.h"

#include <AbstractDriver.h>

#include <QMutex>
#include <QString>

#include <array>

/**
 * A driver with a host behind it that sends as fast as the device reads, to ports 1 to 5 in turn,
 * and checks each message that it gets. Any thread may call it.
 */
class StormHost : public AbstractDriver
{
public:
    static constexpr int portCount = 5;

    /** Sends that many messages more to each port; when it honours delays, only while allowed. */
    void sendToEachPort(quint64 messages, bool honoursDelays);

    /** Whether all was sent, and the device has dealt with it. */
    bool isDone() const;
    /** Whether the device has asked to delay writes. */
    bool isDelayed() const;
    /** How often it has asked, after it had allowed them. */
    quint64 delays() const;
    /** Messages received from a port. */
    quint64 received(int port) const;
    /** The first message that was not as it should be; empty without one. */
    QString fault() const;

    bool open() override { return true; }
    bool close() override { return true; }
    int write(QByteArray data) override;
    int read(QByteArray *data) override;
    void cancelPendingIo() override {}
    QString getDrvDetailedError(int /*code*/) const override { return QString(); }

private:
    void _fillBlock();
    void _check(const QByteArray &message);

    mutable QMutex _hostMutex;
    QByteArray _block;
    quint64 _sent = 0; // over all ports
    quint64 _toSend = 0;
    bool _honoursDelays = false;
    bool _done = true;
    bool _delayed = false;
    quint64 _delays = 0;
    std::array<quint64, portCount + 1> _received = {};
    QString _fault;
};

#endif
