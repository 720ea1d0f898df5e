// SPDX-License-Identifier: MIT
#ifndef USBHAL_COMMANDLINE_H
#define USBHAL_COMMANDLINE_H

/** Reads the command line and does what it asks for. Returns the exit status. */
int runCommandLine(int argc, char **argv);

#endif
