// SPDX-License-Identifier: MIT
#include "ExitScenarios.h"

#include <QFile>

#include <SimNodeControl.h>

#include <QElapsedTimer>
#include <QThread>

#include <cstdio>
#include <cstdlib>

namespace {

// Two seconds until its time is over, one of pause, and what a busy machine takes.
constexpr int longestRead = 5000; // ms

QString logFolderInUse;

ExitScenarios allScenarios()
{
    ExitScenarios all = plainScenarios();
    for (ExitScenarios more : {handlerScenarios(), threadScenarios(), signalScenarios(),
                               forkScenarios(), stuckScenarios()})
        all.merge(more);
    return all;
}

} // namespace

void runExitScenario(const std::string &name, const QString &folder)
{
    logFolderInUse = folder;
    const ExitScenarios scenarios = allScenarios();
    const auto scenario = scenarios.find(name);
    check(scenario != scenarios.end(), "unknown scenario");
    scenario->second();
}

QString logFolder()
{
    return logFolderInUse;
}

QByteArray logText()
{
    QFile log(logFolder() + "/UsbHal1.log");
    check(log.open(QIODevice::ReadOnly), "there is no log");
    return log.readAll();
}

UsbHALIntf *facade()
{
    return UsbHALIntf::getInstance();
}

void fail(const char *what)
{
    std::fprintf(stderr, "%s\n", what);
    std::_Exit(1);
}

void check(bool condition, const char *what)
{
    if (!condition)
        fail(what);
}

void configure(quint32 threadStopTimeout)
{
    ParamHal param;
    facade()->getDefaultSetup(param);
    param.threadStopTimeout = threadStopTimeout;
    param.logDir = logFolderInUse;
    facade()->setupConfig(param);
}

void openPort()
{
    check(facade()->openConnection(1), "the port did not open");
}

void openAndLink()
{
    openPort();
    check(facade()->waitForConnected(linkTimeout), "the link did not come up");
}

void leaveBytesUnread()
{
    openAndLink();
    check(facade()->waitForReadyRead(1, linkTimeout), "nothing arrived");
    check(facade()->write(1, QByteArray(100000, 'x')) == 100000, "nothing was queued");
}

bool waitUntil(const std::function<bool()> &condition, int timeout)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeout)
            return false;
        QThread::msleep(1);
    }
    return true;
}

void waitForEnd()
{
    QThread::msleep(linkTimeout);
    fail("nothing ended the process");
}

void holdReads(const std::string &command)
{
    SimNodeControl control(SimNodeControl::directoryFromEnvironment());
    const std::string before = control.statusValue("reads");
    check(control.command(command) == "ok", "the node refused a command");
    const std::string reads = control.statusValue("reads");
    const bool anotherCame = waitUntil([&] { return control.statusValue("reads") != reads; },
                                       reads == before ? linkTimeout : longestRead);
    // One that came in between may be held already, and then no other comes.
    check(anotherCame || reads != before, "no read came");
}
