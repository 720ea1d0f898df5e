// SPDX-License-Identifier: MIT
#ifndef SIMNODE_NODEDIRECTORY_H
#define SIMNODE_NODEDIRECTORY_H

#include "FileDescriptor.h"

#include <string>

namespace simnode {

/// The folder that holds a daemon's sockets, locked against a second daemon.
class NodeDirectory
{
public:
    /// Takes `path` over, making the folder if it is missing and removing the sockets that a
    /// crashed daemon left. With an empty path a new folder is made, which the destructor removes.
    /// Throws std::runtime_error with a text for the user if that cannot be.
    explicit NodeDirectory(const std::string &path);
    ~NodeDirectory();
    NodeDirectory(const NodeDirectory &) = delete;
    NodeDirectory &operator=(const NodeDirectory &) = delete;

    /// The folder as an absolute path.
    const std::string &path() const { return _path; }

    /// Makes the named SOCK_SEQPACKET socket and listens on it. Throws std::runtime_error.
    FileDescriptor listenOn(const char *name) const;

private:
    void lock();
    void removeSockets() const;

    std::string _path;
    bool _isTemporary;
    FileDescriptor _lock;
};

} // namespace simnode

#endif
