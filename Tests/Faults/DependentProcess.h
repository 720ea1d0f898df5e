// SPDX-License-Identifier: MIT
#ifndef DEPENDENTPROCESS_H
#define DEPENDENTPROCESS_H

#include <BuiltProgram.h>

#include <csignal>
#include <sys/prctl.h>

/** A process that is asked to end when the thread that started it ends, however that does. */
class DependentProcess : public ForkedProcess
{
protected:
    void setupChildProcess() override { prctl(PR_SET_PDEATHSIG, SIGTERM); }
};

#endif
