// SPDX-License-Identifier: MIT
#include "ContractTest.h"

#include <dlfcn.h>
#include <sys/stat.h>

using namespace simnode;

#ifdef SIMNODE_TIME64
/// As in the C library after 2038: the time does not fit into what a caller of this one expects.
extern "C" __attribute__((visibility("default"))) int fstatAfter2038(int, void *) __asm__("fstat");
int fstatAfter2038(int, void *)
{
    errno = EOVERFLOW;
    return -1;
}
#endif

/// Which calls reach the node, and what a descriptor of it is.
class ContractDescriptorsTest : public ContractTest
{
    Q_OBJECT

private slots:
    void everyFormOfOpenReachesTheNode_data();
    void everyFormOfOpenReachesTheNode();
    void openHonoursCloseOnExec();
    void openFailsWithNoSuchFileWhileTheNodeIsMissing();
    void openFailsWithTheSetErrorWhileRefused();
    void namingTheNodeDoesNotOpenIt();
    void otherFilesAreLeftAlone();
    void withoutADirectoryTheNodeIsLeftAlone();
    void ioctlSetsTheTimeouts();
    void unknownRequestsAreRefused();
    void eachDescriptorKeepsItsTimeouts();
    void closeForgetsTheDescriptor();
    void errnoChangesOnFailureOnly();
    void aChildProcessSharesTheDescriptor();
    void theDescriptorsOfAKilledProgramAreClosed();
    void numbersReusedBehindTheLibraryAreOtherFiles();
};

void ContractDescriptorsTest::everyFormOfOpenReachesTheNode_data()
{
    QTest::addColumn<bool>("takesDirectory");
    for (const char *name : {"open", "open64", "__open_2", "__open64_2"})
        QTest::newRow(name) << false;
    for (const char *name : {"openat", "openat64", "__openat_2", "__openat64_2"})
        QTest::newRow(name) << true;
}

void ContractDescriptorsTest::everyFormOfOpenReachesTheNode()
{
    QFETCH(bool, takesDirectory);
    void *function = dlsym(RTLD_DEFAULT, QTest::currentDataTag());
    QVERIFY(function != nullptr);
    using Open = int(const char *, int, ...);
    using OpenAt = int(int, const char *, int, ...);
    const FileDescriptor node(takesDirectory
                                  ? reinterpret_cast<OpenAt *>(function)(AT_FDCWD, nodePath, O_RDWR)
                                  : reinterpret_cast<Open *>(function)(nodePath, O_RDWR));
    QVERIFY(node.isOpen());
    QCOMPARE(control("inject 616263"), std::string("ok"));
    std::array<char, 8> buffer = {};
    QCOMPARE(read(node.get(), buffer.data(), buffer.size()), ssize_t(3));
    QCOMPARE(std::string(buffer.data()), std::string("abc"));
}

