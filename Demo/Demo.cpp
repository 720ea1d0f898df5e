// SPDX-License-Identifier: MIT
#include "Demo.h"

#include <QThread>

#include <algorithm>
#include <utility>

namespace {

constexpr qint64 linkLimit = 20000;  // ms for the link to come up or to be given up by the device
constexpr qint64 roundLimit = 30000; // ms for one round
constexpr int steadyExchanges = 5;
constexpr unsigned long retryPause = 20; // ms

using hostpeer::HostSession;
using hostpeer::TransferResult;

} // namespace

Demo::Demo(const Options &options)
    : _options(options),
      _managerOutput(options.managerOutput),
      _transport(options.socketPath.toStdString()),
      _session(_transport)
{
    HostSession::Handlers handlers;
    handlers.bytesReceived = [this](int port) {
        const QByteArray bytes = QByteArray::fromStdString(_session.received(port));
        const auto exchange = _exchanges.find(port);
        if (exchange == _exchanges.end())
            return;
        if (_toHostBegan < 0)
            _toHostBegan = _stepBegan;
        exchange->second.receive(bytes, _roundTime.elapsed());
    };
    handlers.bytesDelivered = [this](int port, std::size_t bytes) {
        const auto exchange = _exchanges.find(port);
        if (exchange != _exchanges.end())
            exchange->second.delivered(static_cast<qint64>(bytes), _roundTime.elapsed());
    };
    handlers.delayChanged = [this](bool delayed) {
        _console.line(delayed ? "  device: delay writes" : "  device: go on writing");
    };
    handlers.faultSeen = [this](const std::string &text) {
        _console.line("  protocol: " + QString::fromStdString(text));
    };
    _session.setHandlers(std::move(handlers));
}

bool Demo::run()
{
    const bool completed =
        _plugIn() && _exchangeFiles() && _pullCable() && _plugIn() && _exchangeFiles();
    _showTables();
    return completed && allEqual(_rounds[0]) && allEqual(_rounds[1]);
}

bool Demo::_plugIn()
{
    _console.line("Plugging the cable in");
    QElapsedTimer timer;
    timer.start();
    TransferResult result = _transport.connect();
    while (result.status != TransferResult::Status::Done && !timer.hasExpired(linkLimit)) {
        _showManagerLines();
        QThread::msleep(retryPause);
        result = _transport.connect();
    }
    if (result.status != TransferResult::Status::Done)
        return _fail(QString::fromStdString(result.text));
    _session.restart();
    return _establish() && _waitForLink("CONNECTED");
}

// A device that answers late makes the session wait once for an answer that never comes, which
// would count as time of the round. Some exchanges in a row show that this is over.
bool Demo::_establish()
{
    QElapsedTimer timer;
    timer.start();
    int exchanges = 0;
    while (!_session.isMaxWriteSizeKnown() || exchanges < steadyExchanges) {
        if (timer.hasExpired(linkLimit))
            return _fail("the device does not answer steadily");
        const auto result = _session.step();
        if (result == HostSession::StepResult::Closed)
            return _linkBroke();
        exchanges = result == HostSession::StepResult::Exchanged ? exchanges + 1 : 0;
        _showManagerLines();
    }
    return true;
}

bool Demo::_pullCable()
{
    _console.line("Pulling the cable");
    _transport.close();
    return _waitForLink("DISCONNECTED");
}

bool Demo::_exchangeFiles()
{
    _console.line(QString("Round %1: a file each way through each of %2 ports")
                      .arg(_rounds.size() + 1)
                      .arg(_options.ports.size()));
    if (!_beginRound())
        return _roundFailed();
    while (!_isRoundDone()) {
        if (_roundTime.hasExpired(roundLimit))
            return _fail(QString("the round did not end within %1 s").arg(roundLimit / 1000));
        if (!_step())
            return false;
        if (_console.wantsProgress())
            _showProgress();
    }
    _showProgress();
    _console.endProgress();
    _endRound();
    return !_roundFailed();
}

