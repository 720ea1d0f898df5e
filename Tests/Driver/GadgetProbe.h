// SPDX-License-Identifier: MIT
#ifndef GADGETPROBE_H
#define GADGETPROBE_H

#include "DriverDefaults.h"

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
};

#endif
