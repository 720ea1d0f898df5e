// SPDX-License-Identifier: MIT
#include "NodeDirectory.h"

#include "DeviceProtocol.h"
#include "SocketAddress.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>

namespace simnode {

namespace {

[[noreturn]] void fail(const std::string &what, int error)
{
    throw std::runtime_error(what + ": " + std::strerror(error));
}

std::string makeTemporaryDirectory()
{
    const char *parent = std::getenv("TMPDIR");
    std::string path =
        std::string(parent != nullptr && *parent != '\0' ? parent : "/tmp") + "/simnode-XXXXXX";
    if (mkdtemp(path.data()) == nullptr)
        fail("cannot make the folder " + path, errno);
    return path;
}

std::string makeDirectory(const std::string &path)
{
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        fail("cannot make the folder " + path, errno);
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::canonical(path, error);
    if (error)
        fail("cannot use the folder " + path, error.value());
    return absolute.string();
}

} // namespace

NodeDirectory::NodeDirectory(const std::string &path)
    : _path(makeDirectory(path.empty() ? makeTemporaryDirectory() : path)),
      _isTemporary(path.empty())
{
    if (_path.size() > maxDirectoryLength)
        throw std::runtime_error("the folder's name " + _path + " has " +
                                 std::to_string(_path.size()) + " bytes; it should have at most " +
                                 std::to_string(maxDirectoryLength) +
                                 ", or its sockets have no address");
    lock();
    removeSockets();
}

NodeDirectory::~NodeDirectory()
{
    std::error_code ignored;
    if (_isTemporary) {
        std::filesystem::remove_all(_path, ignored);
        return;
    }
    for (const char *name : {deviceSocketName, hostSocketName, controlSocketName})
        std::filesystem::remove(std::filesystem::path(_path) / name, ignored);
}

// The kernel drops the lock with its owner, so a crashed daemon blocks nobody.
void NodeDirectory::lock()
{
    _lock = FileDescriptor(open(_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!_lock.isOpen())
        fail("cannot use the folder " + _path, errno);
    if (flock(_lock.get(), LOCK_EX | LOCK_NB) == 0)
        return;
    if (errno == EWOULDBLOCK)
        throw std::runtime_error("the folder " + _path +
                                 " is in use by another simnode; stop that one or choose another "
                                 "folder with --dir");
    fail("cannot lock the folder " + _path, errno);
}

void NodeDirectory::removeSockets() const
{
    for (const char *name : {deviceSocketName, hostSocketName, controlSocketName}) {
        const std::filesystem::path path = std::filesystem::path(_path) / name;
        std::error_code ignored;
        const std::filesystem::file_status status = std::filesystem::symlink_status(path, ignored);
        if (!std::filesystem::exists(status))
            continue;
        if (!std::filesystem::is_socket(status))
            throw std::runtime_error(path.string() +
                                     " is no socket; choose another folder with --dir");
        std::filesystem::remove(path, ignored);
    }
}

FileDescriptor NodeDirectory::listenOn(const char *name) const
{
    sockaddr_un address;
    const std::string path = _path + "/" + name;
    if (!makeSocketAddress(_path.c_str(), name, address))
        fail("cannot make the socket " + path, ENAMETOOLONG);
    unlink(path.c_str());
    FileDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.isOpen() ||
        bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(socket.get(), SOMAXCONN) != 0)
        fail("cannot make the socket " + path, errno);
    return socket;
}

} // namespace simnode
