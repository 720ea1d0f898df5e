// SPDX-License-Identifier: MIT
#include "CommandLine.h"
#include "Console.h"
#include "Failure.h"
#include "Signals.h"
#include "Streams.h"

#include <exception>

int main(int argc, char **argv)
{
    try {
        fillStandardStreams();
        watchSignals();
        return runCommandLine(argc, argv);
    } catch (const Failure &failure) {
        tell(failure.what());
        return failure.status();
    } catch (const std::exception &error) {
        tell(error.what());
        return exitFailed;
    }
}