void ContractDescriptorsTest::openHonoursCloseOnExec()
{
    DeviceNode closed(O_RDWR | O_CLOEXEC);
    DeviceNode kept(O_RDWR);
    QCOMPARE(fcntl(closed.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    QCOMPARE(fcntl(kept.fd(), F_GETFD) & FD_CLOEXEC, 0);
}

void ContractDescriptorsTest::openFailsWithNoSuchFileWhileTheNodeIsMissing()
{
    const auto openNode = [] { return open(nodePath, O_RDWR); };
    QCOMPARE(control("node missing"), std::string("ok"));
    QCOMPARE(outcomeOf(openNode), Outcome(-1, ENOENT));
    QCOMPARE(control("node present"), std::string("ok"));
    QVERIFY(DeviceNode().fd() >= 0);
}

void ContractDescriptorsTest::openFailsWithTheSetErrorWhileRefused()
{
    const auto openNode = [] { return open(nodePath, O_RDWR); };
    QCOMPARE(control("open fail EBUSY"), std::string("ok"));
    QCOMPARE(outcomeOf(openNode), Outcome(-1, EBUSY));
    QCOMPARE(control("open fail EACCES"), std::string("ok"));
    QCOMPARE(outcomeOf(openNode), Outcome(-1, EACCES));
    QCOMPARE(control("open ok"), std::string("ok"));
    QVERIFY(DeviceNode().fd() >= 0);
}

void ContractDescriptorsTest::namingTheNodeDoesNotOpenIt()
{
    const auto nameNode = [] { return open(nodePath, O_PATH | O_CLOEXEC); };
    QCOMPARE(control("on open 1 node missing"), std::string("ok"));
    QCOMPARE(control("open fail EBUSY"), std::string("ok"));
    const FileDescriptor name(nameNode());
    QVERIFY(name.isOpen());
    const std::string named = "/proc/self/fd/" + std::to_string(name.get());
    QCOMPARE(access(named.c_str(), R_OK | W_OK), 0);
    std::array<char, 4> buffer = {};
    const Outcome refused(-1, EBADF);
    QCOMPARE(outcomeOf([&] { return read(name.get(), buffer.data(), buffer.size()); }), refused);
    QCOMPARE(outcomeOf([&] { return write(name.get(), buffer.data(), buffer.size()); }), refused);
    QCOMPARE(outcomeOf([&] { return ioctl(name.get(), setReadTimeoutRequest, 10); }), refused);
    QCOMPARE(_control->statusValue("node"), std::string("present"));
    QCOMPARE(_control->statusValue("opens"), std::string("0"));
    QCOMPARE(_control->statusValue("descriptors"), std::string("0"));
    QCOMPARE(control("node missing"), std::string("ok"));
    QCOMPARE(outcomeOf(nameNode), Outcome(-1, ENOENT));
}

void ContractDescriptorsTest::otherFilesAreLeftAlone()
{
    int ends[2];
    QCOMPARE(pipe(ends), 0);
    const FileDescriptor reader(ends[0]);
    const FileDescriptor writer(ends[1]);
    QCOMPARE(write(writer.get(), "abc", 3), ssize_t(3));
    int waiting = 0;
    QCOMPARE(ioctl(reader.get(), FIONREAD, &waiting), 0);
    QCOMPARE(waiting, 3);
    std::array<char, 8> buffer = {};
    QCOMPARE(read(reader.get(), buffer.data(), buffer.size()), ssize_t(3));
    QCOMPARE(std::string(buffer.data()), std::string("abc"));

    const std::string created = _directory + "/other";
    const FileDescriptor file(open(created.c_str(), O_CREAT | O_WRONLY, 0640));
    QVERIFY(file.isOpen());
    struct stat status;
    QCOMPARE(stat(created.c_str(), &status), 0);
    const mode_t mask = umask(0);
    umask(mask);
    QCOMPARE(status.st_mode & 0777, 0640 & ~mask);
    QCOMPARE(unlink(created.c_str()), 0);

    QCOMPARE(outcomeOf([] { return open("/dev/brn7201", O_RDWR); }), Outcome(-1, ENOENT));
    QCOMPARE(outcomeOf([] { return close(-1); }), Outcome(-1, EBADF));
    QCOMPARE(_control->statusValue("opens"), std::string("0"));
}

void ContractDescriptorsTest::withoutADirectoryTheNodeIsLeftAlone()
{
    // O_PATH does not disturb a real node, should this machine have one.
    const bool isReal = faccessat(AT_FDCWD, nodePath, F_OK, 0) == 0;
    qunsetenv(directoryVariable);
    const FileDescriptor descriptor(open(nodePath, O_PATH));
    qputenv(directoryVariable, _directory.c_str());
    QCOMPARE(descriptor.isOpen(), isReal);
    QCOMPARE(_control->statusValue("opens"), std::string("0"));
}

void ContractDescriptorsTest::ioctlSetsTheTimeouts()
{
    DeviceNode node;
    QCOMPARE(_control->statusValue("read_timeout"), std::string("2000"));
    QCOMPARE(_control->statusValue("write_timeout"), std::string("2000"));
    QCOMPARE(node.setWriteTimeout(123), Outcome(0, 0));
    QCOMPARE(node.setReadTimeout(456), Outcome(0, 0));
    QCOMPARE(_control->statusValue("write_timeout"), std::string("123"));
    QCOMPARE(_control->statusValue("read_timeout"), std::string("456"));
}

void ContractDescriptorsTest::unknownRequestsAreRefused()
{
    DeviceNode node;
    QCOMPARE(outcomeOf([&] { return ioctl(node.fd(), 0x5303, 1); }), Outcome(-1, ENOTTY));
    int waiting = 0;
    QCOMPARE(outcomeOf([&] { return ioctl(node.fd(), FIONREAD, &waiting); }), Outcome(-1, ENOTTY));
}

void ContractDescriptorsTest::eachDescriptorKeepsItsTimeouts()
{
    DeviceNode hasty;
    DeviceNode patient;
    hasty.setReadTimeout(20);
    patient.setReadTimeout(400);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(patient.readOutcome(), Outcome(0, 0));
    const qint64 patientTime = timer.restart();
    QCOMPARE(hasty.readOutcome(), Outcome(0, 0));
    const qint64 hastyTime = timer.elapsed();
    QVERIFY2(patientTime >= 399, qPrintable(QString::number(patientTime)));
    QVERIFY2(hastyTime >= 19, qPrintable(QString::number(hastyTime)));
    QVERIFY2(hastyTime < 399, qPrintable(QString::number(hastyTime)));
}

void ContractDescriptorsTest::closeForgetsTheDescriptor()
{
    DeviceNode first;
    DeviceNode second;
    QVERIFY(first.fd() != second.fd());
    QVERIFY(waitForStatus("descriptors", "2"));
    const int number = first.fd();
    first.close();
    QVERIFY(waitForStatus("descriptors", "1"));
    std::array<char, 4> buffer;
    QCOMPARE(outcomeOf([&] { return read(number, buffer.data(), buffer.size()); }),
             Outcome(-1, EBADF));
    QCOMPARE(control("inject 78"), std::string("ok"));
    QCOMPARE(second.read(), std::string("x"));
}

void ContractDescriptorsTest::errnoChangesOnFailureOnly()
{
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(control("inject 78"), std::string("ok"));
    constexpr int untouched = 1234;
    std::array<char, 4> buffer;
    std::array<int, 6> seen;
    errno = untouched;
    const int node = open(nodePath, O_RDWR);
    seen[0] = errno;
    const int timeout = ioctl(node, setReadTimeoutRequest, 10);
    seen[1] = errno;
    const ssize_t received = read(node, buffer.data(), buffer.size());
    seen[2] = errno;
    const ssize_t silent = read(node, buffer.data(), buffer.size());
    seen[3] = errno;
    const ssize_t written = write(node, "x", 1);
    seen[4] = errno;
    const int closed = close(node);
    seen[5] = errno;
    for (const int error : seen)
        QCOMPARE(error, untouched);
    QCOMPARE(timeout, 0);
    QCOMPARE(received, ssize_t(1));
    QCOMPARE(silent, ssize_t(0));
    QCOMPARE(written, ssize_t(1));
    QCOMPARE(closed, 0);
}

void ContractDescriptorsTest::aChildProcessSharesTheDescriptor()
{
    DeviceNode node;
    QCOMPARE(control("inject 78"), std::string("ok"));
    Child child([&] {
        const bool isRead = node.read() == "x";
        node.close();
        std::array<char, 4> buffer;
        const bool isClosed = read(node.fd(), buffer.data(), buffer.size()) == -1;
        return isRead && isClosed ? 42 : 1;
    });
    const int status = child.wait();
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 42);
    QCOMPARE(control("inject 79"), std::string("ok"));
    QCOMPARE(node.read(), std::string("y"));
}

void ContractDescriptorsTest::theDescriptorsOfAKilledProgramAreClosed()
{
    Child program([] {
        DeviceNode node;
        node.setReadTimeout(60000);
        node.readOutcome();
        return 0;
    });
    QVERIFY(waitForStatus("reads", "1"));
    QCOMPARE(_control->statusValue("descriptors"), std::string("1"));
    program.end(SIGKILL);
    QVERIFY(waitForStatus("descriptors", "0"));
    DeviceNode node;
    QCOMPARE(control("inject 78"), std::string("ok"));
    QCOMPARE(node.read(), std::string("x"));
}

void ContractDescriptorsTest::numbersReusedBehindTheLibraryAreOtherFiles()
{
    DeviceNode node;
    int ends[2];
    QCOMPARE(pipe(ends), 0);
    FileDescriptor reader(ends[0]);
    const FileDescriptor writer(ends[1]);
    QCOMPARE(dup2(reader.get(), node.fd()), node.fd());
    QCOMPARE(write(writer.get(), "pipe", 4), ssize_t(4));
    QCOMPARE(node.read(), std::string("pipe"));
    QCOMPARE(_control->statusValue("reads"), std::string("0"));
}

QTEST_GUILESS_MAIN(ContractDescriptorsTest)
#include "tst_contract_descriptors.moc"
