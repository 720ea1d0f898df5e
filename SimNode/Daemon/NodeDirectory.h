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
    /// crashed daemon left. With an empty path a new folder is made. A folder that was made here is
    /// removed by the destructor, too, unless keep() was called. Throws std::runtime_error with a
    /// text for the user if that cannot be.
    explicit NodeDirectory(const std::string &path);
    ~NodeDirectory();
    NodeDirectory(const NodeDirectory &) = delete;
    NodeDirectory &operator=(const NodeDirectory &) = delete;

    /// The folder as an absolute path.
    const std::string &path() const { return _folder.path; }
    /// The start has succeeded: a folder that the user named stays. One with a name of its own is
    /// removed at the end all the same.
    void keep() { _folder.stays = !_folder.isTemporary; }

    /// Makes the named SOCK_SEQPACKET socket and listens on it. Throws std::runtime_error.
    FileDescriptor listenOn(const char *name) const;

    /// Becomes readable when something happens to the folder; negative where that cannot be
    /// watched.
    int watch() const { return _watch.get(); }
    /// Takes in what watch() told. Throws std::runtime_error if nobody can reach the sockets of
    /// this folder any more.
    void checkIsThere() const;

private:
    // The folder, which goes with this object unless it stays.
    struct Folder
    {
        explicit Folder(const std::string &name);
        ~Folder();
        Folder(const Folder &) = delete;
        Folder &operator=(const Folder &) = delete;

        std::string path;
        bool isTemporary;
        bool stays = true;
    };

    void lock();
    void checkOwner() const;
    void removeOldSockets() const;
    void removeSockets() const;
    bool isThere() const;

    Folder _folder;
    FileDescriptor _lock; // the folder itself, whatever its path leads to by now
    FileDescriptor _watch;
};

} // namespace simnode

#endif
