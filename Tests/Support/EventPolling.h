// SPDX-License-Identifier: MIT
#ifndef EVENTPOLLING_H
#define EVENTPOLLING_H

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

/** Waits until a condition holds, handling events; looks more often than QTest::qWaitFor(). */
template <typename Condition>
bool happens(Condition condition, int msecs = 30000)
{
    QTimer ticks;
    ticks.start(1);
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > msecs)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

#endif
