// SPDX-License-Identifier: MIT
#include "RealCore.h"

#include <VirtualTime.h>

#include <QCoreApplication>

RealCore::Probe::Probe(const Setup &setup, LockStep &steps) : UsbHAL({}), _isHost(setup.isHost)
{
    for (int i = 0; i < setup.drivers; ++i)
        _drivers.append(QSharedPointer<LockStepDriver>::create(::driverName(i), setup, steps));
}

RealCore::RealCore(const Setup &setup, Trace &trace, ClientHandlers &handlers)
    : _trace(trace),
      _handlers(handlers),
      _steps(setup, trace),
      _core(std::make_unique<Probe>(setup, _steps)),
      _recorder(_core.get())
{
    _steps.isRunning = [this] {
        const CheckedLocker locker(&_core->_mutex);
        return _core->_running;
    };
    _steps.thread = &Probe::thread();
    VirtualTime::setWaitHook([this](const QWaitCondition *condition) {
        return condition == &_core->_communicationCond && _steps.waitForEnd();
    });
    _recorder.setHandler([this](const QString &signal) { _onSignal(signal); });
}

// Outside the communication thread a handler finds that thread at rest.
void RealCore::_onSignal(const QString &signal)
{
    if (!_core->isConnectedThread())
        _steps.settle();
    _handlers.onSignal(*_core, signal, _trace);
}

void RealCore::handleEvents()
{
    QCoreApplication::sendPostedEvents(_core.get());
    QCoreApplication::sendPostedEvents(&_core->_mainLoopTimer);
}

void RealCore::tick(bool periodOver)
{
    constexpr qint64 nsPerMs = 1000000;
    const auto period = [this] {
        const CheckedLocker locker(&_core->_mutex);
        return qint64(_core->_param.mainLoopPeriod);
    };
    watchdogClock = (period() - (periodOver ? 0 : 1)) * nsPerMs;
    QMetaObject::invokeMethod(_core.get(), "_mainLoop", Qt::DirectConnection);
}

void RealCore::destroy()
{
    _core.reset();
    VirtualTime::setWaitHook({});
}
