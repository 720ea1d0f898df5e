// SPDX-License-Identifier: MIT
#ifndef FAULTTABLE_H
#define FAULTTABLE_H

#include <QList>
#include <QString>
#include <QStringList>

#include <string>
#include <vector>

/** What the log says of a thread that was killed. */
inline const QString killedLine =
    QStringLiteral("_stopWorkerThread: communication thread did not stop -> killed");

/** The calls on the node that a fault can strike. */
enum class NodeCall { None, Open, Read, Write };

/** One fault that the simulated node plays from its beginning to its end. */
struct Fault
{
    const char *name = "";
    std::vector<std::string> begin = {}; ///< the node's commands; none: the daemon itself dies
    std::vector<std::string> end = {};
    NodeCall strikes =
        NodeCall::None;          ///< the calls that meet it; None: it strikes what is on the cable
    QStringList lines = {};      ///< what the log shows of it: a line that begins with one of these
    QStringList drainLines = {}; ///< in place of them while the node is drained, where that differs
    QStringList unpluggedLines = {}; ///< beside them while the cable is out
    bool isStuck = false;            ///< a call never returns, and its thread is killed
    bool losesData = false;          ///< the device rejects what it can no longer read, and says so

    bool killsDaemon() const { return begin.empty(); }
};

/** Where a session stands when the first fault strikes. */
enum class Step {
    Open,           ///< the node is being opened
    Drain,          ///< what waits in the opened node is being discarded
    Selection,      ///< the driver waits for the first bytes
    Handshake,      ///< bytes have come, but no message yet
    FirstAnswer,    ///< the link has just come up
    Idle,           ///< neither side has anything to say
    FullFifo,       ///< the write queue holds all that it can
    FullReadQueues, ///< more is unread than the host should send, and it was not told
    DelayRequested, ///< the host was asked to wait
    Close,          ///< a port is being closed
    Stop            ///< the communication is being stopped
};

const std::vector<Fault> &allFaults();
const std::vector<const char *> &allSteps(); ///< their names, in the order of Step

/** Two faults at one step of a session. */
struct FaultCase
{
    int number = 0; ///< names the case as long as the two tables stay as they are
    Step step = Step::Open;
    Fault first;
    Fault second;
    bool overlapping = false; ///< the second strikes while the first lasts, else as it ends

    QString name() const;
    bool has(bool Fault::*property) const { return first.*property || second.*property; }
    bool killsDaemon() const { return first.killsDaemon() || second.killsDaemon(); }
    /**
     * Failing calls that make a blip in some cases and a lost link in others; 0: as many as come
     * until the fault ends.
     */
    int failingCalls() const { return number % 3; }
};

/** Every pair of faults, in both orders and both overlaps, at every step. */
int caseCount();
FaultCase caseOf(int number);
/** The numbers of the cases in which a thread gets stuck, or of those in which none does. */
QList<int> casesWhereThreadsGetStuck(bool stuck);

/** What the log shows of a fault that strikes first at that step. */
QStringList linesAt(const Fault &fault, Step step);
/** What the log shows of a fault that strikes after another one, or while that lasts. */
QStringList linesOfSecond(const FaultCase &faultCase);
/** Whether a fault that strikes first at that step meets a call, or a transfer, for certain. */
bool mustShow(const Fault &fault, Step step);

#endif
