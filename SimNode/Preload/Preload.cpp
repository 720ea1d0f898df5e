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
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#define SIMNODE_EXPORT extern "C" __attribute__((visibility("default")))

// With words of 32 bits a program that is compiled with a time of 64 calls others of these
// functions.
#if __TIMESIZE == 32
#define SIMNODE_HAS_TIME64
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
NextFunction<int(int)> nextClose("close");
NextFunction<int(int)> nextDup("dup");
NextFunction<int(int, int)> nextDup2("dup2");
NextFunction<int(int, int, int)> nextDup3("dup3");
NextFunction<int(int, int, ...)> nextFcntl("fcntl");
NextFunction<int(int, int, ...)> nextFcntl64("fcntl64");
NextFunction<ssize_t(int, msghdr *, int)> nextRecvmsg("recvmsg");
NextFunction<int(int, mmsghdr *, unsigned, int, timespec *)> nextRecvmmsg("recvmmsg");
#ifdef SIMNODE_HAS_TIME64
NextFunction<int(int, unsigned long, ...)> nextIoctlTime64("__ioctl_time64");
NextFunction<int(int, int, ...)> nextFcntlTime64("__fcntl_time64");
NextFunction<ssize_t(int, msghdr *, int)> nextRecvmsg64("__recvmsg64");
NextFunction<int(int, mmsghdr *, unsigned, int, void *)> nextRecvmmsg64("__recvmmsg64");
#endif

// Looked up before the program runs, because dlsym is not allowed in a signal handler or between
// vfork and exec. The calls look again only when another library's constructor comes first.
void resolveAll()
{
    const auto resolve = [](auto &...functions) { (functions.resolve(), ...); };
    resolve(nextOpen, nextOpen64, nextOpenat, nextOpenat64, nextOpen2, nextOpen642, nextOpenat2,
            nextOpenat642, nextRead, nextReadChk, nextWrite, nextIoctl, nextClose);
    resolve(nextDup, nextDup2, nextDup3, nextFcntl, nextFcntl64, nextRecvmsg, nextRecvmmsg);
#ifdef SIMNODE_HAS_TIME64
    resolve(nextIoctlTime64, nextFcntlTime64, nextRecvmsg64, nextRecvmmsg64);
#endif
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
    if (fd < 0 || fd >= maxDescriptors)
        return;
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

// A copy of a descriptor is the node as well, or takes the number of what was the node before.
int rememberCopy(int copy, std::uint32_t handle)
{
    if (copy >= 0 && handle != 0)
        remember(copy, handle);
    else if (copy >= 0)
        forget(copy);
    return copy;
}

// ---- descriptors from other programs

constexpr int handleDigits = 8;
constexpr std::size_t prefixSize = sizeof(descriptorNamePrefix) - 1;
constexpr std::size_t nameSize = prefixSize + handleDigits;

int digitValue(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    return digit >= 'a' && digit <= 'f' ? digit - 'a' + 10 : -1;
}

sockaddr_un nameOfHandle(std::uint32_t handle)
{
    sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, descriptorNamePrefix, prefixSize);
    for (int i = 0; i < handleDigits; ++i)
        name.sun_path[prefixSize + static_cast<std::size_t>(i)] =
            "0123456789abcdef"[handle >> (4 * (handleDigits - 1 - i)) & 15U];
    return name;
}

// 0 for any file that is not the node's.
std::uint32_t handleInName(int fd)
{
    sockaddr_un name = {};
    socklen_t size = sizeof(name);
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size) != 0 ||
        name.sun_family != AF_UNIX || size < offsetof(sockaddr_un, sun_path) + nameSize ||
        std::memcmp(name.sun_path, descriptorNamePrefix, prefixSize) != 0)
        return 0;
    std::uint32_t handle = 0;
    for (std::size_t i = prefixSize; i < nameSize; ++i) {
        const int value = digitValue(name.sun_path[i]);
        if (value < 0)
            return 0;
        handle = handle << 4 | static_cast<std::uint32_t>(value);
    }
    return handle;
}

// A descriptor that came into this program otherwise than by a call on another of its own.
void adopt(int fd)
{
    const int savedErrno = errno;
    if (const std::uint32_t handle = handleInName(fd))
        remember(fd, handle);
    errno = savedErrno;
}

void adoptReceived(msghdr &message)
{
    for (cmsghdr *header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
            continue;
        const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(fd));
            adopt(fd);
        }
    }
}

int adoptReceived(mmsghdr *messages, int count)
{
    for (int i = 0; i < count; ++i)
        adoptReceived(messages[i].msg_hdr);
    return count;
}

// Those that were open across exec.
void adoptInherited()
{
    if (std::getenv(directoryVariable) == nullptr)
        return;
    DIR *folder = opendir("/proc/self/fd");
    if (folder == nullptr)
        return;
    while (const dirent64 *entry = readdir64(folder)) {
        if (digitValue(entry->d_name[0]) >= 0)
            adopt(std::atoi(entry->d_name));
    }
    closedir(folder);
}

