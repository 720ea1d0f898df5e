// SPDX-License-Identifier: MIT
#ifndef DEMO_H
#define DEMO_H

#include "CommandLine.h"
#include "Console.h"
#include "HostSession.h"
#include "ManagerOutput.h"
#include "PortExchange.h"
#include "Report.h"
#include "SeqPacketTransport.h"

#include <QElapsedTimer>
#include <QVector>

#include <map>

/** The whole demonstration: a round of exchanges, the cable pulled and put back, a second round. */
class Demo
{
public:
    explicit Demo(const Options &options);

    /** Runs it; returns whether every file of both rounds arrived unchanged. */
    bool run();

private:
    bool _plugIn();
    bool _pullCable();
    bool _exchangeFiles();

    bool _establish();
    bool _beginRound();
    bool _isRoundDone() const;
    bool _roundFailed();
    void _endRound();
    bool _step();
    bool _linkBroke();

    bool _waitForLink(const QString &state);
    void _showManagerLines();
    void _showProgress();
    void _showTables();
    bool _fail(const QString &reason);

    Options _options;
    Console _console;
    ManagerOutput _managerOutput;
    QString _managerLink;
    usbhalhost::SeqPacketTransport _transport;
    usbhalhost::HostSession _session;
    std::map<int, PortExchange> _exchanges;
    QElapsedTimer _roundTime;
    qint64 _stepBegan = 0;    // of the latest exchange, in ms of the round
    qint64 _toHostBegan = -1; // of the exchange that brought the round's first bytes
    QVector<QVector<PortResult>> _rounds;
    Ceilings _ceilings;
};

#endif
