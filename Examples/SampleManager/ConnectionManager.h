// SPDX-License-Identifier: MIT
#ifndef CONNECTIONMANAGER_H
#define CONNECTIONMANAGER_H

#include "CommandLine.h"
#include "Service.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <atomic>
#include <map>
#include <memory>

/**
 * Opens the ports and moves bytes between the library and the services.
 *
 * The library emits its signals in its own thread; most reach this object through queued
 * connections, so that nearly everything here runs in the thread that made it. What does not is
 * atomic.
 */
class ConnectionManager : public QObject
{
    Q_OBJECT

public:
    explicit ConnectionManager(const Options &options, QObject *parent = nullptr);

    /** Opens all ports, the first of which starts the communication; false when one did not open.
     */
    bool start();

    /** Ends the communication, so that start() can begin a new one; waits for the library's thread.
     */
    void stop();

    bool isConnected() const { return _hal->status() == DriverState::CONNECTED; }

    /** Milliseconds since the host's last message, or the last that it made room for; 0 without a
     * link. */
    qint64 silence() const;

    /** Messages that wait to be sent. */
    int waitingMessages() const { return _hal->bytesToWrite(); }

signals:
    // From the library's thread to this object's own.
    void messageArrived(int port, unsigned losses);
    void oldMessagesDiscarded(int port, int messages);

private:
    struct Port
    {
        std::unique_ptr<Service> service;
        SocketState state = SocketState::CLOSED;
        int unread = 0;
        std::atomic<int> kept{0}; // messages that the library may hold
    };

    std::unique_ptr<Service> _makeService(int port, const ServiceOptions &options) const;
    void _connectSignals();

    void _onStateChanged(DriverState state);
    void _onSocketStateChanged(UsbConnID port, SocketState state);
    void _onReadyRead(int number, unsigned losses);
    void _onError(int code, void *data);

    void _readWaiting(int number, Port &port);
    void _deliver(int number, Port &port, const QByteArray &message);
    void _pump();
    bool _sendNext(int limit);
    bool _send(int number, Service &service, int limit);
    bool _restartAfterLoss();
    void _discardKept(int number);

    Options _options;
    UsbHALIntf *_hal;
    std::map<int, Port> _ports;
    QTimer _pumpTimer;
    int _lastServed = 0;
    std::atomic<unsigned> _losses{0};
    unsigned _lossesSeen = 0;
    QElapsedTimer _lastActivity;
};

#endif
