// SPDX-License-Identifier: MIT
#ifndef PORTSPROBE_H
#define PORTSPROBE_H

#include <CoreProbe.h>
#include <SignalRecorder.h>

/** A core with its signals recorded; the host is silent until it is told to talk. */
class PortsProbe : public CoreProbe
{
public:
    PortsProbe() : signalsSeen(static_cast<UsbHAL *>(this)) {}
    ~PortsProbe() override
    {
        signalsSeen.setHandler({});
        stop();
    }

    /** Configures with a port limit; 0 keeps the default of 5. */
    void configureFor(quint32 maxClients)
    {
        ParamHal param = testSetup();
        param.maxClients = maxClients;
        setupConfig(param);
    }

    /** Opens the ports, with the link up and all signals of that taken from the record. */
    bool connectPorts(const QList<int> &ports)
    {
        configure();
        for (const int port : ports) {
            if (!openConnection(port))
                return false;
        }
        return raiseLink();
    }

    bool raiseLink()
    {
        driver->failReads(0);
        driver->setIdleHost(true);
        const bool raised = signalsSeen.waitFor("connected");
        // The signals of the ports follow that of the link, all within one locked walk.
        const bool settled = QTest::qWaitFor([this] { return !isHandshaking(); });
        signalsSeen.take();
        return raised && settled;
    }

    bool isHandshaking()
    {
        return locked([this](QMutexLocker &) { return _handshaking; });
    }

    /** Waits until the lost link is wholly taken down, in the communication thread. */
    bool loseLink()
    {
        driver->failReads(-1);
        return QTest::qWaitFor([this] { return isHandshaking(); });
    }

    /** Puts a received message into a port's queue as the receive path does. */
    void storeMessage(int port, const QByteArray &payload)
    {
        locked([&](QMutexLocker &) {
            _readQueues.value(port)->enqueue(payload);
            _totalBytesWaitingRead += static_cast<quint32>(payload.size());
        });
    }

    SignalRecorder signalsSeen;

    using UsbHAL::_connectedThread;
    using UsbHAL::_fifoEmptyCond;
    using UsbHAL::_nbPortsOpened;
};

#endif
