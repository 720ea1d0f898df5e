// SPDX-License-Identifier: MIT
#include "CommandLine.h"
#include "ConnectionManager.h"
#include "StopSignals.h"

#include <QCoreApplication>

#include <cstdio>
#include <sys/prctl.h>

namespace {

// The kernel lengthens each sleep of a thread by up to its timer slack, 50 us unless told
// otherwise. The library sleeps 10 ms twice for each message, so this alone may cost half a
// percent of the rate. A new thread inherits the slack of the one that starts it.
void sleepPrecisely()
{
    ::prctl(PR_SET_TIMERSLACK, 1UL);
}

ParamHal configuration(const Options &options)
{
    ParamHal param;
    UsbHALIntf::getInstance()->getDefaultSetup(param);
    // A silent read lasts up to 3 s, time-out and pause; a shorter wait would kill the thread.
    param.threadStopTimeout = 4000;
    options.applyTo(param);
    return param;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const CommandLine commandLine = parseCommandLine(QCoreApplication::arguments());
    if (!commandLine.run) {
        std::fputs(qPrintable(commandLine.text), commandLine.exitStatus == 0 ? stdout : stderr);
        return commandLine.exitStatus;
    }

    StopSignals stopSignals;
    if (!stopSignals.isValid()) {
        std::fprintf(stderr, "cannot handle SIGINT and SIGTERM\n");
        return 1;
    }
    sleepPrecisely();
    ConnectionManager manager(commandLine.options);
    if (!manager.start(configuration(commandLine.options))) {
        manager.stop();
        return 1;
    }
    QObject::connect(&stopSignals, &StopSignals::received, &app, &QCoreApplication::quit);
    const int status = QCoreApplication::exec();
    manager.stop();
    return status;
}
