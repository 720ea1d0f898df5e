// SPDX-License-Identifier: MIT
#include "CoreProbe.h"

CoreProbe::CoreProbe() : CoreProbe(QSharedPointer<ScriptedDriver>(new ScriptedDriver)) {}

CoreProbe::CoreProbe(const QSharedPointer<ScriptedDriver> &scripted)
    : UsbHAL({scripted.staticCast<AbstractDriver>()}), driver(scripted)
{
}
