// SPDX-License-Identifier: MIT
//
// Runs under `simnode run`: its own system calls are those of a program that uses the node.

#include "HostSocket.h"
#include "SimNodeControl.h"

#include <QtTest>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

using namespace simnode;

// g++ tells by the first of these, clang++ by the second.
#if defined(__SANITIZE_ADDRESS__)
#define SIMNODE_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SIMNODE_ADDRESS_SANITIZER
#endif
#endif

namespace {

constexpr int waitTime = 5000; // ms, for what has to happen

// What the program sees: the call's result, and errno where that is -1.
using Outcome = std::pair<long, int>;

template <typename Call>
Outcome outcomeOf(const Call &call)
{
    errno = 0;
    const long result = call();
    return {result, result == -1 ? errno : 0};
}

class Node
{
public:
    explicit Node(int flags = O_RDWR) : _descriptor(open(nodePath, flags)) {}

    int fd() const { return _descriptor.get(); }
    void close() { _descriptor.reset(); }
    Outcome setReadTimeout(unsigned int ms)
    {
        return outcomeOf([&] { return ioctl(fd(), setReadTimeoutRequest, ms); });
    }
    Outcome setWriteTimeout(unsigned int ms)
    {
        return outcomeOf([&] { return ioctl(fd(), setWriteTimeoutRequest, ms); });
    }
    Outcome readOutcome()
    {
        std::array<char, 16> buffer;
        return outcomeOf([&] { return ::read(fd(), buffer.data(), buffer.size()); });
    }
    Outcome write(const std::string &data)
    {
        return outcomeOf([&] { return ::write(fd(), data.data(), data.size()); });
    }
    // The bytes read; "(nothing)" for 0, "(error)" for -1.
    std::string read(std::size_t size = maxTransferSize)
    {
        std::string data(size, '\0');
        const ssize_t count = ::read(fd(), data.data(), size);
        if (count <= 0)
            return count == 0 ? "(nothing)" : "(error)";
        data.resize(static_cast<std::size_t>(count));
        return data;
    }

private:
    FileDescriptor _descriptor;
};

/// Runs `body` in a child process, which ends with its result as exit status.
class Child
{
public:
    explicit Child(const std::function<int()> &body) : _process(fork())
    {
        if (_process == 0)
            _exit(body());
    }
    ~Child()
    {
        if (_process > 0)
            end(SIGKILL);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    bool isRunning() const { return waitpid(_process, nullptr, WNOHANG) == 0; }
    int wait()
    {
        int status = 0;
        waitpid(std::exchange(_process, -1), &status, 0);
        return status;
    }
    void end(int signal)
    {
        kill(_process, signal);
        wait();
    }

private:
    pid_t _process;
};

void nothing(int) {}

// Signals interrupt calls instead of restarting them.
void installInterruptingHandler()
{
    struct sigaction action = {};
    action.sa_handler = nothing;
    sigaction(SIGUSR1, &action, nullptr);
}

std::string hex(const std::string &data)
{
    return QByteArray::fromStdString(data).toHex().toStdString();
}

} // namespace

class TestContract : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void everyFormOfOpenReachesTheNode_data();
    void everyFormOfOpenReachesTheNode();
    void openHonoursCloseOnExec();
    void openFailsWithNoSuchFileWhileTheNodeIsMissing();
    void openFailsWithTheSetErrorWhileRefused();
    void otherFilesAreLeftAlone();
    void withoutADirectoryTheNodeIsLeftAlone();
    void ioctlSetsTheTimeouts();
    void unknownRequestsAreRefused();
    void eachDescriptorKeepsItsTimeouts();
    void readTakesOneTransfer();
    void aTransferTooLargeForTheBufferIsContinued();
    void theLargestTransfersPassBothWays();
    void aSilentReadEndsWithZeroOrAnErrorAsChosen();
    void aReadTimeoutOfZeroAnswersAtOnce();
    void aWaitingReadIsServedWhenATransferComes();
    void writeHandsOverOneTransfer();
    void writeTimesOutWithoutAHost();
    void aWaitingWriteGoesOutWhenTheHostComes();
    void writeBlocksWhileTheHostDoesNotRead();
    void theHostBlocksWhileTheDeviceDoesNotRead();
    void tooLargeAndEmptyWritesSendNothing();
    void closeForgetsTheDescriptor();
    void errnoChangesOnFailureOnly();
    void theHostIsSeenPluggedWhileConnected();
    void aSecondHostIsTurnedAway();
    void aHostMayComeBackAtOnce();
    void unreadTransfersAreDroppedWhenTheHostGoes();
    void thePulledCableClosesAndRefusesTheHost();
    void readCanBeStuckSilentOrFailing();
    void stuckReadsNeverAnswer();
    void stuckWritesNeverAnswer();
    void writeCanFailOrBeShortOrZero();
    void transfersCanBeMerged();
    void transfersCanBeSplit();
    void transfersCanBeInjectedWithoutAHost();
    void commandsRunOnTheKthCall();
    void faultyCommandsAreAnsweredWithAnError();
    void onlyLaterCallsAreCountedByStatus();
    void readingAndWritingDoNotBlockEachOther();
    void aSignalInterruptsAReadThatThenTakesNothing();
    void cancelledThreadsLeaveNothingBehind();
    void aChildProcessSharesTheDescriptor();
    void theDescriptorsOfAKilledProgramAreClosed();
    void numbersReusedBehindTheLibraryAreOtherFiles();
    void fortifiedReadsStillCheckTheirBuffer();

private:
    std::string control(const std::string &command);
    bool waitForStatus(const char *key, const char *value);

