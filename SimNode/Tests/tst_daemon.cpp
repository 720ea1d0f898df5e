// SPDX-License-Identifier: MIT
#include "HostSocket.h"
#include "SimNodeControl.h"
#include "SimnodeProcess.h"

#include <QtTest>

#include <csignal>
#include <future>
#include <memory>
#include <stdexcept>

using namespace simnode;

/// `simnode serve`: its folder, its script, and what meets its sockets.
class TestDaemon : public QObject
{
    Q_OBJECT

private slots:
    void serveTellsWhenItIsReady();
    void serveEndsCleanlyOnASignal_data();
    void serveEndsCleanlyOnASignal();
    void aFolderInUseIsRefused();
    void theSocketsOfACrashedDaemonAreReplaced();
    void aFolderWithTooLongANameIsRefused();
    void aFolderThatCannotBeMadeIsRefused();
    void filesThatAreNoSocketsAreNotRemoved();
    void theScriptRunsBeforeTheNodeIsReady();
    void waitInAScriptDelaysTheLinesBehindIt();
    void aFaultyScriptIsAWrongCommandLine();
    void theTimeoutResultCanBeChosenAtStart();
    void aDeadDaemonEndsAWaitingCallWithAnError();
    void anotherDaemonDoesNotKnowOldDescriptors();
    void hostTransfersBeyondTheLimitEndTheConnection();
    void packetsThatAreNoRequestsEndTheirConnection();
    void theControlClientGivesUpOnASilentDaemon();
    void theControlClientWaitsForATimeOutOfMoreThan32Bits();
    void theControlClientReportsADaemonThatWentAway();
};

void TestDaemon::serveTellsWhenItIsReady()
{
    QTemporaryDir folder;
    const QString directory = folder.filePath("new");
    Daemon daemon(directory);
    QCOMPARE(daemon.readyLine, "simnode ready in " + directory.toUtf8() + "\n");
    QCOMPARE(entriesOf(directory), (QStringList{"control", "device", "host"}));
    QVERIFY(HostSocket(directory.toStdString()).isConnected());
}

void TestDaemon::serveEndsCleanlyOnASignal_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void TestDaemon::serveEndsCleanlyOnASignal()
{
    QFETCH(int, signal);
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    QCOMPARE(kill(static_cast<pid_t>(daemon.process.processId()), signal), 0);
    const Result result = finish(daemon.process);
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.errors, QByteArray());
    QCOMPARE(entriesOf(folder.path()), QStringList());
}

void TestDaemon::aFolderInUseIsRefused()
{
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    const Result second = runSimnode({"serve", "--dir", folder.path()});
    QCOMPARE(second.exitCode, 1);
    QVERIFY2(second.errors.contains(folder.path().toUtf8() + " is in use by another simnode"),
             second.errors);
    QVERIFY(waitForStatus(folder.path(), "node", "present"));
}

void TestDaemon::theSocketsOfACrashedDaemonAreReplaced()
{
    QTemporaryDir folder;
    {
        Daemon crashing(folder.path());
        QVERIFY(crashing.isReady());
        crashing.process.kill();
        QVERIFY(crashing.process.waitForFinished(waitTime));
    }
    QCOMPARE(entriesOf(folder.path()).size(), 3);
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    QVERIFY(waitForStatus(folder.path(), "node", "present"));
}

void TestDaemon::aFolderWithTooLongANameIsRefused()
{
    QTemporaryDir folder;
    const Result result = runSimnode({"serve", "--dir", folder.filePath(QString(100, 'x'))});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("it should have at most 99"), result.errors);
}

void TestDaemon::aFolderThatCannotBeMadeIsRefused()
{
    QTemporaryDir folder;
    const Result result = runSimnode({"serve", "--dir", folder.filePath("no/such")});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("cannot make the folder"), result.errors);
    QVERIFY2(result.errors.contains("No such file or directory"), result.errors);
}

void TestDaemon::filesThatAreNoSocketsAreNotRemoved()
{
    QTemporaryDir folder;
    const QString file = writeFile(folder, "control", "precious");
    const Result result = runSimnode({"serve", "--dir", folder.path()});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("control is no socket"), result.errors);
    QCOMPARE(QFileInfo(file).size(), qint64(8));
}

void TestDaemon::theScriptRunsBeforeTheNodeIsReady()
{
    QTemporaryDir folder;
    const QString script = writeFile(folder, "script", "# staged\nopen fail EBUSY\n");
    Daemon daemon(folder.path(), {"--script", script});
    QVERIFY(daemon.isReady());
    QCOMPARE(Probe(folder.path(), {"open"}).output(), QByteArray("open -1 EBUSY\n"));
    const QStringList staged{"run", "--script", script, "--"};
    QCOMPARE(runSimnode(staged + wordsToRun(SIMNODE_PROBE) + QStringList("open")).output,
             QByteArray("open -1 EBUSY\n"));
}

void TestDaemon::waitInAScriptDelaysTheLinesBehindIt()
{
    QTemporaryDir folder;
    const QString script = writeFile(folder, "script", "node missing\nwait 300\nnode present\n");
    QElapsedTimer timer;
    timer.start();
    Daemon daemon(folder.path(), {"--script", script});
    QVERIFY(daemon.isReady());
    SimNodeControl control(folder.path().toStdString());
    QVERIFY(QTest::qWaitFor([&] { return control.statusValue("node") == "present"; }, waitTime));
    QVERIFY2(timer.elapsed() >= 299, qPrintable(QString::number(timer.elapsed())));
}

