// SPDX-License-Identifier: MIT
#include "UsbHal.h"

void UsbHAL::watchdog(bool /*enable*/) {}

void UsbHAL::_mainLoop()
{
    CheckedLocker locker(&_mutex);
    if (!_isWatchdogDue())
        return;
    const auto progress = static_cast<qint32>(_loopCounter - _lastLoopCounter);
    if (progress > 0) {
        _lastLoopCounter = _loopCounter;
        _watchdogErrors = 0;
    } else if (++_watchdogErrors > _param.maxWatchdogErrors) {
        _restartStuckThread(locker);
    }
    _mainLoopClock.restart();
}

bool UsbHAL::_isWatchdogDue() const
{
    // A tick of a timer that was stopped meanwhile must not restart what stop() has ended.
    if (_mainLoopTimer.period() == 0 || !_driverOpened)
        return false;
    // Rounded: a precise timer may fire a fraction of a millisecond early.
    if ((_mainLoopClock.nsecsElapsed() + 500000) / 1000000 < _param.mainLoopPeriod)
        return false;
    return !(_hwDriver && _hwDriver->avoidClosingDuringHandshake() && _handshaking);
}
