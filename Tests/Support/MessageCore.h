// SPDX-License-Identifier: MIT
#ifndef MESSAGECORE_H
#define MESSAGECORE_H

#include <CoreProbe.h>
#include <WireMessages.h>

#include <initializer_list>

/**
 * A core whose communication thread sits in a read: what a test feeds through receive() is all that
 * the core receives, and what a client writes stays in the write FIFO.
 */
class MessageCore : public CoreProbe
{
public:
    MessageCore() : setup(testSetup())
    {
        // The watchdog must leave the thread alone, however long it sits there.
        setup.mainLoopPeriod = 3600000;
        driver->setHonoursCancel(true);
        driver->blockReads();
    }
    ~MessageCore() override { stop(); }

    /** Configures from setup and opens the ports; the link stays down. */
    bool openPorts(const QList<int> &ports = {1})
    {
        setupConfig(setup);
        for (const int port : ports) {
            if (!openConnection(port))
                return false;
        }
        return driver->waitForBlockedCall();
    }

    /** Opens the ports and brings the link up. */
    bool start(const QList<int> &ports = {1})
    {
        return openPorts(ports) && receive("DEVICE_NODATA") && status() == DriverState::CONNECTED;
    }

    /** Takes the link down as the communication thread does when it lost the host. */
    void loseLink()
    {
        locked([this](QMutexLocker &locker) {
            _updateStatus(DriverState::DISCONNECTED, locker);
            _onDisconnected(locker);
            _clearWriteFifo();
            _clearReadFifo();
        });
    }

    /** Gives a port a state and a queue without a communication thread. */
    void setPort(int port, SocketState state)
    {
        locked([&](QMutexLocker &) {
            _socketStates[port] = state;
            _readQueues[port] = QSharedPointer<ReadQueue>::create();
        });
    }

    /** What the functions of these names logged, as "function: message". */
    QStringList logged(std::initializer_list<const char *> functions) const
    {
        QStringList found;
        const QStringList lines = log.lines();
        for (const QString &line : lines) {
            for (const char *function : functions) {
                if (line.startsWith(QString(function) + ": "))
                    found.append(line);
            }
        }
        return found;
    }

    bool peerBusy()
    {
        return locked([this](QMutexLocker &) { return _peerBusy; });
    }

    QList<QByteArray> fifo()
    {
        return locked([this](QMutexLocker &) { return _writeFifo; });
    }

    using UsbHAL::_clearWriteFifo;
    using UsbHAL::_delayRequested;
    using UsbHAL::_fifoEmptyCond;
    using UsbHAL::_grantWriters;
    using UsbHAL::_idleMessage;
    using UsbHAL::_nbBytesWaitingToBeRead;
    using UsbHAL::_writeAllowedCond;

    ParamHal setup;
};

#endif
