// SPDX-License-Identifier: MIT
#include "FaultTable.h"

namespace {

const QString drained = QStringLiteral("_flushReadBuffer: Discarded message : ");
const QString notSent = QStringLiteral("write: _write() failed (no byte sent)");
const QString notValid =
    QStringLiteral("_processDataMessage: ERROR: Message received is not valid: ");
const QString wrongSize =
    QStringLiteral("_processDataMessage: ERROR: Received message with wrong size");

QString unopened(const char *detail)
{
    return QStringLiteral("_openDrvInstance: Error: unable to open driver instance: "
                          "/dev/brn7200( ") +
           detail + " )";
}

Fault openFault(const char *name, const char *begin, const char *end, const char *detail)
{
    return {name, {begin}, {end}, NodeCall::Open, {unopened(detail)}};
}

Fault readFault(const char *name, const char *begin, const char *detail)
{
    return {
        name, {begin}, {"read ok"}, NodeCall::Read, {QStringLiteral("_read: ") + detail, drained}};
}

Fault writeFault(const char *name, const char *begin, const QString &line)
{
    return {name, {begin}, {"write ok"}, NodeCall::Write, {line}};
}

Fault stuckFault(const char *name, const char *begin, const char *end, NodeCall call)
{
    Fault fault = {name, {begin}, {end}, call, {killedLine}};
    fault.isStuck = true;
    return fault;
}

Fault cableFault(const char *name, const char *begin, const char *end, const QStringList &lines)
{
    Fault fault = {name, {begin}, {end}, NodeCall::None, lines};
    fault.losesData = true;
    return fault;
}

std::vector<Fault> makeFaults()
{
    // Time-outs stay errors until the next such fault, so that the read that waits ends in one. It
    // counts as met when that read has ended.
    const Fault silentError = {
        "read silent, ETIMEDOUT", {"timeout error", "read silent"},     {"read ok"},
        NodeCall::None,           {"_read: 110: Connection timed out"}, {drained}};
    const Fault daemonDeath = {"daemon gone",
                               {},
                               {},
                               NodeCall::None,
                               {unopened("2: No such file or directory"),
                                "_read: 19: No such device", "write: Write error: 19: "},
                               {drained}};
    Fault garbage =
        cableFault("garbage", "inject 47415242414745", "status", {notValid + "GARBAGE"});
    garbage.drainLines = QStringList(drained + "GARBAGE");
    // The part is no part before a host takes it.
    Fault shortWrite =
        writeFault("write short", "write short 5", "write: _write() size = 5 (partial -> failed)");
    shortWrite.unpluggedLines = QStringList("write: Write error: 110: Connection timed out");
    return {
        openFault("node missing", "node missing", "node present", "2: No such file or directory"),
        openFault("open refused, EBUSY", "open fail EBUSY", "open ok",
                  "16: Device or resource busy"),
        openFault("open refused, EACCES", "open fail EACCES", "open ok", "13: Permission denied"),
        stuckFault("read stuck", "read stuck", "read ok", NodeCall::Read),
        {"read silent, zero", {"timeout zero", "read silent"}, {"read ok"}, NodeCall::Read, {}},
        silentError,
        readFault("read failing, EIO", "read fail EIO", "5: Input/output error"),
        readFault("read failing, ESHUTDOWN", "read fail ESHUTDOWN", "108: "),
        readFault("read failing, EINTR", "read fail EINTR", "4: Interrupted system call"),
        stuckFault("write stuck", "write stuck", "write ok", NodeCall::Write),
        writeFault("write failing, EIO", "write fail EIO",
                   "write: Write error: 5: Input/output error"),
        writeFault("write failing, EPIPE", "write fail EPIPE", "write: Write error: 32: "),
        shortWrite,
        writeFault("write zero", "write zero", notSent),
        cableFault("transfers merged", "merge 3", "merge 0", {}),
        cableFault("transfers split", "split 5", "split 0", {notValid, wrongSize, drained}),
        cableFault("cable out", "cable out", "cable in",
                   {"_connectedFunc: Disconnect number retries : "}),
        garbage,
        daemonDeath,
    };
}

bool isCableOut(const Fault &fault)
{
    return fault.name == std::string("cable out");
}

constexpr int overlaps = 2;

} // namespace

const std::vector<Fault> &allFaults()
{
    static const std::vector<Fault> faults = makeFaults();
    return faults;
}

const std::vector<const char *> &allSteps()
{
    static const std::vector<const char *> steps = {
        "open", "drain",     "selection",        "handshake",       "first answer",
        "idle", "full FIFO", "full read queues", "delay requested", "close",
        "stop"};
    return steps;
}

QString FaultCase::name() const
{
    return QStringLiteral("%1 at %2: %3, %4 %5")
        .arg(number)
        .arg(allSteps().at(static_cast<size_t>(step)))
        .arg(first.name, overlapping ? "while it lasts" : "as it ends", second.name);
}

int caseCount()
{
    return static_cast<int>(allSteps().size() * allFaults().size() * allFaults().size()) * overlaps;
}

FaultCase caseOf(int number)
{
    const auto faultCount = static_cast<int>(allFaults().size());
    const int pair = number / overlaps;
    FaultCase result;
    result.number = number;
    result.step = static_cast<Step>(pair / faultCount / faultCount);
    result.first = allFaults().at(static_cast<size_t>(pair / faultCount % faultCount));
    result.second = allFaults().at(static_cast<size_t>(pair % faultCount));
    result.overlapping = number % overlaps == 0;
    return result;
}

QList<int> casesWhereThreadsGetStuck(bool stuck)
{
    QList<int> numbers;
    for (int number = 0; number < caseCount(); ++number) {
        if (caseOf(number).has(&Fault::isStuck) == stuck)
            numbers.append(number);
    }
    return numbers;
}

QStringList linesAt(const Fault &fault, Step step)
{
    if (step == Step::Stop) // as the session ends, or as the next one begins
        return fault.lines + fault.drainLines;
    const bool isDrain = step == Step::Drain || (step == Step::Open && !fault.killsDaemon());
    return isDrain && !fault.drainLines.isEmpty() ? fault.drainLines : fault.lines;
}

QStringList linesOfSecond(const FaultCase &faultCase)
{
    const Fault &fault = faultCase.second;
    const bool isUnplugged = faultCase.overlapping && isCableOut(faultCase.first);
    return fault.lines + fault.drainLines + (isUnplugged ? fault.unpluggedLines : QStringList());
}

bool mustShow(const Fault &fault, Step step)
{
    if (fault.strikes == NodeCall::Open)
        return step == Step::Open || step == Step::Stop;
    if (isCableOut(fault))
        return step >= Step::FirstAnswer && step != Step::Stop;
    return fault.killsDaemon() || fault.strikes != NodeCall::None || !fault.lines.isEmpty();
}
