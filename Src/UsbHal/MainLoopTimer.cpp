// SPDX-License-Identifier: MIT
#include "MainLoopTimer.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEvent>
#include <QThread>

#include <limits>

// Notes when it is gone, delivered or not: an application that ends drops what was posted.
class MainLoopTimer::Change : public QEvent
{
public:
    explicit Change(std::atomic<bool> &pending) : QEvent(QEvent::User), _pending(pending) {}
    ~Change() override { _pending = false; }

private:
    std::atomic<bool> &_pending;
};

MainLoopTimer::MainLoopTimer()
{
    setTimerType(Qt::PreciseTimer);
}

MainLoopTimer::~MainLoopTimer()
{
    QCoreApplication::removePostedEvents(this);
}

void MainLoopTimer::setPeriod(quint32 period)
{
    _period = static_cast<int>(qMin<quint32>(period, std::numeric_limits<int>::max()));
    if (QThread::currentThread() == thread())
        _apply();
    else if (!_changePosted.exchange(true)) // one at a time: there may be nobody to take them
        QCoreApplication::postEvent(this, new Change(_changePosted));
}

void MainLoopTimer::catchUp()
{
    if (_changePosted && QThread::currentThread() == thread())
        _apply();
}

bool MainLoopTimer::event(QEvent *event)
{
    if (event->type() != QEvent::User)
        return QTimer::event(event);
    _changePosted = false; // what is asked for from here on needs an event of its own
    _apply();
    return true;
}

void MainLoopTimer::_apply()
{
    const int period = _period;
    if (period == 0) {
        stop();
    } else if (QAbstractEventDispatcher::instance()) {
        connect(thread(), &QThread::finished, this, &MainLoopTimer::_retire,
                Qt::ConnectionType(Qt::DirectConnection | Qt::UniqueConnection));
        start(period);
    }
    _ticking = isActive();
}

// In the timer's thread as it ends: from no other could it be stopped.
void MainLoopTimer::_retire()
{
    _period = 0;
    _apply();
}
