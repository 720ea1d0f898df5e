// SPDX-License-Identifier: MIT
#ifndef DRIVERDEFAULTS_H
#define DRIVERDEFAULTS_H

#include <UsbHalIntf.h>

/** The values of a fresh driver, as a record that changes nothing in one. */
inline ParamHal driverDefaults()
{
    ParamHal param;
    param.maxReadSize = 10000;
    param.maxWriteSize = 10000;
    param.rdTimeout = 2000;
    param.wrTimeout = 2000;
    param.nbRetry = 4;
    return param;
}

#endif
