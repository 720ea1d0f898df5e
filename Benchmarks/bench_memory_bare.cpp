// SPDX-License-Identifier: MIT
// Resident memory of a program that has Qt Core and an event loop, and nothing else but what
// measures. To be run under simnode.

#include "HostProcess.h"
#include "Memory.h"

#include <SimNodeControl.h>

#include <QCoreApplication>
#include <QTimer>

int main(int argc, char *argv[])
{
    const HostProcess host(SimNodeControl::directoryFromEnvironment()); // as beside the library
    QCoreApplication application(argc, argv);
    QTimer::singleShot(1000, &application, &QCoreApplication::quit);
    application.exec();
    printMemory("bare");
    return 0;
}
