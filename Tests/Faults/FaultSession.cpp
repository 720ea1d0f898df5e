// SPDX-License-Identifier: MIT
#include "FaultSession.h"

#include "DividedTime.h"

#include <Background.h>
#include <UsbHalLog.h>
#include <VirtualTime.h>

#include <QCoreApplication>

#include <algorithm>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int patience = 10000;    // ms, for what comes for certain
constexpr int shortPatience = 300; // ms, for what another fault may prevent
constexpr int machineShare = 5000; // ms, that other processes may cost a bound
constexpr int filledPort = 1;      // whose read queue is filled
constexpr int bigRecord = 880;     // bytes
constexpr int queuedRecords = 3;   // in the write queue, in plain traffic
constexpr int manyRecords = 200;   // more than the write queue takes
constexpr int fullFifo = 90;       // messages, of 100, while the thread takes them away
constexpr int provenRecords = 3;   // for each port and direction, after each case
constexpr int delayFactor = 30;    // unread bytes, in units of the maximum read size
constexpr int drainTime = 1000;    // ms
constexpr int emptyReadPause = 1000;
constexpr int failedWritePause = 17;
constexpr int transferPause = 10;
constexpr int killTime = 3000;

int elapsedSince(Clock::time_point start)
{
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

std::string triggerText(NodeCall call)
{
    switch (call) {
    case NodeCall::None:
        break;
    case NodeCall::Open:
        return "on open 1 ";
    case NodeCall::Read:
        return "on read 1 ";
    case NodeCall::Write:
        return "on write 1 ";
    }
    return {};
}

} // namespace

FaultSession::FaultSession(bool watchdogBites)
    : _watchdogBites(watchdogBites),
      _facade(UsbHALIntf::getInstance()),
      _host(_node.folder(), _ports, _ledger),
      _log(new LogCapture)
{
    DividedTime::begin();
    _param = configuration(watchdogBites, _log->folder());
    _facade->setupConfig(_param);
    followSignals();
}

FaultSession::~FaultSession()
{
    _facade->disconnect(this);
    _facade->freeMem();
}

ParamHal FaultSession::configuration(bool watchdogBites, const QString &logFolder)
{
    ParamHal param;
    UsbHALIntf::getInstance()->getDefaultSetup(param);
    param.maxReadSize = 1000;
    param.maxWriteSize = 1000;
    param.rdTimeout = 1000;
    param.wrTimeout = 500;
    param.nbRetry = 1;
    param.maxLogLines = 20000;
    param.logDir = logFolder;
    param.mainLoopPeriod = watchdogBites ? 20 : 100;
    param.maxWatchdogErrors = watchdogBites ? 20 : 100;
    param.threadStopTimeout = watchdogBites ? 300 : 20000;
    return param;
}

void FaultSession::followSignals()
{
    const auto direct = Qt::DirectConnection;
    connect(
        _facade, &UsbHALIntf::stateChanged, this,
        [this](DriverState state) {
            if (state == DriverState::DISCONNECTED)
                _ledger.dropUnsent(_facade->bytesToWrite());
            _ledger.beginEpoch();
        },
        direct);
    connect(
        _facade, &UsbHALIntf::socketStateChanged, this, [this] { _ledger.beginEpoch(); }, direct);
    connect(
        _facade, QOverload<>::of(&UsbHALIntf::disconnected), this, [this] { ++_disconnections; },
        direct);
    connect(
        _facade, QOverload<int>::of(&UsbHALIntf::readyRead), this,
        [this](int port) { _readyReads += port == filledPort ? 1 : 0; }, direct);
}

int FaultSession::recoveryBound() const
{
    const int silentRead = static_cast<int>(_param.rdTimeout) + emptyReadPause;
    const int failedWrite = static_cast<int>(_param.wrTimeout) + failedWritePause + transferPause;
    const int lossDetection = (static_cast<int>(_param.nbRetry) + 1) * (silentRead + failedWrite);
    // Beside the divided pauses, what stays real: a drain that ends in errors, and the watchdog.
    const int divided = (lossDetection + silentRead + drainTime) / DividedTime::divisor;
    const int watchdog = static_cast<int>((_param.maxWatchdogErrors + 2) * _param.mainLoopPeriod) +
                         static_cast<int>(_param.threadStopTimeout) + killTime;
    return divided + drainTime + (_watchdogBites ? 2 * watchdog : 0) + machineShare;
}

// ---- one case

