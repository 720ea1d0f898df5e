// SPDX-License-Identifier: MIT
//
// Loaded before a program's other libraries, this one answers the system calls on the node and
// hands all others on. It keeps to libc: no C++ run-time library is needed in the programs it
// serves.

#include "DeviceProtocol.h"
#include "SocketAddress.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#define SIMNODE_EXPORT extern "C" __attribute__((visibility("default")))

// With words of 32 bits a program that is compiled with a time of 64 calls another ioctl.
#if __TIMESIZE == 32
#define SIMNODE_HAS_IOCTL_TIME64
#endif

namespace {

using namespace simnode;

// ---- the functions behind the wrapped ones

// The next library in line may be a sanitizer's interceptor, which has to see the calls on other
// files.
template <typename Function>
struct NextFunction
{
    const char *name;
    std::atomic<Function *> pointer{nullptr};

    explicit constexpr NextFunction(const char *functionName) : name(functionName) {}

    Function *resolve()
    {
        Function *found = pointer.load(std::memory_order_relaxed);
        if (found == nullptr) {
            found = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
            pointer.store(found, std::memory_order_relaxed);
        }
        return found;
    }

    template <typename... Arguments>
    auto operator()(Arguments... arguments)
    {
        return resolve()(arguments...);
    }
};

NextFunction<int(const char *, int, ...)> nextOpen("open");
NextFunction<int(const char *, int, ...)> nextOpen64("open64");
NextFunction<int(int, const char *, int, ...)> nextOpenat("openat");
NextFunction<int(int, const char *, int, ...)> nextOpenat64("openat64");
NextFunction<int(const char *, int)> nextOpen2("__open_2");
NextFunction<int(const char *, int)> nextOpen642("__open64_2");
NextFunction<int(int, const char *, int)> nextOpenat2("__openat_2");
NextFunction<int(int, const char *, int)> nextOpenat642("__openat64_2");
NextFunction<ssize_t(int, void *, size_t)> nextRead("read");
NextFunction<ssize_t(int, void *, size_t, size_t)> nextReadChk("__read_chk");
NextFunction<ssize_t(int, const void *, size_t)> nextWrite("write");
NextFunction<int(int, unsigned long, ...)> nextIoctl("ioctl");
#ifdef SIMNODE_HAS_IOCTL_TIME64
NextFunction<int(int, unsigned long, ...)> nextIoctlTime64("__ioctl_time64");
#endif
NextFunction<int(int)> nextClose("close");

// Looked up before the program runs, because dlsym is not allowed in a signal handler or between
// vfork and exec. The calls look again only when another library's constructor comes first.
__attribute__((constructor)) void resolveAll()
{
    nextOpen.resolve();
    nextOpen64.resolve();
    nextOpenat.resolve();
    nextOpenat64.resolve();
    nextOpen2.resolve();
    nextOpen642.resolve();
    nextOpenat2.resolve();
    nextOpenat642.resolve();
    nextRead.resolve();
    nextReadChk.resolve();
    nextWrite.resolve();
    nextIoctl.resolve();
#ifdef SIMNODE_HAS_IOCTL_TIME64
    nextIoctlTime64.resolve();
#endif
    nextClose.resolve();
}

// ---- which descriptors are the node

struct Descriptor
{
    std::atomic<std::uint32_t> handle; // 0: not the node
    std::atomic<unsigned long> inode;
};

constexpr int maxDescriptors = 65536;
Descriptor descriptors[maxDescriptors];

// Not from fstat, which fails after 2038 where a word has 32 bits.
unsigned long inodeOf(int fd)
{
    struct statx status;
    return statx(fd, "", AT_EMPTY_PATH, STATX_INO, &status) == 0
               ? static_cast<unsigned long>(status.stx_ino)
               : 0;
}

void remember(int fd, std::uint32_t handle)
{
    descriptors[fd].inode.store(inodeOf(fd), std::memory_order_relaxed);
    descriptors[fd].handle.store(handle, std::memory_order_release);
}

void forget(int fd)
{
    if (fd >= 0 && fd < maxDescriptors)
        descriptors[fd].handle.store(0, std::memory_order_relaxed);
}

// The node's handle behind a descriptor, 0 for any other file. A descriptor that was closed by a
// call that is not wrapped (dup2, close_range, libc itself) may name another file by now: the inode
// tells.
std::uint32_t nodeHandle(int fd)
{
    if (fd < 0 || fd >= maxDescriptors)
        return 0;
    Descriptor &descriptor = descriptors[fd];
    std::uint32_t handle = descriptor.handle.load(std::memory_order_acquire);
    if (handle == 0)
        return 0;
    if (descriptor.inode.load(std::memory_order_relaxed) == inodeOf(fd))
        return handle;
    descriptor.handle.compare_exchange_strong(handle, 0);
    return 0;
}

// ---- one request and its reply

struct Exchange
{
    DeviceRequest request;
    const void *outgoing; // bytes of a write
    std::size_t outgoingSize;
    void *incoming; // buffer of a read
    std::size_t incomingSize;
    DeviceReply reply;
};

Exchange makeExchange(Call call, std::uint32_t handle)
{
    Exchange exchange = {};
    exchange.request.version = protocolVersion;
    exchange.request.call = call;
    exchange.request.handle = handle;
    return exchange;
}

int openConnection(bool closeOnExec)
{
    return socket(AF_UNIX, SOCK_SEQPACKET | (closeOnExec ? SOCK_CLOEXEC : 0), 0);
}

// The connection is shut down as well, since a process forked meanwhile may hold a copy of it.
void endConnection(void *argument)
{
    const int connection = *static_cast<int *>(argument);
    shutdown(connection, SHUT_RDWR);
    nextClose(connection);
}

bool sendRequest(int connection, const Exchange &exchange)
{
    iovec parts[2] = {{const_cast<DeviceRequest *>(&exchange.request), sizeof(DeviceRequest)},
                      {const_cast<void *>(exchange.outgoing), exchange.outgoingSize}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = exchange.outgoingSize > 0 ? 2 : 1;
    return sendmsg(connection, &message, MSG_NOSIGNAL) >= 0;
}

ssize_t receiveReply(int connection, Exchange &exchange)
{
    iovec parts[2] = {{&exchange.reply, sizeof(DeviceReply)},
                      {exchange.incoming, exchange.incomingSize}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = exchange.incomingSize > 0 ? 2 : 1;
    return recvmsg(connection, &message, 0);
}

// A signal takes the call back: the daemon answers the end of our sending side by ending the
// connection, unless its reply was already under way; then the call has happened and counts.
ssize_t receiveAfterSignal(int connection, Exchange &exchange)
{
    shutdown(connection, SHUT_WR);
    ssize_t received;
    do {
        received = receiveReply(connection, exchange);
    } while (received < 0 && errno == EINTR);
    if (received > 0)
        return received;
    errno = EINTR;
    return -1;
}

// Connects, asks and waits; a thread can be cancelled anywhere in here. `deadError` is the errno
// that stands for a daemon that is gone. Returns the call's result.
int transact(int connection, const sockaddr_un &address, Exchange &exchange, int deadError)
{
    if (connect(connection, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        !sendRequest(connection, exchange)) {
        if (errno != EINTR && errno != EFAULT)
            errno = deadError;
        return -1;
    }
    ssize_t received = receiveReply(connection, exchange);
    if (received < 0 && errno == EINTR)
        received = receiveAfterSignal(connection, exchange);
    if (received < static_cast<ssize_t>(sizeof(DeviceReply))) {
        if (received >= 0 || (errno != EINTR && errno != EFAULT))
            errno = deadError;
        return -1;
    }
    if (exchange.reply.result < 0)
        errno = exchange.reply.error;
    return exchange.reply.result;
}

// ---- the node's calls

// The daemon's folder if the path is the node and a daemon was named, else null.
const char *directoryOf(const char *path)
{
    if (path == nullptr || std::strcmp(path, nodePath) != 0)
        return nullptr;
    const char *directory = std::getenv(directoryVariable);
    return directory != nullptr && directory[0] != '\0' ? directory : nullptr;
}

int openConnected(int connection, const sockaddr_un &address, int flags)
{
    Exchange exchange = makeExchange(Call::Open, 0);
    exchange.request.argument = static_cast<std::uint32_t>(flags);
    int result = -1;
    pthread_cleanup_push(endConnection, &connection);
    result = transact(connection, address, exchange, ENOENT);
    pthread_cleanup_pop(0);
    if (result < 0)
        return -1;
    if (connection >= maxDescriptors) {
        errno = EMFILE;
        return -1;
    }
    remember(connection, exchange.reply.handle);
    return connection;
}

int openNode(const char *directory, int flags)
{
    const int savedErrno = errno;
    sockaddr_un address;
    if (!makeSocketAddress(directory, deviceSocketName, address)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    int connection = openConnection((flags & O_CLOEXEC) != 0);
    if (connection < 0)
        return -1;
    if (openConnected(connection, address, flags) < 0) {
        const int error = errno;
        endConnection(&connection);
        errno = error;
        return -1;
    }
    errno = savedErrno;
    return connection;
}

// Ends the connection also when the thread is cancelled meanwhile.
int transactAndEnd(int connection, const sockaddr_un &address, Exchange &exchange)
{
    int result = -1;
    pthread_cleanup_push(endConnection, &connection);
    result = transact(connection, address, exchange, ENODEV);
    pthread_cleanup_pop(0);
    const int error = errno;
    endConnection(&connection);
    errno = error;
    return result;
}

// Read, write and ioctl: the daemon's address is that of the descriptor's own connection, so that
// neither a changed environment nor a changed working folder matters after the open.
int callNode(int fd, Exchange &exchange)
{
    const int savedErrno = errno;
    sockaddr_un address = {};
    socklen_t addressSize = sizeof(address);
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&address), &addressSize) != 0) {
        errno = ENODEV;
        return -1;
    }
    const int connection = openConnection(true);
    if (connection < 0)
        return -1;
    const int result = transactAndEnd(connection, address, exchange);
    if (result >= 0)
        errno = savedErrno;
    return result;
}

ssize_t readNode(int fd, std::uint32_t handle, void *buffer, size_t size)
{
    Exchange exchange = makeExchange(Call::Read, handle);
    exchange.incoming = buffer;
    exchange.incomingSize = size < maxTransferSize ? size : maxTransferSize;
    exchange.request.argument = static_cast<std::uint32_t>(exchange.incomingSize);
    return callNode(fd, exchange);
}

ssize_t writeNode(int fd, std::uint32_t handle, const void *buffer, size_t size)
{
    if (size > maxTransferSize) {
        errno = EMSGSIZE;
        return -1;
    }
    Exchange exchange = makeExchange(Call::Write, handle);
    exchange.outgoing = buffer;
    exchange.outgoingSize = size;
    return callNode(fd, exchange);
}

int ioctlNode(int fd, std::uint32_t handle, unsigned long request, const void *argument)
{
    Exchange exchange = makeExchange(Call::Ioctl, handle);
    exchange.request.argument = static_cast<std::uint32_t>(request);
    exchange.request.value = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(argument));
    // C++ callers take ioctl for a function that never unwinds, so it must not be cancelled.
    int cancelState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    const int result = callNode(fd, exchange);
    pthread_setcancelstate(cancelState, nullptr);
    return result;
}

bool hasMode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

} // namespace

