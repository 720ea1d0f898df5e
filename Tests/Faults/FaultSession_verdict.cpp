// SPDX-License-Identifier: MIT
#include "FaultSession.h"

#include <algorithm>

namespace {

constexpr int mergedTransfers = 3; // at most, by the fault of that name

int countOf(const QStringList &lines, const QString &beginning)
{
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const QString &line) {
        return line.startsWith(beginning);
    }));
}

} // namespace

void FaultSession::judgeTraffic()
{
    _problems += _ledger.faults();
    if (_ledger.missingAtDevice() == 0)
        return;
    // What the device could not read is in its log, a line at least for each transfer. Bytes that
    // were unread when the watchdog restarted the thread are read after it, in front of a hole.
    const QStringList lines = _log->lines();
    const int rejected = countOf(lines, QStringLiteral("_processDataMessage: ERROR: "));
    const bool isRejected =
        _case.has(&Fault::losesData) && _ledger.missingAtDevice() <= mergedTransfers * rejected;
    expect(isRejected || _ledger.holesAtDevice() <= _ports.size() * countOf(lines, killedLine),
           QStringLiteral("%1 records to the device are missing, with %2 rejected messages")
               .arg(_ledger.missingAtDevice())
               .arg(rejected));
}

void FaultSession::judgeLog()
{
    const QStringList lines = _log->lines();
    judgeStrike(_first, lines);
    if (!(_case.overlapping && _first.fault.name == std::string("node missing")))
        judgeStrike(_second, lines);
    const int losses =
        countOf(lines, QStringLiteral("_connectedFunc: Disconnect read attempts : "));
    for (const char *line : {"Disconnect write attempts : ", "Disconnect number retries : 1",
                             "Disconnect cable disconnection detected : false",
                             "closeDriverAfterConnectionError = false"})
        expect(countOf(lines, QStringLiteral("_connectedFunc: ") + line) == losses,
               QStringLiteral("a lost link lacks its line ") + line);
    expect(losses == _disconnections, "a lost link lacks its signal");
    expect(countOf(lines, QStringLiteral("_connectedFunc: Could not close USB driver !")) == 0,
           "the driver refused to close");
    const int kills = countOf(lines, killedLine);
    expect(countOf(lines, QStringLiteral("_stopWorkerThread: ERROR")) == 0,
           "a thread could not be killed");
    expect(_watchdogBites || kills == 0, "a thread was killed that was not stuck");
    _figures.linkLosses += losses;
    _figures.kills += kills;
}

void FaultSession::judgeStrike(const Strike &strike, const QStringList &lines)
{
    const Fault &fault = strike.fault;
    // The call that was stuck in a node that died has come back.
    if (!strike.met || strike.lines.isEmpty() || (fault.isStuck && _case.killsDaemon()))
        return;
    expect(strike.shown || shows(strike, lines),
           QStringLiteral("not in the log: ") + strike.lines.join(" or "));
}

// Whether the log has a line of the fault since it struck.
bool FaultSession::shows(const Strike &strike, const QStringList &lines)
{
    const QStringList since = lines.mid(strike.linesBefore);
    return std::any_of(strike.lines.begin(), strike.lines.end(),
                       [&](const QString &beginning) { return countOf(since, beginning) > 0; });
}
