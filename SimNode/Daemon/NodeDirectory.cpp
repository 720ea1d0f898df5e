// SPDX-License-Identifier: MIT
#include "NodeDirectory.h"

#include "DeviceProtocol.h"
#include "SocketAddress.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>

namespace simnode {

namespace {

constexpr std::array<const char *, 3> socketNames = {deviceSocketName, hostSocketName,
                                                     controlSocketName};

/// What is made meanwhile has the rights that `mask` leaves, whatever the user's own mask is.
class FileMask
{
public:
    explicit FileMask(mode_t mask) : _before(umask(mask)) {}
    ~FileMask() { umask(_before); }
    FileMask(const FileMask &) = delete;
    FileMask &operator=(const FileMask &) = delete;

private:
    mode_t _before;
};

[[noreturn]] void fail(const std::string &what, int error)
{
    throw std::runtime_error(what + ": " + std::strerror(error));
}

std::string makeTemporaryDirectory()
{
    const FileMask forTheUserOnly(S_IRWXG | S_IRWXO);
    const char *parent = std::getenv("TMPDIR");
    std::string path =
        std::string(parent != nullptr && *parent != '\0' ? parent : "/tmp") + "/simnode-XXXXXX";
    if (mkdtemp(path.data()) == nullptr)
        fail("cannot make the folder " + path, errno);
    return path;
}

// Whether the folder is new.
bool makeDirectory(const std::string &path)
{
    const FileMask forTheUserOnly(S_IRWXG | S_IRWXO);
    if (mkdir(path.c_str(), S_IRWXU) == 0)
        return true;
    if (errno != EEXIST)
        fail("cannot make the folder " + path, errno);
    return false;
}

bool isSameFile(const struct stat &one, const struct stat &other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

} // namespace

NodeDirectory::Folder::Folder(const std::string &name)
    : path(name.empty() ? makeTemporaryDirectory() : name), isTemporary(name.empty())
{
    stays = !isTemporary && !makeDirectory(path);
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::canonical(path, error);
    if (error)
        fail("cannot use the folder " + path, error.value());
    path = absolute.string();
}

NodeDirectory::Folder::~Folder()
{
    std::error_code ignored;
    if (isTemporary)
        std::filesystem::remove_all(path, ignored);
    else if (!stays)
        rmdir(path.c_str());
}

NodeDirectory::NodeDirectory(const std::string &path) : _folder(path)
{
    if (_folder.path.size() > maxDirectoryLength)
        throw std::runtime_error(
            "the folder's name " + _folder.path + " has " + std::to_string(_folder.path.size()) +
            " bytes; it should have at most " + std::to_string(maxDirectoryLength) +
            ", or its sockets have no address");
    _lock = FileDescriptor(open(_folder.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!_lock.isOpen())
        fail("cannot use the folder " + _folder.path, errno);
    checkOwner();
    lock();
    removeOldSockets();
    // Where the system has no watch left the node works all the same.
    _watch = FileDescriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    inotify_add_watch(_watch.get(), _folder.path.c_str(),
                      IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
}

NodeDirectory::~NodeDirectory()
{
    removeSockets();
}

// The kernel drops the lock with its owner, so a crashed daemon blocks nobody.
void NodeDirectory::lock()
{
    if (flock(_lock.get(), LOCK_EX | LOCK_NB) == 0)
        return;
    if (errno == EWOULDBLOCK)
        throw std::runtime_error("the folder " + _folder.path +
                                 " is in use by another simnode; stop that one or choose another "
                                 "folder with --dir");
    fail("cannot lock the folder " + _folder.path, errno);
}

// Who may write into the folder may put sockets of his own in the place of these.
void NodeDirectory::checkOwner() const
{
    struct stat status;
    if (fstat(_lock.get(), &status) != 0)
        fail("cannot use the folder " + _folder.path, errno);
    if (status.st_uid != geteuid())
        throw std::runtime_error("the folder " + _folder.path +
                                 " belongs to another user; choose another folder with --dir");
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        throw std::runtime_error("others may write into the folder " + _folder.path +
                                 "; forbid it with chmod go-w, or choose another folder with "
                                 "--dir");
}

void NodeDirectory::removeOldSockets() const
{
    for (const char *name : socketNames) {
        struct stat status;
        if (fstatat(_lock.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            !S_ISSOCK(status.st_mode))
            throw std::runtime_error(_folder.path + "/" + name +
                                     " is no socket; choose another folder with --dir");
    }
    removeSockets();
}

// In the folder itself, since its path may lead to that of another daemon by now.
void NodeDirectory::removeSockets() const
{
    for (const char *name : socketNames)
        unlinkat(_lock.get(), name, 0);
}

FileDescriptor NodeDirectory::listenOn(const char *name) const
{
    const FileMask forTheUserOnly(S_IXUSR | S_IRWXG | S_IRWXO);
    sockaddr_un address;
    const std::string path = _folder.path + "/" + name;
    if (!makeSocketAddress(_folder.path.c_str(), name, address))
        fail("cannot make the socket " + path, ENAMETOOLONG);
    unlinkat(_lock.get(), name, 0);
    FileDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.isOpen() ||
        bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(socket.get(), SOMAXCONN) != 0)
        fail("cannot make the socket " + path, errno);
    return socket;
}

void NodeDirectory::checkIsThere() const
{
    std::array<char, 4096> events; // what they tell is looked at anew
    while (read(_watch.get(), events.data(), events.size()) > 0) {
    }
    if (!isThere())
        throw std::runtime_error("the folder " + _folder.path +
                                 " was removed or moved, so nobody reaches this node any more; "
                                 "start simnode again");
}

// The host's socket comes and goes with the cable; the others stay.
bool NodeDirectory::isThere() const
{
    struct stat own;
    struct stat found;
    return fstat(_lock.get(), &own) == 0 && stat(_folder.path.c_str(), &found) == 0 &&
           isSameFile(own, found) && faccessat(_lock.get(), deviceSocketName, F_OK, 0) == 0 &&
           faccessat(_lock.get(), controlSocketName, F_OK, 0) == 0;
}

} // namespace simnode
