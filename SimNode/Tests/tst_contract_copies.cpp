// SPDX-License-Identifier: MIT
#include "ContractTest.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <thread>

using namespace simnode;

namespace {

constexpr int freeNumber = 500; // of a descriptor that nothing here uses

using Copy = int (*)(int);
using Wait = bool (*)(int, int);

int copyByDup(int fd)
{
    return dup(fd);
}

int copyByDup2(int fd)
{
    return dup2(fd, freeNumber);
}

int copyByDup3(int fd)
{
    return dup3(fd, freeNumber, O_CLOEXEC);
}

int copyByFcntl(int fd)
{
    return fcntl(fd, F_DUPFD, freeNumber);
}

int copyByFcntlClosingOnExec(int fd)
{
    return fcntl64(fd, F_DUPFD_CLOEXEC, freeNumber);
}

timespec timeOf(int milliseconds)
{
    return {milliseconds / 1000, milliseconds % 1000 * 1000000L};
}

// Each waits until the descriptor can be read, or for its time in ms.
bool waitByPoll(int fd, int milliseconds)
{
    pollfd entry = {fd, POLLIN, 0};
    return poll(&entry, 1, milliseconds) == 1 && entry.revents == POLLIN;
}

bool waitByPpoll(int fd, int milliseconds)
{
    pollfd entry = {fd, POLLIN, 0};
    const timespec time = timeOf(milliseconds);
    return ppoll(&entry, 1, &time, nullptr) == 1 && entry.revents == POLLIN;
}

bool waitBySelect(int fd, int milliseconds)
{
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval time = {milliseconds / 1000, milliseconds % 1000 * 1000L};
    return select(fd + 1, &readable, nullptr, nullptr, &time) == 1 && FD_ISSET(fd, &readable);
}

bool waitByPselect(int fd, int milliseconds)
{
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    const timespec time = timeOf(milliseconds);
    return pselect(fd + 1, &readable, nullptr, nullptr, &time, nullptr) == 1;
}

bool waitByEpoll(int fd, int milliseconds)
{
    const FileDescriptor set(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event = {};
    event.events = EPOLLIN;
    return epoll_ctl(set.get(), EPOLL_CTL_ADD, fd, &event) == 0 &&
           epoll_wait(set.get(), &event, 1, milliseconds) == 1 && event.events == EPOLLIN;
}

// One byte, with a descriptor beside it.
struct Parcel
{
    char byte = 'p';
    iovec part = {&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control = {};
    msghdr message = {};

    Parcel()
    {
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
    }
    Parcel(const Parcel &) = delete;
    Parcel &operator=(const Parcel &) = delete;
};

bool sendDescriptor(int socket, int fd)
{
    Parcel parcel;
    cmsghdr *header = CMSG_FIRSTHDR(&parcel.message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &fd, sizeof(fd));
    return sendmsg(socket, &parcel.message, 0) == 1;
}

int receiveDescriptor(int socket, bool asOneOfSeveral)
{
    Parcel parcel;
    mmsghdr several = {parcel.message, 0};
    msghdr &message = asOneOfSeveral ? several.msg_hdr : parcel.message;
    const bool isReceived = asOneOfSeveral ? recvmmsg(socket, &several, 1, 0, nullptr) == 1
                                           : recvmsg(socket, &message, 0) == 1;
    const cmsghdr *header = isReceived ? CMSG_FIRSTHDR(&message) : nullptr;
    int fd = -1;
    if (header != nullptr)
        memcpy(&fd, CMSG_DATA(header), sizeof(fd));
    return fd;
}

} // namespace

Q_DECLARE_METATYPE(Copy)
Q_DECLARE_METATYPE(Wait)

/// Descriptors that are not from `open`, and what waits for more than one of them.
class ContractCopiesTest : public ContractTest
{
    Q_OBJECT

private slots:
    void everyCopyIsTheNode_data();
    void everyCopyIsTheNode();
    void aCopyInPlaceOfTheNodeIsTheOtherFile();
    void aDescriptorFromAnotherProcessIsTheNode_data();
    void aDescriptorFromAnotherProcessIsTheNode();
    void whatReachesNoWrappedCallFailsAndIsNotLost();
    void aWaitingTransferIsTold_data();
    void aWaitingTransferIsTold();
    void aTransferThatComesEndsTheWait_data();
    void aTransferThatComesEndsTheWait();
    void theNodeCanBeWrittenAtAnyTime();
    void whatAnotherDescriptorHasReadIsToldOnceMoreAtMost();
};

void ContractCopiesTest::everyCopyIsTheNode_data()
{
    QTest::addColumn<Copy>("copy");
    QTest::newRow("dup") << Copy(copyByDup);
    QTest::newRow("dup2") << Copy(copyByDup2);
    QTest::newRow("dup3") << Copy(copyByDup3);
    QTest::newRow("F_DUPFD") << Copy(copyByFcntl);
    QTest::newRow("F_DUPFD_CLOEXEC") << Copy(copyByFcntlClosingOnExec);
}

void ContractCopiesTest::everyCopyIsTheNode()
{
    QFETCH(Copy, copy);
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    DeviceNode node;
    FileDescriptor other(copy(node.fd()));
    QVERIFY(other.isOpen());
    QCOMPARE(_control->statusValue("descriptors"), std::string("1"));
    QCOMPARE(outcomeOf([&] { return ioctl(other.get(), setReadTimeoutRequest, 30); }),
             Outcome(0, 0));
    QCOMPARE(node.readOutcome(), Outcome(0, 0));
    node.close();

    QVERIFY(host.send("abc"));
    std::array<char, 8> buffer = {};
    QVERIFY(waitByPoll(other.get(), waitTime));
    QCOMPARE(outcomeOf([&] { return read(other.get(), buffer.data(), buffer.size()); }),
             Outcome(3, 0));
    QCOMPARE(outcomeOf([&] { return write(other.get(), "def", 3); }), Outcome(3, 0));
    QCOMPARE(host.receive(), std::string("def"));
    const int number = other.get();
    other.reset();
    QVERIFY(waitForStatus("descriptors", "0"));
    QCOMPARE(outcomeOf([&] { return write(number, "x", 1); }), Outcome(-1, EBADF));
}

void ContractCopiesTest::aCopyInPlaceOfTheNodeIsTheOtherFile()
{
    std::array<int, 2> ends;
    QCOMPARE(pipe(ends.data()), 0);
    const FileDescriptor reader(ends[0]);
    const FileDescriptor writer(ends[1]);
    DeviceNode node;
    const FileDescriptor copy(dup(node.fd()));
    QCOMPARE(dup2(writer.get(), copy.get()), copy.get());
    QCOMPARE(outcomeOf([&] { return write(copy.get(), "pipe", 4); }), Outcome(4, 0));
    std::array<char, 8> buffer = {};
    QCOMPARE(read(reader.get(), buffer.data(), buffer.size()), ssize_t(4));
    QCOMPARE(_control->statusValue("writes"), std::string("0"));
}

void ContractCopiesTest::aDescriptorFromAnotherProcessIsTheNode_data()
{
    QTest::addColumn<bool>("asOneOfSeveral");
    QTest::newRow("recvmsg") << false;
    QTest::newRow("recvmmsg") << true;
}

void ContractCopiesTest::aDescriptorFromAnotherProcessIsTheNode()
{
    QFETCH(bool, asOneOfSeveral);
    std::array<int, 2> ends;
    QCOMPARE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const FileDescriptor here(ends[0]);
    FileDescriptor there(ends[1]);
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    Child child([&] {
        const FileDescriptor received(receiveDescriptor(there.get(), asOneOfSeveral));
        return write(received.get(), "abc", 3) == 3 ? 42 : errno;
    });
    there.reset();
    {
        DeviceNode node;
        QVERIFY(sendDescriptor(here.get(), node.fd()));
    }
    QCOMPARE(host.receive(), std::string("abc"));
    const int status = child.wait();
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 42);
}

void ContractCopiesTest::whatReachesNoWrappedCallFailsAndIsNotLost()
{
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    DeviceNode node;
    std::array<char, 8> buffer = {};
    iovec part = {buffer.data(), buffer.size()};
    QCOMPARE(outcomeOf([&] { return syscall(SYS_write, node.fd(), "lost", 4); }),
             Outcome(-1, EPIPE));
    QCOMPARE(outcomeOf([&] { return writev(node.fd(), &part, 1); }), Outcome(-1, EPIPE));
    QCOMPARE(outcomeOf([&] { return send(node.fd(), "lost", 4, 0); }), Outcome(-1, EPIPE));
    QCOMPARE(outcomeOf([&] { return syscall(SYS_read, node.fd(), buffer.data(), buffer.size()); }),
             Outcome(-1, EAGAIN));
    QCOMPARE(outcomeOf([&] { return readv(node.fd(), &part, 1); }), Outcome(-1, EAGAIN));
    QVERIFY(host.send("kept"));
    QCOMPARE(node.read(), std::string("kept"));
    QCOMPARE(node.write("sent"), Outcome(4, 0));
    QCOMPARE(host.receive(), std::string("sent"));
}

void ContractCopiesTest::aWaitingTransferIsTold_data()
{
    QTest::addColumn<Wait>("wait");
    QTest::newRow("poll") << Wait(waitByPoll);
    QTest::newRow("ppoll") << Wait(waitByPpoll);
    QTest::newRow("select") << Wait(waitBySelect);
    QTest::newRow("pselect") << Wait(waitByPselect);
    QTest::newRow("epoll") << Wait(waitByEpoll);
}

void ContractCopiesTest::aWaitingTransferIsTold()
{
    QFETCH(Wait, wait);
    DeviceNode node;
    QVERIFY(!wait(node.fd(), 0));
    QCOMPARE(control("inject 616263"), std::string("ok"));
    QCOMPARE(control("inject 78"), std::string("ok"));
    QVERIFY(wait(node.fd(), 0));
    QCOMPARE(node.read(2), std::string("ab"));
    QVERIFY(wait(node.fd(), 0));
    QCOMPARE(node.read(), std::string("c"));
    QVERIFY(wait(node.fd(), 0));
    QCOMPARE(node.read(), std::string("x"));
    QVERIFY(!wait(node.fd(), 0));
    QCOMPARE(control("inject 79"), std::string("ok"));
    QVERIFY(wait(node.fd(), 0));
    QCOMPARE(node.read(), std::string("y"));
}

void ContractCopiesTest::aTransferThatComesEndsTheWait_data()
{
    aWaitingTransferIsTold_data();
}

void ContractCopiesTest::aTransferThatComesEndsTheWait()
{
    QFETCH(Wait, wait);
    DeviceNode node;
    HostSocket host(_directory);
    bool isTold = false;
    std::thread waiting([&] { isTold = wait(node.fd(), waitTime); });
    const bool isSent = host.send("abc");
    waiting.join();
    QVERIFY(isSent);
    QVERIFY(isTold);
    QCOMPARE(node.read(), std::string("abc"));
}

void ContractCopiesTest::theNodeCanBeWrittenAtAnyTime()
{
    DeviceNode node;
    pollfd entry = {node.fd(), POLLIN | POLLOUT, 0};
    QCOMPARE(poll(&entry, 1, 0), 1);
    QCOMPARE(entry.revents, short(POLLOUT));
}

void ContractCopiesTest::whatAnotherDescriptorHasReadIsToldOnceMoreAtMost()
{
    DeviceNode first;
    DeviceNode second;
    QCOMPARE(control("inject 78"), std::string("ok"));
    QVERIFY(waitByPoll(first.fd(), 0));
    QVERIFY(waitByPoll(second.fd(), 0));
    QCOMPARE(first.read(), std::string("x"));
    QVERIFY(!waitByPoll(first.fd(), 0));
    second.setReadTimeout(0);
    QCOMPARE(second.readOutcome(), Outcome(0, 0));
    QVERIFY(!waitByPoll(second.fd(), 0));
}

QTEST_GUILESS_MAIN(ContractCopiesTest)
#include "tst_contract_copies.moc"