bool Demo::_beginRound()
{
    _exchanges.clear();
    bool readable = true;
    for (const PortFiles &files : qAsConst(_options.ports)) {
        PortExchange &exchange = _exchanges.emplace(files.port, files).first->second;
        const QByteArray bytes = exchange.begin();
        readable = readable && !bytes.isEmpty();
        _session.send(files.port, bytes.toStdString());
    }
    _ceilings = {ceilingOf(static_cast<qint64>(_session.maxWriteSize())),
                 ceilingOf(_options.deviceMaxWrite)};
    _toHostBegan = -1;
    _roundTime.start();
    return readable;
}

bool Demo::_isRoundDone() const
{
    return std::all_of(_exchanges.begin(), _exchanges.end(),
                       [](const auto &entry) { return entry.second.isDone(); });
}

// Either direction is timed from the begin of the exchange that carried its first bytes: to the
// device that is the begin of the round, to the host the exchange after the one that carried the
// request.
void Demo::_endRound()
{
    QVector<PortResult> results;
    for (const auto &entry : _exchanges) {
        results.append(entry.second.result());
        results.last().toHost.milliseconds -= _toHostBegan;
    }
    _rounds.append(results);
}

bool Demo::_roundFailed()
{
    bool failed = false;
    for (const auto &entry : _exchanges) {
        if (!entry.second.error().isEmpty())
            failed = !_fail(entry.second.error());
    }
    return failed;
}

bool Demo::_step()
{
    _stepBegan = _roundTime.isValid() ? _roundTime.elapsed() : 0;
    const bool open = _session.step() != HostSession::StepResult::Closed;
    _showManagerLines();
    return open || _linkBroke();
}

bool Demo::_linkBroke()
{
    return _fail("the link broke: " + QString::fromStdString(_session.closeReason()));
}

// While the cable is in, the device needs transfers to keep the link.
bool Demo::_waitForLink(const QString &state)
{
    QElapsedTimer timer;
    timer.start();
    while (_managerLink != state) {
        if (timer.hasExpired(linkLimit))
            return _fail("the connection manager does not report the link as " + state);
        if (_transport.isConnected()) {
            if (!_step())
                return false;
        } else {
            QThread::msleep(retryPause);
            _showManagerLines();
        }
    }
    return true;
}

void Demo::_showManagerLines()
{
    static const QString linkLine = "link ";
    const QStringList lines = _managerOutput.newLines();
    for (const QString &line : lines) {
        _console.line("  manager: " + line);
        const QString event = line.section(' ', 2); // behind date and time
        if (event.startsWith(linkLine))
            _managerLink = event.mid(linkLine.size());
    }
}

void Demo::_showProgress()
{
    qint64 moved[2] = {0, 0};
    qint64 expected = 0;
    for (const auto &entry : _exchanges) {
        const PortExchange &exchange = entry.second;
        moved[0] += exchange.bytesDelivered();
        moved[1] += exchange.bytesReceived();
        expected += exchange.bytesToDeliver() + exchange.bytesToReceive();
    }
    const qint64 elapsed = std::max<qint64>(_roundTime.elapsed(), 1);
    _console.progress(QString("  %1 %, %2 s: to device %3 kB, to host %4 kB, %5 kB/s each way")
                          .arg(100 * (moved[0] + moved[1]) / std::max<qint64>(expected, 1), 3)
                          .arg(static_cast<double>(elapsed) / 1000, 0, 'f', 1)
                          .arg(moved[0] / 1000, 4)
                          .arg(moved[1] / 1000, 4)
                          .arg((moved[0] + moved[1]) / 2 / elapsed, 3));
}

void Demo::_showTables()
{
    for (int i = 0; i < _rounds.size(); ++i)
        _console.line('\n' + tableOf(i + 1, _rounds[i], _ceilings));
}

bool Demo::_fail(const QString &reason)
{
    _console.line("FAILED: " + reason);
    return false;
}
