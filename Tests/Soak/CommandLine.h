// SPDX-License-Identifier: MIT
#ifndef COMMANDLINE_H
#define COMMANDLINE_H

#include "Soak.h"

#include <optional>

/** A command line is either an order to run, or ends the program with a status. */
struct CommandLine
{
    std::optional<SoakOptions> options;
    int exitStatus = 0;
};

/** Reads the command line; prints what is wrong with it and how it should be, or the help. */
CommandLine parseCommandLine(int argc, char **argv);

#endif
