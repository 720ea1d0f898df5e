// SPDX-License-Identifier: MIT
//
// A client that ends in the way its first argument names; the second is its log folder, a third one
// that says "application" makes it a Qt application.
#include "ExitScenarios.h"

#include <QCoreApplication>

#include <memory>

int main(int argc, char *argv[])
{
    check(argc >= 3, "usage: usbhal-exit-client SCENARIO LOG_FOLDER [application]");
    std::unique_ptr<QCoreApplication> application;
    if (argc > 3)
        application.reset(new QCoreApplication(argc, argv));
    runExitScenario(argv[1], QString::fromLocal8Bit(argv[2]));
    return 0;
}
