// SPDX-License-Identifier: MIT
#ifndef STOPSIGNALS_H
#define STOPSIGNALS_H

#include <QObject>
#include <QScopedPointer>
#include <QSocketNotifier>

/** Turns SIGINT and SIGTERM into a Qt signal in the event loop. At most one exists in a process. */
class StopSignals : public QObject
{
    Q_OBJECT

public:
    /** Installs the handlers; isValid() tells whether that worked. */
    explicit StopSignals(QObject *parent = nullptr);

    /** Gives both signals their default effect back. */
    ~StopSignals() override;

    bool isValid() const { return !_notifier.isNull(); }

signals:
    void received();

private:
    void _drain();

    QScopedPointer<QSocketNotifier> _notifier;
};

#endif
