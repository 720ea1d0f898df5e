// SPDX-License-Identifier: MIT
//
// Uses the installed port's library as far as it goes without a device node. Exits with status 0
// when all answers are right.
#include <UsbHalPort.h>

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    UsbHalPort port(10000);
    int errorCode = 0;
    QObject::connect(&port, &UsbHalPort::errorOccurred,
                     [&](UsbHalPort::Error error) { errorCode = error; });
    const bool opened = port.open(QIODevice::ReadWrite);
    const bool right = !opened && errorCode == port.error() && port.isSequential() &&
                       UsbHalPort::configuration().maxReadSize == 10000 &&
                       port.state() == UsbHalPort::UnconnectedState;
    std::printf("error %d: %s\n", errorCode, qPrintable(port.errorString()));
    return right ? 0 : 1;
}
