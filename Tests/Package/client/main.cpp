// SPDX-License-Identifier: MIT
//
// Uses the installed library as far as it goes without a device node. Exits with status 0 when all
// answers are right.
#include <UsbHalIntf.h>

#include <QCoreApplication>
#include <QVariant>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    UsbHALIntf *const hal = UsbHALIntf::getInstance();
    int errorCode = 0;
    QObject::connect(hal, &UsbHALIntf::error, [&](int code, void *) { errorCode = code; });
    ParamHal param;
    hal->getDefaultSetup(param);
    const bool opened = hal->openConnection(1);
    const bool right = !opened && errorCode == 7 && param.maxReadSize == 10000 &&
                       hal->socketStatus(1) == SocketState::CLOSED &&
                       hal->getSocketStateStr(SocketState::OPENED) == SocketStateStr[1] &&
                       QVariant::fromValue(DriverState::CONNECTED).isValid();
    std::printf("error %d: %s\n", errorCode, hal->getErrorStr(errorCode));
    return right ? 0 : 1;
}