// ---- the wrapped functions, their parameters named as in the C library's headers

// clang-tidy 14 loses sight of va_start when it is given another file before this one.
// NOLINTBEGIN(clang-analyzer-valist.Uninitialized)
SIMNODE_EXPORT int open(const char *file, int oflag, ...)
{
    if (const char *node = directoryOf(file))
        return openNode(node, oflag);
    va_list arguments;
    va_start(arguments, oflag);
    const mode_t mode = hasMode(oflag) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return nextOpen(file, oflag, mode);
}

SIMNODE_EXPORT int open64(const char *file, int oflag, ...)
{
    if (const char *node = directoryOf(file))
        return openNode(node, oflag);
    va_list arguments;
    va_start(arguments, oflag);
    const mode_t mode = hasMode(oflag) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return nextOpen64(file, oflag, mode);
}

SIMNODE_EXPORT int openat(int fd, const char *file, int oflag, ...)
{
    if (const char *node = directoryOf(file))
        return openNode(node, oflag);
    va_list arguments;
    va_start(arguments, oflag);
    const mode_t mode = hasMode(oflag) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return nextOpenat(fd, file, oflag, mode);
}

SIMNODE_EXPORT int openat64(int fd, const char *file, int oflag, ...)
{
    if (const char *node = directoryOf(file))
        return openNode(node, oflag);
    va_list arguments;
    va_start(arguments, oflag);
    const mode_t mode = hasMode(oflag) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return nextOpenat64(fd, file, oflag, mode);
}

