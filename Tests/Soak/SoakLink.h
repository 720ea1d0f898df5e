// SPDX-License-Identifier: MIT
#ifndef SOAKLINK_H
#define SOAKLINK_H

#include "Traffic.h"

#include <HostEnd.h>
#include <SimNodeControl.h>
#include <UsbHalIntf.h>

#include <QElapsedTimer>
#include <QList>
#include <QTemporaryDir>

#include <atomic>
#include <memory>

/** The facade of this process over its simulated node, with a host at the far end. */
class SoakLink
{
public:
    explicit SoakLink(bool isVirtual);
    ~SoakLink();
    SoakLink(const SoakLink &) = delete;
    SoakLink &operator=(const SoakLink &) = delete;

    static const QList<int> &ports();

    /**
     * Ends all faults, starts the communication if it has stopped, opens the ports and waits for a
     * new host to exchange fresh bytes with each; what was still under way is discarded then.
     */
    void setInOrder(QRandomGenerator &random);

    /** Sends the bytes, which must fit into the write queue. */
    void sendToHost(int port, const QByteArray &bytes);
    void sendToDevice(int port, const QByteArray &bytes);
    /**
     * Takes what has come both ways, from the device's queues at most so many messages of each
     * port. What a port gets after the link went down belongs to no stream, and is dropped.
     */
    void receive(int messages);

    /** Sends a command to the node; throws when that refuses it. */
    void command(const char *text);
    int nodeOpens();

    /** How often the link came up. */
    quint64 connections() const { return _connections; }
    /** Whether the link has been up without a break since it was set in order. */
    bool isUndisturbed() const { return _losses == _lossesInOrder; }

    Traffic toHost{"to the host"};
    Traffic toDevice{"to the device"};
    UsbHALIntf *const facade;

private:
    void configure(bool isVirtual);
    static void adaptToVirtualTime(ParamHal &param);
    void openPorts();
    void plugNewHostIn();
    bool passBarriers(QRandomGenerator &random);
    void receiveFromQueue(int port, int messages);
    bool isUp() const;

    const QTemporaryDir _logFolder;
    SimNodeControl _node;
    std::unique_ptr<HostEnd> _host;
    QHash<int, int> _taken; // bytes that were taken from the host, port by port
    std::atomic<quint64> _connections{0};
    std::atomic<quint64> _losses{0};
    quint64 _lossesInOrder = 0;
};

#endif
