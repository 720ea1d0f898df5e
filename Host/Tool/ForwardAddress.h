// SPDX-License-Identifier: MIT
#ifndef USBHAL_FORWARDADDRESS_H
#define USBHAL_FORWARDADDRESS_H

#include <string>

/** Where clients connect, and the port of the device that they reach. */
struct ForwardAddress
{
    std::string path = {}; ///< of a UNIX socket; empty for TCP
    std::string host = "127.0.0.1";
    int localPort = 0; ///< of TCP; 0 for any that is free
    int port = 0;
};

/** Reads [BIND:]LOCAL:PORT or unix:PATH:PORT. Failure for anything else. */
ForwardAddress parseForwardAddress(const std::string &text);

#endif