QStringList FaultSession::run(const FaultCase &faultCase)
{
    _case = faultCase;
    _first = Strike();
    _first.fault = _case.first;
    _first.lines = linesAt(_case.first, _case.step);
    _second = Strike();
    _second.fault = _case.second;
    _second.lines = linesOfSecond(_case);
    _problems.clear();
    begin();
    bringToStep();
    playFaults();
    finishStep();
    recover();
    exchangeRecords();
    judgeTraffic();
    end();
    judgeLog();
    return _problems;
}

void FaultSession::begin()
{
    if (!_node.isRunning())
        _node.start();
    _node.command("reset");
    _log = std::make_unique<LogCapture>();
    UsbHalLog::getInstance()->open(_log->folder(), QStringLiteral("UsbHal"));
    _ledger.clear();
    _disconnections = 0;
    _readyReads = 0;
    _flow = Flow::Both;
    for (const int port : _ports)
        _host.setRecordSize(port, Record::smallSize);
}

void FaultSession::end()
{
    _facade->stop();
    closePorts();
    _host.setPlugged(false);
    expect(waitUntil([this] { return !_host.isConnected(); }, patience), "the host did not leave");
    const bool given = waitUntil([this] { return _node.value("descriptors") == 0; }, patience);
    expect(given, "a descriptor of the node was not given back");
    expect(_facade->nbClients() == 0, "a closed port still counts as a client");
}

void FaultSession::openPorts()
{
    for (const int port : _ports)
        expect(_facade->openConnection(port), "a port could not be opened");
}

// After a stop, when a close would wait for a write queue that nothing empties any more.
void FaultSession::closePorts()
{
    VirtualTime::setInstantWaits(true);
    for (const int port : _ports)
        expect(_facade->closeConnection(port), "a port could not be closed");
    VirtualTime::setInstantWaits(false);
}

void FaultSession::restartClient()
{
    ++_figures.restarts;
    _facade->stop();
    closePorts();
    openPorts();
}

void FaultSession::connectLink()
{
    openPorts();
    _host.setPlugged(true);
    const bool up = waitUntil(
        [this] {
            return isLinkUp() && _host.knowsReadSize() && _ledger.hostNext(1) > 0 &&
                   _ledger.deviceNext(1) > 0;
        },
        recoveryBound());
    expect(up, "the link did not come up before any fault");
}

void FaultSession::fillReadQueues()
{
    const int before = _readyReads;
    const int full = delayFactor * static_cast<int>(_param.maxReadSize) / bigRecord + 2;
    _host.setRecordSize(filledPort, bigRecord);
    expect(waitUntil([&] { return _readyReads - before > full; }, patience),
           "the read queues did not fill");
    _host.setRecordSize(filledPort, Record::smallSize);
}

void FaultSession::becomeIdle()
{
    becomeSilent();
    expect(
        waitUntil([this] { return _facade->bytesToWrite() == 0 && _host.hasSentAll(); }, patience),
        "the link did not become idle");
}

void FaultSession::waitForLine(const char *line)
{
    expect(waitUntil([&] { return _log->contains(line); }, patience),
           QStringLiteral("not in the log before any fault: ") + line);
}

// Brings the session to the step at which the first fault strikes; it has struck, or is to strike
// by a trigger, when this returns.
void FaultSession::bringToStep()
{
    if (_case.step <= Step::FirstAnswer) {
        bringToOpening();
    } else {
        connectLink();
        bringToLink();
        strike(_first);
    }
    _host.setPlugged(true);
}

void FaultSession::bringToOpening()
{
    switch (_case.step) {
    case Step::Open:
        strike(_first, NodeCall::Open);
        openPorts();
        return;
    case Step::Drain:
        strike(_first, NodeCall::Read);
        if (!_first.fault.killsDaemon())
            openPorts();
        return;
    case Step::FirstAnswer:
        strike(_first, NodeCall::Write);
        openPorts();
        return;
    default:
        openPorts();
        waitForLine("open: all drivers opened successfully: 1");
        break;
    }
    if (_case.step == Step::Handshake) {
        _node.command("inject 00");
        waitForLine("_selectDriver: selected driver /dev/brn7200");
    }
    strike(_first);
}

void FaultSession::bringToLink()
{
    switch (_case.step) {
    case Step::Idle:
        becomeIdle();
        break;
    case Step::FullFifo:
    case Step::FullReadQueues:
        _flow = Flow::WriteMuch;
        pump();
        expect(_facade->bytesToWrite() >= fullFifo, "the write queue did not fill");
        if (_case.step == Step::FullReadQueues)
            fillReadQueues();
        break;
    case Step::DelayRequested:
        _flow = Flow::ReadNothing;
        _host.setRecordSize(filledPort, bigRecord);
        waitForLine("_connectedFunc: Ask host to delay further writes");
        _host.setRecordSize(filledPort, Record::smallSize);
        break;
    case Step::Close:
        writeRecords(manyRecords);
        _ending = inBackground([this] { return _facade->closeConnection(2); });
        break;
    case Step::Stop:
        _ending = inBackground([this] {
            _facade->stop();
            return true;
        });
        break;
    default:
        break;
    }
}

