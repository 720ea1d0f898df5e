// SPDX-License-Identifier: MIT
#include "CommandLine.h"
#include "ConnectionManager.h"
#include "StopSignals.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

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
