// SPDX-License-Identifier: MIT
#include "ExitScenarios.h"

#include <SimNodeControl.h>

#include <QElapsedTimer>
#include <QThread>

#include <cstdio>
#include <cstdlib>

namespace {

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

bool waitUntil(const std::function<bool()> &condition)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > linkTimeout)
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
    check(control.command(command) == "ok", "the node refused a command");
    const std::string reads = control.statusValue("reads");
    check(waitUntil([&] { return control.statusValue("reads") != reads; }), "no read came");
}
