// SPDX-License-Identifier: MIT
#ifndef SIMNODE_CONTRACTTEST_H
#define SIMNODE_CONTRACTTEST_H

#include "HostSocket.h"
#include "SimNodeControl.h"

#include <QtTest>

#include <array>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <utility>

namespace simnode {

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

/// The node as a program has it open, until this object is destroyed.
class DeviceNode
{
public:
    explicit DeviceNode(int flags = O_RDWR) : _descriptor(open(nodePath, flags)) {}

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

/**
 * Runs under `simnode run`: its own system calls are those of a program that uses the node. Each
 * test begins with the node as it is at the start, and leaves no descriptor and no host behind.
 */
class ContractTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        _directory = SimNodeControl::directoryFromEnvironment();
        QVERIFY2(!_directory.empty(), "this test runs under `simnode run`");
        _control = std::make_unique<SimNodeControl>(_directory);
    }
    void init() { QCOMPARE(control("reset"), std::string("ok")); }
    void cleanup()
    {
        QVERIFY2(waitForStatus("descriptors", "0"), "a test left the node open");
        QVERIFY(waitForStatus("host", "0"));
    }

protected:
    std::string control(const std::string &command) { return _control->command(command); }
    bool waitForStatus(const char *key, const char *value)
    {
        return QTest::qWaitFor([&] { return _control->statusValue(key) == value; }, waitTime);
    }

    std::string _directory;
    std::unique_ptr<SimNodeControl> _control;
};

} // namespace simnode

#endif