// NOLINTEND(clang-analyzer-valist.Uninitialized)

SIMNODE_EXPORT int __open_2(const char *path, int flags)
{
    const char *node = directoryOf(path);
    return node != nullptr ? openNode(node, flags) : nextOpen2(path, flags);
}

SIMNODE_EXPORT int __open64_2(const char *path, int flags)
{
    const char *node = directoryOf(path);
    return node != nullptr ? openNode(node, flags) : nextOpen642(path, flags);
}

SIMNODE_EXPORT int __openat_2(int directory, const char *path, int flags)
{
    const char *node = directoryOf(path);
    return node != nullptr ? openNode(node, flags) : nextOpenat2(directory, path, flags);
}

SIMNODE_EXPORT int __openat64_2(int directory, const char *path, int flags)
{
    const char *node = directoryOf(path);
    return node != nullptr ? openNode(node, flags) : nextOpenat642(directory, path, flags);
}

SIMNODE_EXPORT ssize_t read(int fd, void *buf, size_t nbytes)
{
    const std::uint32_t handle = nodeHandle(fd);
    return handle == 0 ? nextRead(fd, buf, nbytes) : readNode(fd, handle, buf, nbytes);
}

SIMNODE_EXPORT ssize_t __read_chk(int fd, void *buffer, size_t size, size_t bufferSize)
{
    const std::uint32_t handle = nodeHandle(fd);
    const bool overflows = size > bufferSize; // the C library then ends the program
    return handle == 0 || overflows ? nextReadChk(fd, buffer, size, bufferSize)
                                    : readNode(fd, handle, buffer, size);
}

SIMNODE_EXPORT ssize_t write(int fd, const void *buf, size_t n)
{
    const std::uint32_t handle = nodeHandle(fd);
    return handle == 0 ? nextWrite(fd, buf, n) : writeNode(fd, handle, buf, n);
}

SIMNODE_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    const std::uint32_t handle = nodeHandle(fd);
    return handle == 0 ? nextIoctl(fd, request, argument)
                       : ioctlNode(fd, handle, request, argument);
}

#ifdef SIMNODE_HAS_IOCTL_TIME64
SIMNODE_EXPORT int __ioctl_time64(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    const std::uint32_t handle = nodeHandle(fd);
    return handle == 0 ? nextIoctlTime64(fd, request, argument)
                       : ioctlNode(fd, handle, request, argument);
}
#endif

// Forgotten first: right after the real close another thread may open the node on the same number.
SIMNODE_EXPORT int close(int fd)
{
    forget(fd);
    return nextClose(fd);
}
