// SPDX-License-Identifier: MIT
#ifndef FAULTSESSION_H
#define FAULTSESSION_H

#include "FaultHost.h"
#include "FaultTable.h"
#include "NodeDaemon.h"
#include "TrafficLedger.h"

#include <LogCapture.h>
#include <UsbHalIntf.h>

#include <QObject>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>

/** What the cases of one process have in common. */
struct FaultFigures
{
    int linkLosses = 0;
    int kills = 0;
    int restarts = 0;
    int records = 0;
    int faultsMet = 0;
    int slowestRecovery = 0; ///< ms
};

/**
 * Plays one case after the other: a session of the facade over the simulated node and a host is
 * brought to the case's step, the two faults strike, and what the link, the bytes and the log did
 * is judged. Runs in the facade's own thread, whose event loop it serves.
 */
class FaultSession : public QObject
{
public:
    /** With watchdogBites, a thread that is stuck is killed within half a second. */
    explicit FaultSession(bool watchdogBites);
    ~FaultSession() override;

    /** Returns what went wrong; empty when nothing did. Throws when the node fails. */
    QStringList run(const FaultCase &faultCase);

    const FaultFigures &figures() const { return _figures; }
    /** The log of the case that was run last. */
    const LogCapture &log() const { return *_log; }
    /** ms within which the link is back, by the documentation and the parameters. */
    int recoveryBound() const;

private:
    /** One fault while it lasts, and what was seen of it. */
    struct Strike
    {
        Fault fault;
        QStringList lines; ///< one of which has to stand in the log
        int linesBefore = 0;
        int callsBefore = 0;
        NodeCall trigger = NodeCall::None; ///< the call that it waits for
        bool lasts = false;
        bool met = false;
        bool shown = false; ///< before more lines may have rotated its own away
    };

    enum class Flow { None, Both, WriteMuch, ReadNothing };

    static ParamHal configuration(bool watchdogBites, const QString &logFolder);
    void followSignals();

    void begin();
    void end();
    void bringToStep();
    void bringToOpening();
    void bringToLink();
    void openPorts();
    void closePorts();
    void connectLink();
    void fillReadQueues();
    void becomeIdle();
    void waitForLine(const char *line);
    void restartClient();

    void strike(Strike &strike, NodeCall trigger = NodeCall::None);

    std::string limited(const std::string &command) const;
    bool hasStruck(Strike &strike);
    bool isMet(Strike &strike);
    void awaitMet(Strike &strike, int msecs);
    void letLast(Strike &strike);
    void end(Strike &strike);
    void playFaults();
    void finishStep();

    void recover();
    bool isLinkUp() const;
    bool hasGivenUpOpening();
    void exchangeRecords();
    void letRecordsFlow();
    void becomeSilent();
    bool hasSettled() const;

    void judgeTraffic();
    void judgeLog();
    void judgeStrike(const Strike &strike, const QStringList &lines);

    bool waitUntil(const std::function<bool()> &reached, int msecs);
    void pump();
    void readAll();
    void writeRecords(int atMost);
    void expect(bool holds, const QString &what);
    static bool shows(const Strike &strike, const QStringList &lines);

    const QList<int> _ports = {1, 2};
    const bool _watchdogBites;
    UsbHALIntf *const _facade;
    NodeDaemon _node;
    TrafficLedger _ledger;
    FaultHost _host;
    std::unique_ptr<LogCapture> _log;
    ParamHal _param;
    FaultFigures _figures;

    FaultCase _case;
    Strike _first;
    Strike _second;
    Flow _flow = Flow::None;
    std::future<bool> _ending; // a close or a stop that is under way
    std::chrono::steady_clock::time_point _openingSince;
    QStringList _problems;
    std::atomic<int> _disconnections{0};
    std::atomic<int> _readyReads{0};
};

#endif
