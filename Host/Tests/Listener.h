// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_LISTENER_H
#define USBHALHOST_LISTENER_H

#include <QtGlobal>

#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/** The device's end: a listening socket and at most one connection. */
class Listener
{
public:
    explicit Listener(const std::string &path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        _listening = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const auto *generic = reinterpret_cast<const sockaddr *>(&address);
        _isListening = ::bind(_listening, generic, sizeof address) == 0 //
                       && ::listen(_listening, 1) == 0;
    }
    ~Listener()
    {
        closeConnection();
        ::close(_listening);
    }
    Q_DISABLE_COPY(Listener)

    bool isListening() const { return _isListening; }
    bool accept()
    {
        _connection = ::accept(_listening, nullptr, nullptr);
        return _connection >= 0;
    }
    void closeConnection()
    {
        if (_connection >= 0)
            ::close(_connection);
        _connection = -1;
    }
    bool send(const std::string &packet)
    {
        return ::send(_connection, packet.data(), packet.size(), 0) == ssize_t(packet.size());
    }
    /** Whether a transfer of the host comes within so many ms. */
    bool hasTransfer(int limit)
    {
        pollfd entry{_connection, POLLIN, 0};
        return ::poll(&entry, 1, limit) > 0;
    }
    std::string receive()
    {
        std::string packet(100000, '\0');
        const ssize_t size = ::recv(_connection, packet.data(), packet.size(), 0);
        packet.resize(size > 0 ? size_t(size) : 0);
        return packet;
    }

private:
    int _listening = -1;
    int _connection = -1;
    bool _isListening = false;
};

#endif
