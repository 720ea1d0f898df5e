// SPDX-License-Identifier: MIT
#ifndef CONNECTIONMANAGER_H
#define CONNECTIONMANAGER_H

#include "CommandLine.h"
#include "Service.h"

#include <QObject>
#include <QTimer>

#include <atomic>
#include <map>
#include <memory>

/**
 * Opens the ports and moves bytes between the library and the services.
 *
 * The library emits its signals in its own thread; all but one reach this object through queued
 * connections, so that everything here runs in the thread that made it.
 */
class ConnectionManager : public QObject
{
    Q_OBJECT

public:
    explicit ConnectionManager(const Options &options, QObject *parent = nullptr);

    /**
     * Configures the library, opens all ports and waits a while for the host. Returns false when a
     * port did not open.
     */
    bool start(const ParamHal &param);

    /** Ends the communication; waits for the library's thread. */
    void stop();

private:
    struct Port
    {
        std::unique_ptr<Service> service;
        SocketState state = SocketState::CLOSED;
        int unread = 0;
    };

    std::unique_ptr<Service> _makeService(int port, const ServiceOptions &options) const;
    void _connectSignals();

    void _onStateChanged(DriverState state);
    void _onSocketStateChanged(UsbConnID port, SocketState state);
    void _onReadyRead(int port);
    void _onError(int code, void *data);

    void _readWaiting(int number, Port &port);
    void _deliver(int number, Port &port, const QByteArray &message);
    void _pump();
    bool _sendNext(int limit);
    bool _send(int number, Service &service, int limit);
    bool _restartAfterLoss();

    Options _options;
    UsbHALIntf *_hal;
    std::map<int, Port> _ports;
    QTimer _pumpTimer;
    int _lastServed = 0;
    std::atomic<unsigned> _losses{0};
    unsigned _lossesSeen = 0;
};

#endif
