// SPDX-License-Identifier: MIT
#ifndef USBHAL_BENCHCOMMAND_H
#define USBHAL_BENCHCOMMAND_H

#include "Options.h"

/** Measures a port that echoes, and prints what was found. Failure for one that does not. */
void measurePort(const LinkOptions &link, const BenchOptions &options);

#endif
