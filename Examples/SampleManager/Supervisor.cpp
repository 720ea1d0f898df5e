// SPDX-License-Identifier: MIT
#include "Supervisor.h"

#include "Output.h"

namespace {

constexpr char nodePath[] = "/dev/brn7200";
constexpr int tickPeriod = 1000; // ms
constexpr int ticksBetweenLogChecks = 5;

QString nameOf(ServiceKind kind)
{
    static const QMap<ServiceKind, QString> names = {{ServiceKind::Echo, "echo"},
                                                     {ServiceKind::Sink, "sink"},
                                                     {ServiceKind::Source, "source"},
                                                     {ServiceKind::File, "file"}};
    return names[kind];
}

} // namespace

Supervisor::Supervisor(const Options &options, LogFolder &log, QObject *parent)
    : QObject(parent), _options(options), _log(log), _node(nodePath), _manager(options)
{
    _ticks.setInterval(tickPeriod);
    connect(&_ticks, &QTimer::timeout, this, &Supervisor::_onTick);
    connect(&_node, &NodeWatch::vanished, this, &Supervisor::_onVanished);
    connect(&_node, &NodeWatch::appeared, this, &Supervisor::_startCommunication);
}

void Supervisor::start()
{
    _sayWhatRuns();
    _checkLog();
    _ticks.start();
    if (_node.isPresent())
        _startCommunication();
    else
        say(QString("waiting for %1: %2").arg(_node.path(), _node.whyMissing()));
}

void Supervisor::stop()
{
    _ticks.stop();
    if (_isRunning)
        _manager.stop();
    _isRunning = false;
}

void Supervisor::_sayWhatRuns()
{
    QStringList ports;
    for (auto entry = _options.services.begin(); entry != _options.services.end(); ++entry)
        ports << QString("%1=%2").arg(entry.key()).arg(nameOf(entry->kind));
    say(QString("node %1, log in %2, ports %3").arg(_node.path(), _log.path(), ports.join(' ')));
}

void Supervisor::_startCommunication()
{
    say("opening the ports on " + _node.path());
    _isRunning = true;
    if (!_manager.start()) {
        emit failed();
        return;
    }
    QTimer::singleShot(_options.firstWait, this, [this] {
        if (_isRunning && !_manager.isConnected())
            say("no host yet, waiting for it");
    });
}

// The library goes on with the descriptor that it has, which leads nowhere for good.
void Supervisor::_onVanished()
{
    say(QString("%1 is gone").arg(_node.path()));
    stop();
    _ticks.start();
    if (!_node.isPresent())
        say(QString("waiting for %1: %2").arg(_node.path(), _node.whyMissing()));
}

void Supervisor::_onTick()
{
    // A link that is up shows that the node is there. Else it is looked for, as inotify tells of
    // files: a simulated node is none, and a folder that is not there yet cannot be watched.
    if (!_isRunning || !_manager.isConnected())
        _node.look();
    _checkSilence();
    if (--_ticksToLogCheck <= 0)
        _checkLog();
}

void Supervisor::_checkSilence()
{
    const qint64 silence = _manager.silence();
    const bool wasSilent = _isSilent;
    _isSilent = silence >= _options.silenceLimit;
    if (_isSilent && !wasSilent)
        say(QString("the link has been silent for %1 s: no message from the host, %2 wait for it")
                .arg(silence / 1000)
                .arg(_manager.waitingMessages()));
    if (wasSilent && !_isSilent && _manager.isConnected())
        say("the link is no longer silent");
}

// Said once for each reason, and not at every check.
void Supervisor::_checkLog()
{
    _ticksToLogCheck = ticksBetweenLogChecks;
    const QString error = _log.whyNotWritable();
    if (error == _logError)
        return;
    if (error.isEmpty())
        say(QString("the log in %1 can be written again").arg(_log.path()));
    else
        say(QString("the log in %1 cannot be written: %2").arg(_log.path(), error));
    _logError = error;
}