__attribute__((constructor)) void begin()
{
    resolveAll();
    adoptInherited();
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

void limitWait(int connection, timeval limit)
{
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
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
    return nextRecvmsg(connection, &message, 0);
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

// Gives the program's end of a new descriptor its name. Returns its handle, 0 if that cannot be.
std::uint32_t nameConnection(int connection)
{
    for (;;) {
        std::uint32_t handle = 0;
        if (getrandom(&handle, sizeof(handle), 0) != sizeof(handle) && errno != EINTR)
            return 0;
        const sockaddr_un name = nameOfHandle(handle);
        constexpr socklen_t size = offsetof(sockaddr_un, sun_path) + nameSize;
        const bool isNamed =
            handle != 0 && bind(connection, reinterpret_cast<const sockaddr *>(&name), size) == 0;
        if (isNamed || (handle != 0 && errno != EADDRINUSE))
            return isNamed ? handle : 0;
    }
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
    Exchange exchange = makeExchange(Call::Open, nameConnection(connection));
    if (exchange.request.handle == 0)
        return -1;
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
    // A read around this library fails with EAGAIN; it would else wait for ever.
    limitWait(connection, {0, 1});
    remember(connection, exchange.reply.handle);
    return connection;
}

// Ends the connection also when the thread is cancelled meanwhile.
int transactAndEnd(int connection, const sockaddr_un &address, Exchange &exchange, int deadError)
{
    int result = -1;
    pthread_cleanup_push(endConnection, &connection);
    result = transact(connection, address, exchange, deadError);
    pthread_cleanup_pop(0);
    const int error = errno;
    endConnection(&connection);
    errno = error;
    return result;
}

int connectToNode(const sockaddr_un &address, int flags)
{
    int connection = openConnection((flags & O_CLOEXEC) != 0);
    if (connection >= 0 && openConnected(connection, address, flags) < 0) {
        const int error = errno;
        endConnection(&connection);
        errno = error;
        return -1;
    }
    return connection;
}

// O_PATH names a file and does not open it: the descriptor is that of the daemon's socket, on which
// the kernel refuses all transfers, as on that of a device.
int lookAtNode(const sockaddr_un &address, int flags)
{
    const int connection = openConnection(true);
    if (connection < 0)
        return -1;
    Exchange exchange = makeExchange(Call::Look, 0);
    const bool isThere = transactAndEnd(connection, address, exchange, ENOENT) == 0;
    return isThere ? nextOpen(address.sun_path, flags) : -1;
}

int openNode(const char *directory, int flags)
{
    const int savedErrno = errno;
    sockaddr_un address;
    if (!makeSocketAddress(directory, deviceSocketName, address)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const int fd =
        (flags & O_PATH) != 0 ? lookAtNode(address, flags) : connectToNode(address, flags);
    if (fd >= 0)
        errno = savedErrno;
    return fd;
}

// As long as it lives, the thread is not cancelled.
class Uncancelled
{
public:
    Uncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &_state); }
    ~Uncancelled() { pthread_setcancelstate(_state, nullptr); }
    Uncancelled(const Uncancelled &) = delete;
    Uncancelled &operator=(const Uncancelled &) = delete;

private:
    int _state = PTHREAD_CANCEL_ENABLE;
};

// Takes the packet out by which poll saw a waiting transfer.
void drain(int fd, std::uint32_t handle)
{
    const Uncancelled here;
    char nothing = 0;
    if (nodeHandle(fd) == handle)
        recv(fd, &nothing, sizeof(nothing), MSG_DONTWAIT);
}

// Read, write, ioctl and close: the daemon's address is that of the descriptor's own connection, so
// that neither a changed environment nor a changed working folder matters after the open.
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
    // No close waits for a daemon that hangs.
    if (exchange.request.call == Call::Close)
        limitWait(connection, {2, 0});
    const int result = transactAndEnd(connection, address, exchange, ENODEV);
    const int error = result < 0 ? errno : savedErrno;
    if (exchange.reply.isDrained != 0)
        drain(fd, exchange.request.handle);
    errno = error;
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
    const Uncancelled here;
    return callNode(fd, exchange);
}

// A close that fails has closed all the same, as on any Linux. Only the daemon makes it fail: a
// daemon that is gone is nothing to tell a program that closes.
int closeNode(int fd, std::uint32_t handle)
{
    const int savedErrno = errno;
    const Uncancelled here; // a thread that was cancelled half-way would leave the descriptor open
    Exchange exchange = makeExchange(Call::Close, handle);
    callNode(fd, exchange);
    // Right after the real close another thread may open the node on the same number.
    forget(fd);
    errno = savedErrno;
    const int result = nextClose(fd);
    if (result != 0 || exchange.reply.error == 0)
        return result;
    errno = exchange.reply.error;
    return -1;
}

template <typename Fcntl>
int fcntlWith(NextFunction<Fcntl> &next, int fd, int command, void *argument)
{
    const bool isCopy = command == F_DUPFD || command == F_DUPFD_CLOEXEC;
    const std::uint32_t handle = isCopy ? nodeHandle(fd) : 0;
    const int result = next(fd, command, argument);
    return isCopy ? rememberCopy(result, handle) : result;
}

