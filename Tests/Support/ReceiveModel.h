// SPDX-License-Identifier: MIT
#ifndef RECEIVEMODEL_H
#define RECEIVEMODEL_H

#include <UsbHalIntf.h>

#include <QByteArray>
#include <QList>

#include <map>

/**
 * What the receive path of the device must do, worked out a second time without anything of the
 * library's code, to compare the library with.
 */
class ReceiveModel
{
public:
    struct Port
    {
        SocketState state = SocketState::CLOSED;
        bool known = false; ///< has a state
        bool hasQueue = false;
        QList<QByteArray> queue;
    };

    bool receive(const QByteArray &buffer);
    bool open(int port);
    bool close(int port);
    void peerDisconnect(int port);
    void loseLink();
    QByteArray read(int port, unsigned int maxSize);
    QByteArray peek(int port, unsigned int maxSize) const;
    int headSize(int port) const;

    bool isUsable(int port) const;
    const Port &port(int number) const;
    QList<int> openPorts() const;
    /** Bytes in all queues. */
    quint64 bytesHeld() const;

    std::map<int, Port> ports;
    bool connected = false;
    bool peerBusy = false;
    quint32 clients = 0;
    /** Bytes that the counter keeps of discarded messages with a zero byte in them. */
    quint32 remainder = 0;
    /** How often readyRead was announced. */
    quint64 announced = 0;

private:
    bool receiveOne(const QByteArray &rest, int &consumed);
    bool deliver(int number, const QByteArray &payload);
    void store(Port &port, const QByteArray &payload);
    void markConnected();
    void discardQueue(Port &port);
};

#endif
