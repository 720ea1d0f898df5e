// SPDX-License-Identifier: MIT
// Resident memory of an idle link with five ports. To be run under simnode.

#include "HostProcess.h"
#include "Memory.h"
#include "Require.h"

#include <SimNodeControl.h>
#include <UsbHalIntf.h>

#include <QCoreApplication>
#include <QTimer>

int main(int argc, char *argv[])
{
    const HostProcess host(SimNodeControl::directoryFromEnvironment());
    QCoreApplication application(argc, argv);
    UsbHALIntf *const hal = UsbHALIntf::getInstance();
    ParamHal param;
    hal->getDefaultSetup(param);
    param.threadStopTimeout = 4000; // more than a silent read takes
    param.logDir = QString::fromStdString(SimNodeControl::directoryFromEnvironment());
    hal->setupConfig(param);
    for (int port = 1; port <= HostProcess::ports; ++port)
        require(hal->openConnection(port), "a port opens");
    require(hal->waitForConnected(20000), "the link comes up");
    QTimer::singleShot(1000, &application, &QCoreApplication::quit);
    application.exec();
    require(hal->status() == DriverState::CONNECTED, "the link is up");
    printMemory("ours");
    hal->stop();
    return 0;
}
