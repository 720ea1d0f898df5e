// SPDX-License-Identifier: MIT
#ifndef USBHAL_LISTENINGSOCKET_H
#define USBHAL_LISTENINGSOCKET_H

#include "ForwardAddress.h"

#include <optional>
#include <string>

/** A connection that was accepted, for its new owner to close. */
struct Connection
{
    int fd = -1;
    std::string name; ///< who is at the other end
};

/** Connects to a UNIX socket. Negative, with errno, when nobody listens there. */
int connectToPath(const std::string &path);

/**
 * A TCP or UNIX socket that clients connect to, and that never waits for one. A UNIX socket is for
 * the user alone; one that a killed program has left behind is replaced.
 */
class ListeningSocket
{
public:
    /** Listens on the first address of the name that it can. Failure when there is none. */
    explicit ListeningSocket(const ForwardAddress &address);
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket &) = delete;
    ListeningSocket &operator=(const ListeningSocket &) = delete;

    /** Whether a client waits. */
    bool isCalled() const;
    /**
     * The next client that waits, if there is one. A Failure says that there may be one, and no
     * descriptor for it.
     */
    std::optional<Connection> accept() const;

    /** The address in numbers, or the path. */
    const std::string &name() const { return _name; }

private:
    void _listenOnTcp(const ForwardAddress &address);
    void _listenOnPath();
    std::string _peerOf(int fd) const;

    std::string _path; // empty for TCP
    std::string _name;
    int _fd = -1;
};

#endif