    std::string _directory;
    std::unique_ptr<SimNodeControl> _control;
};

std::string TestContract::control(const std::string &command)
{
    return _control->command(command);
}

bool TestContract::waitForStatus(const char *key, const char *value)
{
    return QTest::qWaitFor([&] { return _control->statusValue(key) == value; }, waitTime);
}

void TestContract::initTestCase()
{
    _directory = SimNodeControl::directoryFromEnvironment();
    QVERIFY2(!_directory.empty(), "this test runs under `simnode run`");
    _control = std::make_unique<SimNodeControl>(_directory);
}

void TestContract::init()
{
    QCOMPARE(control("reset"), std::string("ok"));
}

void TestContract::cleanup()
{
    QVERIFY2(waitForStatus("descriptors", "0"), "a test left the node open");
    QVERIFY(waitForStatus("host", "0"));
}

void TestContract::everyFormOfOpenReachesTheNode_data()
{
    QTest::addColumn<bool>("takesDirectory");
    for (const char *name : {"open", "open64", "__open_2", "__open64_2"})
        QTest::newRow(name) << false;
    for (const char *name : {"openat", "openat64", "__openat_2", "__openat64_2"})
        QTest::newRow(name) << true;
}

void TestContract::everyFormOfOpenReachesTheNode()
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

