// SPDX-License-Identifier: MIT
#include "ExitScenarios.h"

/** What the programs call that load this module, and the library with it. */
extern "C" Q_DECL_EXPORT void runInPlugin(const char *scenario, const char *logFolder)
{
    runExitScenario(scenario, QString::fromLocal8Bit(logFolder));
}
