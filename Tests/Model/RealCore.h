// SPDX-License-Identifier: MIT
#ifndef REALCORE_H
#define REALCORE_H

#include "ClientHandlers.h"
#include "LockStep.h"

#include <SignalRecorder.h>
#include <UsbHal.h>

/** The library's core over lock-step drivers, with the same ways to drive it as the model. */
class RealCore
{
public:
    RealCore(const Setup &setup, Trace &trace, ClientHandlers &handlers);

    /** A core that a test may look into. */
    class Probe : public UsbHAL
    {
    public:
        Probe(const Setup &setup, LockStep &steps);
        bool isHost() const override { return _isHost; }
        static WorkerThread &thread() { return _connectedThread; }

        using UsbHAL::_communicationCond;
        using UsbHAL::_delayRequested;
        using UsbHAL::_driverOpened;
        using UsbHAL::_forceLowLevelDisconnection;
        using UsbHAL::_handshaking;
        using UsbHAL::_lastLoopCounter;
        using UsbHAL::_lastMaxReadSize;
        using UsbHAL::_loopCounter;
        using UsbHAL::_mainLoopTimer;
        using UsbHAL::_maxSizeExchanged;
        using UsbHAL::_mutex;
        using UsbHAL::_nextAction;
        using UsbHAL::_param;
        using UsbHAL::_peerBusy;
        using UsbHAL::_readErrors;
        using UsbHAL::_running;
        using UsbHAL::_totalBytesWaitingRead;
        using UsbHAL::_watchdogErrors;
        using UsbHAL::_writeErrors;

    private:
        const bool _isHost;
    };

    Probe &core() { return *_core; }
    void settle() { _steps.settle(); }

    void turn(const Outcome &outcome) { _steps.turn(outcome); }
    void failCloses(int count) { _steps.failCloses(count); }
    void handleEvents();
    void tick(bool periodOver);
    void destroy();

private:
    void _onSignal(const QString &signal);

    Trace &_trace;
    ClientHandlers &_handlers;
    LockStep _steps;
    std::unique_ptr<Probe> _core;
    SignalRecorder _recorder;
};

#endif
