// SPDX-License-Identifier: MIT
#include "CommandLine.h"
#include "LogFolder.h"
#include "Output.h"
#include "StopSignals.h"
#include "Supervisor.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

constexpr int exitFailure = 1;

void configureLibrary(const Options &options)
{
    UsbHALIntf *const hal = UsbHALIntf::getInstance();
    ParamHal param;
    hal->getDefaultSetup(param);
    options.applyTo(param);
    hal->setupConfig(param);
}

// Without its log a product still has to serve its ports; the supervisor tells the reason.
bool claim(LogFolder &log)
{
    if (log.claim() != LogFolder::Claim::TakenByAnother)
        return true;
    std::fprintf(stderr,
                 "usbhal-sample-manager: another manager, %s, uses the log folder %s; end it, or "
                 "give another folder with --log-dir\n",
                 qPrintable(log.error()), qPrintable(log.path()));
    return false;
}

int serve(QCoreApplication &app, const Options &options, LogFolder &log)
{
    StopSignals stopSignals;
    if (!stopSignals.isValid()) {
        std::fputs("usbhal-sample-manager: cannot receive SIGINT and SIGTERM\n", stderr);
        return exitFailure;
    }
    configureLibrary(options);
    Supervisor supervisor(options, log);
    QObject::connect(&stopSignals, &StopSignals::received, &app, &QCoreApplication::quit);
    QObject::connect(
        &supervisor, &Supervisor::failed, &app, [] { QCoreApplication::exit(exitFailure); },
        Qt::QueuedConnection);
    supervisor.start();
    const int status = QCoreApplication::exec();
    supervisor.stop();
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    StopSignals::block();
    QCoreApplication app(argc, argv);
    const CommandLine commandLine = parseCommandLine(QCoreApplication::arguments());
    if (!commandLine.run) {
        std::fputs(qPrintable(commandLine.text), commandLine.exitStatus == 0 ? stdout : stderr);
        return commandLine.exitStatus;
    }
    if (commandLine.options.verbose)
        showDetails();
    LogFolder log(commandLine.options.logDir);
    return claim(log) ? serve(app, commandLine.options, log) : exitFailure;
}
