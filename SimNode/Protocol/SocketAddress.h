// SPDX-License-Identifier: MIT
#ifndef SIMNODE_SOCKETADDRESS_H
#define SIMNODE_SOCKETADDRESS_H

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace simnode {

/// Longest folder whose sockets still have an address, in bytes.
constexpr std::size_t maxDirectoryLength = sizeof(sockaddr_un::sun_path) - sizeof("/control");

/// Fills `address` with DIRECTORY/NAME; false if that does not fit into a UNIX socket's address.
inline bool makeSocketAddress(const char *directory, const char *name, sockaddr_un &address)
{
    const std::size_t directoryLength = std::strlen(directory);
    const std::size_t nameLength = std::strlen(name);
    if (directoryLength + 1 + nameLength >= sizeof(address.sun_path))
        return false;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, directory, directoryLength);
    address.sun_path[directoryLength] = '/';
    std::memcpy(address.sun_path + directoryLength + 1, name, nameLength);
    return true;
}

} // namespace simnode

#endif
