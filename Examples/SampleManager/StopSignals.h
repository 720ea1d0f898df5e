// SPDX-License-Identifier: MIT
#ifndef STOPSIGNALS_H
#define STOPSIGNALS_H

#include <QObject>
#include <QScopedPointer>
#include <QSocketNotifier>

/**
 * Turns SIGINT and SIGTERM into a Qt signal in the event loop. They wait in the kernel until then,
 * so that none is lost or strikes another thread, however early it comes.
 */
class StopSignals : public QObject
{
    Q_OBJECT

public:
    /** Holds the signals back. Threads inherit that: call it before there are any. */
    static void block();

    /** Call block() before; isValid() tells whether the signals can be received. */
    explicit StopSignals(QObject *parent = nullptr);
    ~StopSignals() override;

    bool isValid() const { return _descriptor >= 0; }

signals:
    void received();

private:
    void _take();

    int _descriptor = -1;
    QScopedPointer<QSocketNotifier> _notifier;
};

#endif
