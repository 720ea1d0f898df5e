// SPDX-License-Identifier: MIT
#ifndef HOSTEND_H
#define HOSTEND_H

#include <HostSession.h>
#include <SeqPacketTransport.h>

#include <QByteArray>
#include <QHash>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

/**
 * A USB host at the simulated node in a folder, in a thread of its own: it connects whenever it is
 * let, and exchanges transfers from then on. Any thread may call it.
 */
class HostEnd
{
public:
    /** Begins unplugged. */
    explicit HostEnd(const std::string &nodeFolder);
    ~HostEnd();
    HostEnd(const HostEnd &) = delete;
    HostEnd &operator=(const HostEnd &) = delete;

    void plugIn();
    void unplug();

    /** Stops exchanging right after an answer of the device, which then waits for the host. */
    bool pause(int msecs = 20000);
    void resume();

    void send(int port, const QByteArray &bytes);
    void announceReopened(int port);

    /** All bytes received for a port since the start, over all connections. */
    QByteArray received(int port) const;
    bool waitForReceived(int port, const QByteArray &bytes, int msecs = 20000) const;

    /** Whether the device answers. */
    bool isEstablished() const;

    /** Whether the device has asked to wait. */
    bool isDelayed() const;

private:
    void run();
    void exchange();

    mutable std::mutex _mutex;
    mutable std::condition_variable _changed;
    usbhalhost::SeqPacketTransport _transport;
    usbhalhost::HostSession _session;
    QHash<int, QByteArray> _received;
    bool _plugged = false;
    bool _pauseRequested = false;
    bool _paused = false;
    bool _ending = false;
    std::thread _thread;
};

#endif