void FaultSession::playFaults()
{
    if (_case.step == Step::Stop)
        finishStep();
    const bool shows = mustShow(_first.fault, _case.step);
    awaitMet(_first, shows ? patience : shortPatience);
    expect(_first.met || !shows, QStringLiteral("not met: ") + _first.fault.name);
    letLast(_first);
    if (!_case.overlapping)
        end(_first);
    strike(_second);
    awaitMet(_second, shortPatience);
    letLast(_second);
    end(_first);
    end(_second);
}

// Undoes what the step began, as a client would.
void FaultSession::finishStep()
{
    if (!_ending.valid())
        return;
    expect(waitUntil([this] { return endsWithin(_ending, 0); }, recoveryBound() + 20000),
           "a close or a stop did not return");
    expect(_ending.get(), "a close failed");
    if (_case.step == Step::Close) {
        expect(_facade->openConnection(2), "a closed port could not be opened again");
        return;
    }
    closePorts();
    openPorts();
}

// ---- the faults

// With a trigger, the fault strikes when the first such call arrives.
void FaultSession::strike(Strike &strike, NodeCall trigger)
{
    if (!_node.isRunning())
        end(_first);
    strike.linesBefore = _log->lines().size();
    strike.lasts = true;
    if (strike.fault.killsDaemon()) {
        if (trigger == NodeCall::Read) {
            openPorts();
            waitUntil([this] { return _node.count(NodeCall::Read) > 0; }, patience);
        }
        _node.kill();
        return;
    }
    strike.trigger = trigger;
    for (const std::string &command : strike.fault.begin)
        _node.command(triggerText(trigger) + limited(command));
    if (trigger == NodeCall::None)
        strike.callsBefore = _node.count(strike.fault.strikes);
}

// The command, with the number of calls that it is to spoil where it takes one.
std::string FaultSession::limited(const std::string &command) const
{
    const bool takesNumber = command.rfind("read ", 0) == 0 || command.rfind("write ", 0) == 0;
    if (!takesNumber || _case.failingCalls() == 0)
        return command;
    return command + ' ' + std::to_string(_case.failingCalls());
}

bool FaultSession::hasStruck(Strike &strike)
{
    if (strike.trigger == NodeCall::None)
        return true;
    if (!_node.isRunning() || _node.count(strike.trigger) == 0)
        return false;
    const NodeCall strikes = strike.fault.strikes;
    // A session begins with an open, then reads, then writes.
    strike.callsBefore = strikes >= strike.trigger ? 0 : _node.count(strikes);
    strike.trigger = NodeCall::None;
    return true;
}

bool FaultSession::isMet(Strike &strike)
{
    if (!hasStruck(strike))
        return false;
    const Fault &fault = strike.fault;
    if (fault.strikes == NodeCall::None && strike.lines.isEmpty())
        return true;
    if (fault.strikes != NodeCall::None && _node.isRunning() &&
        _node.count(fault.strikes) > strike.callsBefore)
        return true;
    const bool showsWhenMet = fault.strikes == NodeCall::None || fault.isStuck;
    return showsWhenMet && shows(strike, _log->lines());
}

void FaultSession::awaitMet(Strike &strike, int msecs)
{
    strike.met = waitUntil([&] { return isMet(strike); }, msecs);
    if (strike.met)
        ++_figures.faultsMet;
}

// Lets a fault that was met go on for a while, unless nothing calls any more.
void FaultSession::letLast(Strike &strike)
{
    constexpr int severalCalls = 3;
    const NodeCall call = strike.fault.strikes;
    if (!strike.met || call == NodeCall::None || !_node.isRunning())
        return;
    waitUntil([&] { return _node.count(call) >= strike.callsBefore + severalCalls; },
              shortPatience);
    strike.shown = shows(strike, _log->lines());
}

void FaultSession::end(Strike &strike)
{
    if (!strike.lasts)
        return;
    strike.lasts = false;
    if (!_node.isRunning())
        _node.start();
    for (const std::string &command : strike.fault.end)
        _node.command(command);
}

// ---- after them

bool FaultSession::isLinkUp() const
{
    return _facade->status() == DriverState::CONNECTED &&
           _facade->socketStatus(1) == SocketState::OPENED &&
           _facade->socketStatus(2) == SocketState::OPENED;
}

