// SPDX-License-Identifier: MIT
#ifndef COREPROBE_H
#define COREPROBE_H

#include "LogCapture.h"
#include "ScriptedDriver.h"

#include <UsbHal.h>
#include <UsbHalLog.h>

#include <QCoreApplication>

/**
 * A core over one scripted driver, with what a test needs to look inside. The core is stopped and
 * destroyed with it.
 */
class CoreProbe : public UsbHAL
{
public:
    CoreProbe();
    explicit CoreProbe(const QSharedPointer<ScriptedDriver> &scripted);
    // Here, since a thread at work asks isHost() of the whole object. For the same reason a derived
    // class stops the core itself when its thread does not rest while it is destroyed.
    ~CoreProbe() override { stop(); }

    /** Plays the host when set, before the first open. */
    bool playsHost = false;
    bool isHost() const override { return playsHost; }

    /** Short time-outs for tests; the log goes to log.folder(). */
    ParamHal testSetup() const
    {
        ParamHal param;
        getDefaultSetup(param);
        param.mainLoopPeriod = 20;
        param.wrTimeout = 20;
        param.logDir = log.folder();
        param.maxLogLines = 20000;
        return param;
    }
    void configure() { setupConfig(testSetup()); }

    /** Configures, opens port 1 and lets the host's first message mark the link connected. */
    bool connectLink(int port = 1)
    {
        configure();
        if (!openConnection(port))
            return false;
        driver->feed("DEVICE_NODATA");
        return waitForConnected(5000);
    }

    /** Runs a function with the core's mutex held through a locker. */
    template <typename Function>
    auto locked(Function function)
    {
        QMutexLocker locker(&_mutex);
        return function(locker);
    }

    using UsbHAL::_changeAllSocketsState;
    using UsbHAL::_clearReadFifo;
    using UsbHAL::_clearWriteFifoForPort;
    using UsbHAL::_clientCount;
    using UsbHAL::_communication;
    using UsbHAL::_communicationCond;
    using UsbHAL::_driverOpened;
    using UsbHAL::_driverState;
    using UsbHAL::_forceLowLevelDisconnection;
    using UsbHAL::_handshaking;
    using UsbHAL::_hwDriver;
    using UsbHAL::_loopCounter;
    using UsbHAL::_mainLoopTimer;
    using UsbHAL::_maxSizeExchanged;
    using UsbHAL::_mutex;
    using UsbHAL::_nextAction;
    using UsbHAL::_onConnected;
    using UsbHAL::_onDisconnected;
    using UsbHAL::_param;
    using UsbHAL::_peerBusy;
    using UsbHAL::_processAllMessages;
    using UsbHAL::_processDataMessage;
    using UsbHAL::_processMessage;
    using UsbHAL::_readQueues;
    using UsbHAL::_running;
    using UsbHAL::_socketStates;
    using UsbHAL::_totalBytesWaitingRead;
    using UsbHAL::_updateStatus;
    using UsbHAL::_writeFifo;
    using UsbHAL::_writerWaiting;
    using UsbHAL::Communication;
    using UsbHAL::ReadQueue;

    /** Feeds received bytes into the core as its communication thread does. */
    bool receive(const QByteArray &buffer)
    {
        return locked([&](QMutexLocker &locker) { return _processAllMessages(buffer, locker); });
    }

    /** Messages that wait to be read from a port. */
    int queuedMessages(int port)
    {
        return locked([&](QMutexLocker &) { return _readQueues.value(port)->size(); });
    }

    /** Bytes in the queues of all ports, counted one by one. */
    quint64 queuedBytes()
    {
        return locked([this](QMutexLocker &) {
            quint64 sum = 0;
            for (const auto &queue : qAsConst(_readQueues)) {
                for (const QByteArray &payload : qAsConst(*queue))
                    sum += static_cast<quint64>(payload.size());
            }
            return sum;
        });
    }

    /** Bytes that wait to be read, by the core's own counter. */
    quint32 bytesWaiting()
    {
        return locked([this](QMutexLocker &) { return _totalBytesWaitingRead; });
    }

    const LogCapture log;
    const QSharedPointer<ScriptedDriver> driver;
};

#endif
