// SPDX-License-Identifier: MIT
#ifndef TRACE_H
#define TRACE_H

#include <QMutex>
#include <QMutexLocker>
#include <QStringList>

/**
 * What a core, real or modelled, does, in its order: log lines, signals, driver calls and the
 * results of the calls made to it.
 */
class Trace
{
public:
    void add(const QString &event)
    {
        const QMutexLocker locker(&_mutex);
        _events.append(event);
    }

    /** The events since the last take(). */
    QStringList take()
    {
        const QMutexLocker locker(&_mutex);
        QStringList taken;
        taken.swap(_events);
        return taken;
    }

private:
    QMutex _mutex;
    QStringList _events;
};

#endif
