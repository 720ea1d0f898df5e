// SPDX-License-Identifier: MIT
#include <UsbHalIntf.h>

#include <cstdio>

int main()
{
    UsbHALIntf *hal = UsbHALIntf::getInstance();
    ParamHal param;
    hal->getDefaultSetup(param);
    param.logDir = "log/"; // a folder that is made where the program is started
    hal->setupConfig(param);

    if (!hal->openConnection(1)) {
        std::fprintf(stderr, "port 1 cannot be opened, the log in log/ says why\n");
        return 1;
    }
    if (!hal->waitForConnected(10000)) {
        const bool isNodeOpen = !hal->driverName().isEmpty();
        std::fprintf(stderr, "%s within ten seconds, the log in log/ says more\n",
                     isNodeOpen ? "no USB host came" : "the device node did not open");
        return 1;
    }
    hal->write(1, "hello, host\n");
    while (hal->waitForReadyRead(1, 5000)) {
        const QByteArray bytes = hal->read(1, 10000);
        std::printf("the host sent %d bytes: %s\n", bytes.size(), bytes.constData());
    }
    hal->stop();
    return 0;
}
