// SPDX-License-Identifier: MIT
// Resident memory of a program that has Qt Core and an event loop, and nothing else.

#include <Campaign.h>

#include <QCoreApplication>
#include <QTimer>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QTimer::singleShot(1000, &application, &QCoreApplication::quit);
    application.exec();
    Campaign::printFigure("memory.bare", Campaign::residentMemory());
    return 0;
}
