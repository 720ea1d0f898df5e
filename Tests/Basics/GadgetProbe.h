// SPDX-License-Identifier: MIT
#ifndef GADGETPROBE_H
#define GADGETPROBE_H

#include <GadgetDriver.h>

/** A gadget driver whose instances and buffer are open to tests. */
class GadgetProbe : public GadgetDriver
{
public:
    GadgetProbe() = default;
    explicit GadgetProbe(const QStringList &paths) { _instancePaths = paths; }

    using AbstractDriver::_instancePaths;
    using AbstractDriver::_readBuffer;
    using AbstractDriver::_selectedInstance;

    /** What a record must hold to change nothing in a fresh driver. */
    static ParamHal defaults()
    {
        ParamHal param;
        param.maxReadSize = 10000;
        param.maxWriteSize = 10000;
        param.rdTimeout = 2000;
        param.wrTimeout = 2000;
        param.nbRetry = 4;
        return param;
    }
};

#endif
