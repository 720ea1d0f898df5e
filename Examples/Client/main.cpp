// SPDX-License-Identifier: MIT
#include <UsbHalIntf.h>

#include <cstdio>

int main()
{
    UsbHALIntf *hal = UsbHALIntf::getInstance();
    ParamHal param;
    hal->getDefaultSetup(param);
    param.logDir = "/tmp/";
    hal->setupConfig(param);

    if (!hal->openConnection(1) || !hal->waitForConnected(10000)) {
        std::fprintf(stderr, "no USB host within ten seconds\n");
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
