// SPDX-License-Identifier: MIT
#ifndef SIMNODE_HOSTSOCKET_H
#define SIMNODE_HOSTSOCKET_H

#include "DeviceProtocol.h"
#include "FileDescriptor.h"
#include "SocketAddress.h"

#include <cerrno>
#include <poll.h>
#include <string>

namespace simnode {

/// The host's end of the cable.
class HostSocket
{
public:
    explicit HostSocket(const std::string &directory)
        : _socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address;
        _isConnected =
            makeSocketAddress(directory.c_str(), hostSocketName, address) &&
            connect(_socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    }

    bool isConnected() const { return _isConnected; }
    int socket() const { return _socket.get(); }

    bool send(const std::string &transfer)
    {
        return ::send(_socket.get(), transfer.data(), transfer.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(transfer.size());
    }

    /// As send(), but false when it would block.
    bool trySend(const std::string &transfer)
    {
        return ::send(_socket.get(), transfer.data(), transfer.size(),
                      MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(transfer.size());
    }

    /// The next transfer; "(closed)" at the connection's end, "(none)" after `timeout` ms.
    std::string receive(int timeout = 5000)
    {
        pollfd entry = {_socket.get(), POLLIN, 0};
        if (poll(&entry, 1, timeout) <= 0)
            return "(none)";
        std::string transfer(maxTransferSize, '\0');
        const ssize_t size = recv(_socket.get(), transfer.data(), transfer.size(), 0);
        if (size <= 0)
            return "(closed)";
        transfer.resize(static_cast<std::size_t>(size));
        return transfer;
    }

private:
    FileDescriptor _socket;
    bool _isConnected = false;
};

} // namespace simnode

#endif
