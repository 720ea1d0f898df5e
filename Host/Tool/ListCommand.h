// SPDX-License-Identifier: MIT
#ifndef USBHAL_LISTCOMMAND_H
#define USBHAL_LISTCOMMAND_H

/** Prints the devices on USB and the simulated nodes, a line each, or all as one array of JSON. */
void listDevices(bool asJson);

#endif