void TestDaemon::aFaultyScriptIsAWrongCommandLine()
{
    QTemporaryDir folder;
    const QString script = writeFile(folder, "script", "status\nread fial EIO\n");
    for (const QStringList &arguments :
         {QStringList{"serve", "--dir", folder.path(), "--script", script},
          QStringList{"run", "--script", script, "--", "true"}}) {
        const Result result = runSimnode(arguments);
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.errors.contains("script, line 2: 'fial' does not follow 'read'"),
                 result.errors);
    }
    const Result missing = runSimnode({"run", "--script", "/none/here", "--", "true"});
    QCOMPARE(missing.exitCode, 2);
    QVERIFY2(missing.errors.contains("/none/here"), missing.errors);
}

void TestDaemon::theTimeoutResultCanBeChosenAtStart()
{
    const QStringList calls =
        QStringList("--") + wordsToRun(SIMNODE_PROBE) + QStringList{"open", "20", "read"};
    QCOMPARE(runSimnode(QStringList{"run"} + calls).output,
             QByteArray("open 0 -\ntimeout 0 -\nread 0 -\n"));
    QCOMPARE(runSimnode(QStringList{"run", "--timeout-result", "zero"} + calls).output,
             QByteArray("open 0 -\ntimeout 0 -\nread 0 -\n"));
    QCOMPARE(runSimnode(QStringList{"run", "--timeout-result", "error"} + calls).output,
             QByteArray("open 0 -\ntimeout 0 -\nread -1 ETIMEDOUT\n"));
}

void TestDaemon::aDeadDaemonEndsAWaitingCallWithAnError()
{
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    Probe probe(folder.path(), {"open", "600000", "read", "read", "write", "5", "open"});
    QVERIFY(waitForStatus(folder.path(), "reads", "1"));
    daemon.process.kill();
    QCOMPARE(probe.output(), QByteArray("open 0 -\ntimeout 0 -\nread -1 ENODEV\nread -1 ENODEV\n"
                                        "write -1 ENODEV\ntimeout -1 ENODEV\nopen -1 ENOENT\n"));
}

void TestDaemon::anotherDaemonDoesNotKnowOldDescriptors()
{
    QTemporaryDir folder;
    auto first = std::make_unique<Daemon>(folder.path());
    QVERIFY(first->isReady());
    Probe probe(folder.path(), {"open", "600000", "read", "read"});
    QVERIFY(waitForStatus(folder.path(), "reads", "1"));
    QCOMPARE(kill(static_cast<pid_t>(probe.process.processId()), SIGSTOP), 0);
    first.reset();
    Daemon second(folder.path());
    QVERIFY(second.isReady());
    QCOMPARE(kill(static_cast<pid_t>(probe.process.processId()), SIGCONT), 0);
    QCOMPARE(probe.output(), QByteArray("open 0 -\ntimeout 0 -\nread -1 ENODEV\nread -1 ENODEV\n"));
}

void TestDaemon::hostTransfersBeyondTheLimitEndTheConnection()
{
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    HostSocket host(folder.path().toStdString());
    QVERIFY(host.send(std::string(maxTransferSize + 1, 'x')));
    QCOMPARE(host.receive(waitTime), std::string("(closed)"));
    QVERIFY(waitForStatus(folder.path(), "host", "0"));
    QVERIFY(waitForStatus(folder.path(), "pending", "0"));
}

void TestDaemon::packetsThatAreNoRequestsEndTheirConnection()
{
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    for (const std::size_t size :
         {std::size_t(1), sizeof(DeviceRequest) - 1, sizeof(DeviceRequest) + maxTransferSize + 1}) {
        FileDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
        sockaddr_un address;
        QVERIFY(makeSocketAddress(folder.path().toUtf8().constData(), deviceSocketName, address));
        QCOMPARE(::connect(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)),
                 0);
        const std::string packet(size, '\x01');
        QCOMPARE(send(socket.get(), packet.data(), size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
        char answer;
        QCOMPARE(recv(socket.get(), &answer, 1, 0), ssize_t(0));
    }
    QVERIFY(waitForStatus(folder.path(), "descriptors", "0"));
}

void TestDaemon::theControlClientGivesUpOnASilentDaemon()
{
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    SimNodeControl control(folder.path().toStdString(), std::chrono::milliseconds(50));
    const auto process = static_cast<pid_t>(daemon.process.processId());
    QCOMPARE(kill(process, SIGSTOP), 0);
    const std::string answer = control.command("status");
    QCOMPARE(kill(process, SIGCONT), 0);
    QCOMPARE(answer, std::string("error: no answer within 50 ms"));
}

void TestDaemon::theControlClientWaitsForATimeOutOfMoreThan32Bits()
{
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    SimNodeControl control(folder.path().toStdString(),
                           std::chrono::milliseconds((1LL << 32) + 50));
    const auto process = static_cast<pid_t>(daemon.process.processId());
    QCOMPARE(kill(process, SIGSTOP), 0);
    auto answer = std::async(std::launch::async, [&] { return control.command("reset"); });
    const bool ended = answer.wait_for(std::chrono::milliseconds(200)) == std::future_status::ready;
    QCOMPARE(kill(process, SIGCONT), 0);
    QVERIFY(!ended);
    QCOMPARE(answer.get(), std::string("ok"));
}

void TestDaemon::theControlClientReportsADaemonThatWentAway()
{
    QTemporaryDir folder;
    auto daemon = std::make_unique<Daemon>(folder.path());
    QVERIFY(daemon->isReady());
    SimNodeControl control(folder.path().toStdString());
    daemon.reset();
    QVERIFY(control.command("status").find("error: ") == 0);
    QVERIFY_EXCEPTION_THROWN(control.statusValue("node"), std::runtime_error);
    QVERIFY_EXCEPTION_THROWN(SimNodeControl(folder.path().toStdString()), std::runtime_error);
}

QTEST_GUILESS_MAIN(TestDaemon)
#include "tst_daemon.moc"
