// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_SIMULATEDNODES_H
#define USBHALHOST_SIMULATEDNODES_H

#include "UsbHalHostExport.h"

#include <string>
#include <vector>

namespace usbhalhost {

/** A simulated device node that runs on this machine. */
struct SimulatedNode
{
    std::string folder;   ///< the folder of its sockets
    bool isTaken = false; ///< a host is connected
};

/** The nodes of now, in the order of their folders. May be called from any thread. */
USBHALHOST_EXPORT std::vector<SimulatedNode> findSimulatedNodes();

} // namespace usbhalhost

#endif