// A thread that is stuck while it opens the node is beyond the watchdog: it has no driver yet.
bool FaultSession::hasGivenUpOpening()
{
    constexpr int longestOpening = 1500; // ms
    if (_facade->getMaxWriteSize() != 0)
        _openingSince = Clock::now();
    return _case.has(&Fault::isStuck) && elapsedSince(_openingSince) > longestOpening;
}

void FaultSession::recover()
{
    _flow = Flow::Both;
    for (const int port : _ports)
        _host.setRecordSize(port, Record::smallSize);
    // A descriptor of a node that is gone stays dead.
    if (_case.killsDaemon())
        restartClient();
    const Clock::time_point start = Clock::now();
    _openingSince = start;
    const auto isBack = [this] {
        if (hasGivenUpOpening()) {
            restartClient();
            _openingSince = Clock::now();
        }
        return isLinkUp();
    };
    expect(waitUntil(isBack, recoveryBound()), "the link did not come back");
    _figures.slowestRecovery = qMax(_figures.slowestRecovery, elapsedSince(start));
    expect(_facade->nbClients() == static_cast<quint32>(_ports.size()), "clients are miscounted");
}

// Some records each way on every port, then silence, in which all that was sent has to arrive. A
// host that the machine kept waiting may lose the link meanwhile; then they begin once more.
void FaultSession::exchangeRecords()
{
    constexpr int attempts = 3;
    int epoch = 0;
    bool settled = false;
    for (int i = 0; i < attempts && !settled; ++i) {
        letRecordsFlow();
        epoch = _ledger.epoch();
        becomeSilent();
        settled = waitUntil(
            [&] {
                readAll();
                return hasSettled() || _ledger.epoch() != epoch;
            },
            recoveryBound());
        settled = settled && hasSettled();
        if (_ledger.epoch() == epoch)
            break;
    }
    expect(settled, "the last records did not arrive");
    _figures.records += _ledger.recordsArrived();
}

void FaultSession::letRecordsFlow()
{
    _flow = Flow::Both;
    QHash<int, int> hostStart;
    QHash<int, int> deviceStart;
    for (const int port : _ports) {
        _host.setRecordSize(port, Record::smallSize);
        hostStart[port] = _ledger.sentToHost(port);
        deviceStart[port] = _ledger.sentToDevice(port);
    }
    const auto haveArrived = [&](int port) {
        return _ledger.hostNext(port) >= hostStart[port] + provenRecords &&
               _ledger.deviceNext(port) >= deviceStart[port] + provenRecords;
    };
    expect(waitUntil([&] { return std::all_of(_ports.begin(), _ports.end(), haveArrived); },
                     recoveryBound()),
           "records did not arrive after the faults");
}

void FaultSession::becomeSilent()
{
    _flow = Flow::None;
    for (const int port : _ports)
        _host.setRecordSize(port, 0);
}

bool FaultSession::hasSettled() const
{
    return _host.hasSentAll() && std::all_of(_ports.begin(), _ports.end(), [this](int port) {
               return _ledger.hostNext(port) == _ledger.sentToHost(port) &&
                      _ledger.deviceNext(port) == _ledger.sentToDevice(port);
           });
}

// ---- what all of it needs

bool FaultSession::waitUntil(const std::function<bool()> &reached, int msecs)
{
    const Clock::time_point start = Clock::now();
    while (!reached()) {
        if (elapsedSince(start) >= msecs)
            return false;
        pump();
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void FaultSession::pump()
{
    switch (_flow) {
    case Flow::None:
    case Flow::ReadNothing:
        break;
    case Flow::Both:
        readAll();
        // The queue has to run empty now and then, for the control messages.
        if (_facade->bytesToWrite() == 0)
            writeRecords(queuedRecords);
        break;
    case Flow::WriteMuch:
        writeRecords(manyRecords);
        break;
    }
}

void FaultSession::readAll()
{
    for (const int port : _ports) {
        for (;;) {
            const int epoch = _ledger.epoch();
            const QByteArray bytes = _facade->read(port, 2 * bigRecord);
            if (bytes.isEmpty())
                break;
            _ledger.receivedByDevice(port, bytes, epoch);
        }
    }
}

void FaultSession::writeRecords(int atMost)
{
    for (int i = _facade->bytesToWrite(); i < atMost; ++i) {
        const int port = _ports.at(i % _ports.size());
        if (!_ledger.sendToHost(
                port, [&](const QByteArray &bytes) { return _facade->write(port, bytes) > 0; }))
            return;
    }
}

void FaultSession::expect(bool holds, const QString &what)
{
    if (!holds)
        _problems.append(what);
}