void TestContract::openHonoursCloseOnExec()
{
    Node closed(O_RDWR | O_CLOEXEC);
    Node kept(O_RDWR);
    QCOMPARE(fcntl(closed.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    QCOMPARE(fcntl(kept.fd(), F_GETFD) & FD_CLOEXEC, 0);
}

void TestContract::openFailsWithNoSuchFileWhileTheNodeIsMissing()
{
    const auto openNode = [] { return open(nodePath, O_RDWR); };
    QCOMPARE(control("node missing"), std::string("ok"));
    QCOMPARE(outcomeOf(openNode), Outcome(-1, ENOENT));
    QCOMPARE(control("node present"), std::string("ok"));
    QVERIFY(Node().fd() >= 0);
}

void TestContract::openFailsWithTheSetErrorWhileRefused()
{
    const auto openNode = [] { return open(nodePath, O_RDWR); };
    QCOMPARE(control("open fail EBUSY"), std::string("ok"));
    QCOMPARE(outcomeOf(openNode), Outcome(-1, EBUSY));
    QCOMPARE(control("open fail EACCES"), std::string("ok"));
    QCOMPARE(outcomeOf(openNode), Outcome(-1, EACCES));
    QCOMPARE(control("open ok"), std::string("ok"));
    QVERIFY(Node().fd() >= 0);
}

void TestContract::otherFilesAreLeftAlone()
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

void TestContract::withoutADirectoryTheNodeIsLeftAlone()
{
    // O_PATH does not disturb a real node, should this machine have one.
    const bool isReal = faccessat(AT_FDCWD, nodePath, F_OK, 0) == 0;
    qunsetenv(directoryVariable);
    const FileDescriptor descriptor(open(nodePath, O_PATH));
    qputenv(directoryVariable, _directory.c_str());
    QCOMPARE(descriptor.isOpen(), isReal);
    QCOMPARE(_control->statusValue("opens"), std::string("0"));
}

void TestContract::ioctlSetsTheTimeouts()
{
    Node node;
    QCOMPARE(_control->statusValue("read_timeout"), std::string("2000"));
    QCOMPARE(_control->statusValue("write_timeout"), std::string("2000"));
    QCOMPARE(node.setWriteTimeout(123), Outcome(0, 0));
    QCOMPARE(node.setReadTimeout(456), Outcome(0, 0));
    QCOMPARE(_control->statusValue("write_timeout"), std::string("123"));
    QCOMPARE(_control->statusValue("read_timeout"), std::string("456"));
}

void TestContract::unknownRequestsAreRefused()
{
    Node node;
    QCOMPARE(outcomeOf([&] { return ioctl(node.fd(), 0x5303, 1); }), Outcome(-1, ENOTTY));
    int waiting = 0;
    QCOMPARE(outcomeOf([&] { return ioctl(node.fd(), FIONREAD, &waiting); }), Outcome(-1, ENOTTY));
}

void TestContract::eachDescriptorKeepsItsTimeouts()
{
    Node hasty;
    Node patient;
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

void TestContract::readTakesOneTransfer()
{
    Node node;
    HostSocket host(_directory);
    QVERIFY(host.send("one") && host.send("two"));
    QCOMPARE(node.read(), std::string("one"));
    QCOMPARE(node.read(), std::string("two"));
}

void TestContract::aTransferTooLargeForTheBufferIsContinued()
{
    Node node;
    HostSocket host(_directory);
    QVERIFY(host.send("abcdefgh") && host.send("next"));
    QCOMPARE(node.read(3), std::string("abc"));
    QCOMPARE(node.read(4), std::string("defg"));
    QCOMPARE(node.read(4), std::string("h"));
    QCOMPARE(node.read(100), std::string("next"));
}

void TestContract::theLargestTransfersPassBothWays()
{
    Node node;
    HostSocket host(_directory);
    std::string data(maxTransferSize, '\0');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i * 7 / 3);
    QVERIFY(host.send(data));
    QVERIFY(node.read() == data);
    QCOMPARE(node.write(data), Outcome(maxTransferSize, 0));
    QVERIFY(host.receive() == data);
}

void TestContract::aSilentReadEndsWithZeroOrAnErrorAsChosen()
{
    Node node;
    node.setReadTimeout(20);
    QCOMPARE(node.readOutcome(), Outcome(0, 0));
    QCOMPARE(control("timeout error"), std::string("ok"));
    QCOMPARE(node.readOutcome(), Outcome(-1, ETIMEDOUT));
    QCOMPARE(control("timeout zero"), std::string("ok"));
    QCOMPARE(node.readOutcome(), Outcome(0, 0));
}

void TestContract::aReadTimeoutOfZeroAnswersAtOnce()
{
    Node node;
    node.setReadTimeout(0);
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < 10; ++i)
        QCOMPARE(node.readOutcome(), Outcome(0, 0));
    QVERIFY2(timer.elapsed() < 1000, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(control("inject 78"), std::string("ok"));
    QCOMPARE(node.read(), std::string("x"));
}

void TestContract::aWaitingReadIsServedWhenATransferComes()
{
    Node node;
    node.setReadTimeout(60000);
    std::string received;
    std::thread reader([&] { received = node.read(); });
    const bool isWaiting = waitForStatus("reads", "1");
    HostSocket host(_directory);
    const bool isSent = host.send("late");
    reader.join();
    QVERIFY(isWaiting && isSent);
    QCOMPARE(received, std::string("late"));
}

void TestContract::writeHandsOverOneTransfer()
{
    Node node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(node.write("abc"), Outcome(3, 0));
    QCOMPARE(node.write("defg"), Outcome(4, 0));
    QCOMPARE(host.receive(), std::string("abc"));
    QCOMPARE(host.receive(), std::string("defg"));
}

void TestContract::writeTimesOutWithoutAHost()
{
    Node node;
    node.setWriteTimeout(100);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(node.write("lost"), Outcome(-1, ETIMEDOUT));
    QVERIFY2(timer.elapsed() >= 99, qPrintable(QString::number(timer.elapsed())));
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(node.write("kept"), Outcome(4, 0));
    QCOMPARE(host.receive(), std::string("kept"));
}

void TestContract::aWaitingWriteGoesOutWhenTheHostComes()
{
    Node node;
    node.setWriteTimeout(60000);
    Outcome outcome;
    std::thread writer([&] { outcome = node.write("hello"); });
    const bool isWaiting = waitForStatus("writes", "1");
    HostSocket host(_directory);
    writer.join();
    QVERIFY(isWaiting);
    QCOMPARE(outcome, Outcome(5, 0));
    QCOMPARE(host.receive(), std::string("hello"));
}

void TestContract::writeBlocksWhileTheHostDoesNotRead()
{
    Node node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    node.setWriteTimeout(50);
    const std::string transfer(10000, 'x');
    int written = 0;
    Outcome outcome;
    while (written < 100 && (outcome = node.write(transfer)) == Outcome(10000, 0))
        ++written;
    QCOMPARE(outcome, Outcome(-1, ETIMEDOUT));
    QVERIFY2(written >= 1 && written <= 10, qPrintable(QString::number(written)));
    for (int i = 0; i < written; ++i)
        QVERIFY(host.receive() == transfer);
    node.setWriteTimeout(waitTime);
    QCOMPARE(node.write("again"), Outcome(5, 0));
    QCOMPARE(host.receive(), std::string("again"));
}

void TestContract::theHostBlocksWhileTheDeviceDoesNotRead()
{
    Node node;
    HostSocket host(_directory);
    const auto transfer = [](int index) { return std::to_string(index) + std::string(10000, 'x'); };
    int sent = 0;
    // The daemon empties the socket a little after each send, so a refusal counts once it stays.
    while (sent < 1000 && QTest::qWaitFor([&] { return host.trySend(transfer(sent)); }, 200))
        ++sent;
    QVERIFY2(sent >= 1 && sent < 100, qPrintable(QString::number(sent)));
    for (int i = 0; i < sent; ++i)
        QVERIFY(node.read() == transfer(i));
    QVERIFY(host.send("again"));
    QCOMPARE(node.read(), std::string("again"));
}

void TestContract::tooLargeAndEmptyWritesSendNothing()
{
    Node node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(node.write(std::string(maxTransferSize + 1, 'x')), Outcome(-1, EMSGSIZE));
    QCOMPARE(node.write(""), Outcome(0, 0));
    QCOMPARE(node.write("x"), Outcome(1, 0));
    QCOMPARE(host.receive(), std::string("x"));
}

void TestContract::closeForgetsTheDescriptor()
{
    Node first;
    Node second;
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

void TestContract::errnoChangesOnFailureOnly()
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

void TestContract::theHostIsSeenPluggedWhileConnected()
{
    QCOMPARE(_control->statusValue("host"), std::string("0"));
    {
        HostSocket host(_directory);
        QVERIFY(host.isConnected());
        QVERIFY(waitForStatus("host", "1"));
    }
    QVERIFY(waitForStatus("host", "0"));
}

void TestContract::aSecondHostIsTurnedAway()
{
    Node node;
    HostSocket first(_directory);
    QVERIFY(waitForStatus("host", "1"));
    HostSocket second(_directory);
    QCOMPARE(second.receive(), std::string("(closed)"));
    QCOMPARE(node.write("x"), Outcome(1, 0));
    QCOMPARE(first.receive(), std::string("x"));
}

void TestContract::aHostMayComeBackAtOnce()
{
    Node node;
    node.setReadTimeout(waitTime);
    for (int i = 0; i < 50; ++i) {
        HostSocket host(_directory);
        QVERIFY(host.send("round " + std::to_string(i)));
        QCOMPARE(node.read(), "round " + std::to_string(i));
    }
}

void TestContract::unreadTransfersAreDroppedWhenTheHostGoes()
{
    Node node;
    {
        HostSocket host(_directory);
        QVERIFY(host.send("begun") && host.send("lost"));
        QVERIFY(waitForStatus("pending", "2"));
        QCOMPARE(node.read(2), std::string("be"));
    }
    QVERIFY(waitForStatus("host", "0"));
    node.setReadTimeout(20);
    QCOMPARE(node.read(), std::string("(nothing)"));
    HostSocket host(_directory);
    QVERIFY(host.send("new"));
    node.setReadTimeout(waitTime);
    QCOMPARE(node.read(), std::string("new"));
}

void TestContract::thePulledCableClosesAndRefusesTheHost()
{
    Node node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(control("cable out"), std::string("ok"));
    QCOMPARE(host.receive(), std::string("(closed)"));
    QVERIFY(!HostSocket(_directory).isConnected());
    node.setWriteTimeout(20);
    QCOMPARE(node.write("x"), Outcome(-1, ETIMEDOUT));
    QCOMPARE(control("cable in"), std::string("ok"));
    HostSocket again(_directory);
    QVERIFY(again.isConnected());
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(node.write("x"), Outcome(1, 0));
    QCOMPARE(again.receive(), std::string("x"));
}

void TestContract::readCanBeStuckSilentOrFailing()
{
    Node node;
    node.setReadTimeout(20);
    QCOMPARE(control("inject 78"), std::string("ok"));
    QCOMPARE(control("read silent"), std::string("ok"));
    QCOMPARE(node.read(), std::string("(nothing)"));
    QCOMPARE(control("read fail EIO 2"), std::string("ok"));
    QCOMPARE(node.readOutcome(), Outcome(-1, EIO));
    QCOMPARE(node.readOutcome(), Outcome(-1, EIO));
    QCOMPARE(node.read(), std::string("x"));
    QCOMPARE(control("read fail ECONNRESET"), std::string("ok"));
    for (int i = 0; i < 5; ++i)
        QCOMPARE(node.readOutcome(), Outcome(-1, ECONNRESET));
    QCOMPARE(control("read ok"), std::string("ok"));
    QCOMPARE(node.readOutcome(), Outcome(0, 0));
}

void TestContract::stuckReadsNeverAnswer()
{
    Node node;
    node.setReadTimeout(20);
    QCOMPARE(control("read stuck 1"), std::string("ok"));
    Child stuck([&] { return node.readOutcome() == Outcome(0, 0) ? 0 : 1; });
    QVERIFY(waitForStatus("reads", "1"));
    QCOMPARE(node.readOutcome(), Outcome(0, 0)); // the next read outlives the stuck one's time-out
    QCOMPARE(control("inject 78"), std::string("ok"));
    QCOMPARE(node.read(), std::string("x"));
    QVERIFY(stuck.isRunning());
}

void TestContract::stuckWritesNeverAnswer()
{
    Node node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    node.setReadTimeout(100);
    node.setWriteTimeout(20);
    QCOMPARE(control("write stuck 1"), std::string("ok"));
    Child stuck([&] { return node.write("stuck") == Outcome(5, 0) ? 0 : 1; });
    QVERIFY(waitForStatus("writes", "1"));
    QCOMPARE(node.readOutcome(), Outcome(0, 0)); // outlives the stuck write's time-out
    QCOMPARE(node.write("x"), Outcome(1, 0));
    QCOMPARE(host.receive(), std::string("x"));
    QVERIFY(stuck.isRunning());
}

void TestContract::writeCanFailOrBeShortOrZero()
{
    Node node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    QCOMPARE(control("write fail EIO 1"), std::string("ok"));
    QCOMPARE(node.write("lost"), Outcome(-1, EIO));
    QCOMPARE(control("write short 3 1"), std::string("ok"));
    QCOMPARE(node.write("abcdef"), Outcome(3, 0));
    QCOMPARE(host.receive(), std::string("abc"));
    QCOMPARE(control("write zero"), std::string("ok"));
    QCOMPARE(node.write("lost"), Outcome(0, 0));
    QCOMPARE(node.write("lost"), Outcome(0, 0));
    QCOMPARE(control("write ok"), std::string("ok"));
    QCOMPARE(node.write("kept"), Outcome(4, 0));
    QCOMPARE(host.receive(), std::string("kept"));
}

void TestContract::transfersCanBeMerged()
{
    Node node;
    HostSocket host(_directory);
    QCOMPARE(control("merge 2"), std::string("ok"));
    QVERIFY(host.send("one") && host.send("two") && host.send("three"));
    QCOMPARE(node.read(), std::string("onetwo"));
    QCOMPARE(node.read(), std::string("three"));
}

void TestContract::transfersCanBeSplit()
{
    Node node;
    HostSocket host(_directory);
    QCOMPARE(control("split 4"), std::string("ok"));
    QVERIFY(host.send("abcdefghij"));
    for (const char *piece : {"abcd", "efgh", "ij"})
        QCOMPARE(node.read(), std::string(piece));
    QCOMPARE(control("split 0"), std::string("ok"));
    QVERIFY(host.send("abcdefghij"));
    QCOMPARE(node.read(), std::string("abcdefghij"));
}

void TestContract::transfersCanBeInjectedWithoutAHost()
{
    Node node;
    QCOMPARE(control("inject " + hex("FADA")), std::string("ok"));
    const std::string largest(maxTransferSize, 'z');
    QCOMPARE(control("inject " + hex(largest)), std::string("ok"));
    QCOMPARE(node.read(), std::string("FADA"));
    QVERIFY(node.read() == largest);
}

void TestContract::commandsRunOnTheKthCall()
{
    Node node;
    node.setReadTimeout(20);
    QCOMPARE(control("on read 2 read fail EIO 1"), std::string("ok"));
    QCOMPARE(node.readOutcome(), Outcome(0, 0));
    QCOMPARE(node.readOutcome(), Outcome(-1, EIO));
    QCOMPARE(node.readOutcome(), Outcome(0, 0));

    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    node.setWriteTimeout(20);
    QCOMPARE(control("on write 2 cable out"), std::string("ok"));
    QCOMPARE(node.write("one"), Outcome(3, 0));
    QCOMPARE(node.write("two"), Outcome(-1, ETIMEDOUT));
    QCOMPARE(host.receive(), std::string("one"));
    QCOMPARE(host.receive(), std::string("(closed)"));

    QCOMPARE(control("on open 1 node missing"), std::string("ok"));
    QCOMPARE(outcomeOf([] { return open(nodePath, O_RDWR); }), Outcome(-1, ENOENT));
}

void TestContract::faultyCommandsAreAnsweredWithAnError()
{
    const std::string answer = control("read fail EFOO");
    QVERIFY2(answer.find("error: 'EFOO' is no errno name") == 0, answer.c_str());
    QVERIFY2(answer.find("it should be: read fail ERRNO [N]") != std::string::npos, answer.c_str());
    QVERIFY(control("").find("error: ") == 0);
    QVERIFY(control("wait 1").find("error: ") == 0);
}

void TestContract::onlyLaterCallsAreCountedByStatus()
{
    Node node;
    node.setReadTimeout(0);
    node.readOutcome();
    QCOMPARE(control("status"),
             std::string("ok node=present cable=in host=0 opens=1 reads=1 writes=0 pending=0 "
                         "read_timeout=0 write_timeout=2000 descriptors=1"));
}

void TestContract::readingAndWritingDoNotBlockEachOther()
{
    Node node;
    HostSocket host(_directory);
    QVERIFY(waitForStatus("host", "1"));
    node.setReadTimeout(60000);
    std::string received;
    std::thread reader([&] { received = node.read(); });
    const bool isWaiting = waitForStatus("reads", "1");
    const Outcome written = node.write("out");
    const Outcome changed = node.setWriteTimeout(77);
    const std::string sent = host.receive();
    const bool isAnswered = host.send("in");
    reader.join();
    QVERIFY(isWaiting && isAnswered);
    QCOMPARE(written, Outcome(3, 0));
    QCOMPARE(changed, Outcome(0, 0));
    QCOMPARE(sent, std::string("out"));
    QCOMPARE(received, std::string("in"));
}

void TestContract::aSignalInterruptsAReadThatThenTakesNothing()
{
    installInterruptingHandler();
    Node node;
    node.setReadTimeout(60000);
    Outcome outcome;
    std::atomic<bool> isDone{false};
    std::thread reader([&] {
        outcome = node.readOutcome();
        isDone = true;
    });
    const bool isWaiting = waitForStatus("reads", "1");
    // The daemon knows of the read a little before the thread waits for its reply.
    const bool hasEnded = QTest::qWaitFor(
        [&] {
            if (!isDone)
                pthread_kill(reader.native_handle(), SIGUSR1);
            return isDone.load();
        },
        waitTime);
    const std::string answer = control("inject 78");
    reader.join();
    QVERIFY(isWaiting && hasEnded);
    QCOMPARE(outcome, Outcome(-1, EINTR));
    QCOMPARE(answer, std::string("ok"));
    QCOMPARE(node.read(), std::string("x"));
}

namespace {

void *readForEver(void *node)
{
    static_cast<Node *>(node)->readOutcome();
    return nullptr;
}

void *writeForEver(void *node)
{
    static_cast<Node *>(node)->write("never sent");
    return nullptr;
}

bool cancels(pthread_t thread)
{
    void *result = nullptr;
    return pthread_cancel(thread) == 0 && pthread_join(thread, &result) == 0 &&
           result == PTHREAD_CANCELED;
}

int lowestFreeDescriptor()
{
    return FileDescriptor(dup(STDIN_FILENO)).get();
}

} // namespace

void TestContract::cancelledThreadsLeaveNothingBehind()
{
#ifdef SIMNODE_ADDRESS_SANITIZER
    // QSKIP itself, whose empty variadic argument clang++ warns of.
    QTest::qSkip("AddressSanitizer's unwinder aborts on a cancelled thread", __FILE__, __LINE__);
    return;
#endif
    Node node;
    node.setReadTimeout(60000);
    node.setWriteTimeout(60000);
    const int lowest = lowestFreeDescriptor();
    pthread_t reader;
    pthread_t writer;
    QCOMPARE(pthread_create(&reader, nullptr, readForEver, &node), 0);
    QCOMPARE(pthread_create(&writer, nullptr, writeForEver, &node), 0);
    const bool areWaiting = waitForStatus("reads", "1") && waitForStatus("writes", "1");
    QVERIFY(cancels(reader));
    QVERIFY(cancels(writer));
    QVERIFY(areWaiting);
    QCOMPARE(lowestFreeDescriptor(), lowest);
    HostSocket host(_directory);
    QVERIFY(host.send("kept"));
    QCOMPARE(node.read(), std::string("kept"));
    QCOMPARE(node.write("first"), Outcome(5, 0));
    QCOMPARE(host.receive(), std::string("first"));
}

void TestContract::aChildProcessSharesTheDescriptor()
{
    Node node;
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

void TestContract::theDescriptorsOfAKilledProgramAreClosed()
{
    Child program([] {
        Node node;
        node.setReadTimeout(60000);
        node.readOutcome();
        return 0;
    });
    QVERIFY(waitForStatus("reads", "1"));
    QCOMPARE(_control->statusValue("descriptors"), std::string("1"));
    program.end(SIGKILL);
    QVERIFY(waitForStatus("descriptors", "0"));
    Node node;
    QCOMPARE(control("inject 78"), std::string("ok"));
    QCOMPARE(node.read(), std::string("x"));
}

void TestContract::numbersReusedBehindTheLibraryAreOtherFiles()
{
    Node node;
    int ends[2];
    QCOMPARE(pipe(ends), 0);
    FileDescriptor reader(ends[0]);
    const FileDescriptor writer(ends[1]);
    QCOMPARE(dup2(reader.get(), node.fd()), node.fd());
    QCOMPARE(write(writer.get(), "pipe", 4), ssize_t(4));
    QCOMPARE(node.read(), std::string("pipe"));
    QCOMPARE(_control->statusValue("reads"), std::string("0"));
}

void TestContract::fortifiedReadsStillCheckTheirBuffer()
{
    Node node;
    using ReadChk = ssize_t(int, void *, std::size_t, std::size_t);
    void *function = dlsym(RTLD_DEFAULT, "__read_chk");
    QVERIFY(function != nullptr);
    QCOMPARE(control("inject 616263"), std::string("ok"));
    std::array<char, 8> buffer = {};
    QCOMPARE(reinterpret_cast<ReadChk *>(function)(node.fd(), buffer.data(), 8, 8), ssize_t(3));
    QCOMPARE(std::string(buffer.data()), std::string("abc"));
    // clang++ does not see the buffer's size through the C library's inline function.
#if defined(SIMNODE_FORTIFIED) && !defined(__clang__)
    Child overflowing([&] {
        std::array<char, 8> small = {}; // a local one, whose size the compiler knows
        const volatile std::size_t tooMuch = small.size() + 1;
        FileDescriptor messages(open("/dev/null", O_WRONLY));
        dup2(messages.get(), STDERR_FILENO);
        signal(SIGABRT, SIG_DFL);
        return static_cast<int>(read(node.fd(), small.data(), tooMuch));
    });
    const int status = overflowing.wait();
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), SIGABRT);
#endif
}

QTEST_GUILESS_MAIN(TestContract)
#include "tst_contract.moc"
