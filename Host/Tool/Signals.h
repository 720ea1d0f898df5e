// SPDX-License-Identifier: MIT
#ifndef USBHAL_SIGNALS_H
#define USBHAL_SIGNALS_H

/** From now on SIGINT and SIGTERM only ask for the end, and SIGPIPE does nothing. */
void watchSignals();

/** Whether the end was asked for. */
bool endIsAsked();

#endif
