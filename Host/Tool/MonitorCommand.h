// SPDX-License-Identifier: MIT
#ifndef USBHAL_MONITORCOMMAND_H
#define USBHAL_MONITORCOMMAND_H

#include "Options.h"

/**
 * Shows the link and the ports once a second until a signal: those of a running `usbhal forward`,
 * else of a link of its own, which takes no port.
 */
void monitorDevice(const LinkOptions &options, bool asJson);

#endif
