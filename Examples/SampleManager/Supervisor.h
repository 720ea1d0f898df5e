// SPDX-License-Identifier: MIT
#ifndef SUPERVISOR_H
#define SUPERVISOR_H

#include "CommandLine.h"
#include "ConnectionManager.h"
#include "LogFolder.h"
#include "NodeWatch.h"

#include <QObject>
#include <QTimer>

/**
 * Lets the communication run while the device node is there, as the library's search for a missing
 * node takes a whole processor, and tells what a user should know of node, link and log.
 */
class Supervisor : public QObject
{
    Q_OBJECT

public:
    Supervisor(const Options &options, LogFolder &log, QObject *parent = nullptr);

    /** Begins; the library has been configured. */
    void start();

    /** Ends the communication, if it runs. */
    void stop();

signals:
    /** The communication could not be started. */
    void failed();

private:
    void _startCommunication();
    void _sayWhatRuns();
    void _onVanished();
    void _onTick();
    void _checkSilence();
    void _checkLog();

    Options _options;
    LogFolder &_log;
    NodeWatch _node;
    ConnectionManager _manager;
    QTimer _ticks;
    int _ticksToLogCheck = 0;
    bool _isRunning = false;
    bool _isSilent = false;
    QString _logError;
};

#endif