// A mode follows the flags where these ask for one only.
mode_t modeIn(va_list arguments, int flags)
{
    const bool hasMode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return hasMode ? va_arg(arguments, mode_t) : 0;
}

// Opens the node, or any other file by the C library's own function with all that it takes.
template <typename Open, typename... Arguments>
int openAny(NextFunction<Open> &next, const char *path, int flags, Arguments... arguments)
{
    const char *node = directoryOf(path);
    return node != nullptr ? openNode(node, flags) : next(arguments...);
}

} // namespace

// ---- the wrapped functions, their parameters named as in the C library's headers

// clang-tidy 14 loses sight of va_start when it is given another file before this one.
// NOLINTBEGIN(clang-analyzer-valist.Uninitialized)
SIMNODE_EXPORT int open(const char *file, int oflag, ...)
{
    va_list arguments;
    va_start(arguments, oflag);
    const mode_t mode = modeIn(arguments, oflag);
    va_end(arguments);
    return openAny(nextOpen, file, oflag, file, oflag, mode);
}

SIMNODE_EXPORT int open64(const char *file, int oflag, ...)
{
    va_list arguments;
    va_start(arguments, oflag);
    const mode_t mode = modeIn(arguments, oflag);
    va_end(arguments);
    return openAny(nextOpen64, file, oflag, file, oflag, mode);
}

SIMNODE_EXPORT int openat(int fd, const char *file, int oflag, ...)
{
    va_list arguments;
    va_start(arguments, oflag);
    const mode_t mode = modeIn(arguments, oflag);
    va_end(arguments);
    return openAny(nextOpenat, file, oflag, fd, file, oflag, mode);
}

SIMNODE_EXPORT int openat64(int fd, const char *file, int oflag, ...)
{
    va_list arguments;
    va_start(arguments, oflag);
    const mode_t mode = modeIn(arguments, oflag);
    va_end(arguments);
    return openAny(nextOpenat64, file, oflag, fd, file, oflag, mode);
}

// NOLINTEND(clang-analyzer-valist.Uninitialized)

SIMNODE_EXPORT int __open_2(const char *path, int flags)
{
    return openAny(nextOpen2, path, flags, path, flags);
}

SIMNODE_EXPORT int __open64_2(const char *path, int flags)
{
    return openAny(nextOpen642, path, flags, path, flags);
}

SIMNODE_EXPORT int __openat_2(int directory, const char *path, int flags)
{
    return openAny(nextOpenat2, path, flags, directory, path, flags);
}

SIMNODE_EXPORT int __openat64_2(int directory, const char *path, int flags)
{
    return openAny(nextOpenat642, path, flags, directory, path, flags);
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

#ifdef SIMNODE_HAS_TIME64
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

SIMNODE_EXPORT int close(int fd)
{
    const std::uint32_t handle = nodeHandle(fd);
    return handle == 0 ? nextClose(fd) : closeNode(fd, handle);
}

SIMNODE_EXPORT int dup(int fd) noexcept
{
    const std::uint32_t handle = nodeHandle(fd);
    return rememberCopy(nextDup(fd), handle);
}

SIMNODE_EXPORT int dup2(int fd, int fd2) noexcept
{
    const std::uint32_t handle = nodeHandle(fd);
    return rememberCopy(nextDup2(fd, fd2), handle);
}

SIMNODE_EXPORT int dup3(int fd, int fd2, int flags) noexcept
{
    const std::uint32_t handle = nodeHandle(fd);
    return rememberCopy(nextDup3(fd, fd2, flags), handle);
}

SIMNODE_EXPORT int fcntl(int fd, int cmd, ...)
{
    va_list arguments;
    va_start(arguments, cmd);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return fcntlWith(nextFcntl, fd, cmd, argument);
}

SIMNODE_EXPORT int fcntl64(int fd, int cmd, ...)
{
    va_list arguments;
    va_start(arguments, cmd);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return fcntlWith(nextFcntl64, fd, cmd, argument);
}

SIMNODE_EXPORT ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    const ssize_t size = nextRecvmsg(fd, message, flags);
    if (size >= 0)
        adoptReceived(*message);
    return size;
}

SIMNODE_EXPORT int recvmmsg(int fd, mmsghdr *vmessages, unsigned int vlen, int flags, timespec *tmo)
{
    return adoptReceived(vmessages, nextRecvmmsg(fd, vmessages, vlen, flags, tmo));
}

#ifdef SIMNODE_HAS_TIME64
SIMNODE_EXPORT int __fcntl_time64(int fd, int cmd, ...)
{
    va_list arguments;
    va_start(arguments, cmd);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return fcntlWith(nextFcntlTime64, fd, cmd, argument);
}

SIMNODE_EXPORT ssize_t __recvmsg64(int fd, msghdr *message, int flags)
{
    const ssize_t size = nextRecvmsg64(fd, message, flags);
    if (size >= 0)
        adoptReceived(*message);
    return size;
}

SIMNODE_EXPORT int __recvmmsg64(int fd, mmsghdr *vmessages, unsigned int vlen, int flags, void *tmo)
{
    return adoptReceived(vmessages, nextRecvmmsg64(fd, vmessages, vlen, flags, tmo));
}
#endif
