// SPDX-License-Identifier: MIT
#include "HostSocket.h"
#include "SimNodeControl.h"
#include "SimnodeProcess.h"

#include <QtTest>

#include <csignal>
#include <future>
#include <memory>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace simnode;

namespace {

// The fields of /proc/PID/stat behind the program's name.
QList<QByteArray> statusOf(qint64 process)
{
    QFile file("/proc/" + QString::number(process) + "/stat");
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(file.fileName()));
    const QByteArray text = file.readAll();
    return text.mid(text.lastIndexOf(')') + 2).split(' ');
}

bool waitsForEvents(qint64 process)
{
    return statusOf(process)[0] == "S";
}

// Milliseconds of the processor.
qint64 timeUsedBy(qint64 process)
{
    const QList<QByteArray> fields = statusOf(process);
    return (fields[11].toLongLong() + fields[12].toLongLong()) * 1000 / sysconf(_SC_CLK_TCK);
}

// With as many descriptors as it has open the process gets no further one.
rlimit limitReachedBy(qint64 process, rlimit limit)
{
    limit.rlim_cur =
        static_cast<rlim_t>(entriesOf("/proc/" + QString::number(process) + "/fd").size());
    return limit;
}

} // namespace

/// `simnode serve`: its folder, its script, and what meets its sockets.
class DaemonTest : public QObject
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
    void aFolderThatOthersMayWriteIsRefused_data();
    void aFolderThatOthersMayWriteIsRefused();
    void aFolderOfAnotherUserIsRefused();
    void theSocketsAreForTheUserOnly_data();
    void theSocketsAreForTheUserOnly();
    void nothingIsLeftBehindWhenTheStartFails();
    void filesThatAreNoSocketsAreNotRemoved();
    void aDaemonWhoseFolderIsGoneSaysSo_data();
    void aDaemonWhoseFolderIsGoneSaysSo();
    void anOlderDaemonLeavesTheSocketsOfANewerOneAlone();
    void clientsThatCannotBeAcceptedCostNoTime();
    void idleControlClientsLeaveRoomForTheDevice();
    void theScriptRunsBeforeTheNodeIsReady();
    void waitInAScriptDelaysTheLinesBehindIt();
    void aFaultyScriptIsAWrongCommandLine();
    void theTimeoutResultCanBeChosenAtStart();
    void aDescriptorKeptAcrossExecIsTheNode();
    void aDeadDaemonEndsAWaitingCallWithAnError();
    void anotherDaemonDoesNotKnowOldDescriptors();
    void hostTransfersBeyondTheLimitEndTheConnection();
    void packetsThatAreNoRequestsEndTheirConnection();
    void theControlClientGivesUpOnASilentDaemon();
    void theControlClientWaitsForATimeOutOfMoreThan32Bits();
    void theControlClientReportsADaemonThatWentAway();
};

void DaemonTest::serveTellsWhenItIsReady()
{
    QTemporaryDir folder;
    const QString directory = folder.filePath("new");
    Daemon daemon(directory);
    QCOMPARE(daemon.readyLine, "simnode ready in " + directory.toUtf8() + "\n");
    QCOMPARE(entriesOf(directory), (QStringList{"control", "device", "host"}));
    QVERIFY(HostSocket(directory.toStdString()).isConnected());
}

void DaemonTest::serveEndsCleanlyOnASignal_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void DaemonTest::serveEndsCleanlyOnASignal()
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

void DaemonTest::aFolderInUseIsRefused()
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

void DaemonTest::theSocketsOfACrashedDaemonAreReplaced()
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

void DaemonTest::aFolderWithTooLongANameIsRefused()
{
    QTemporaryDir folder;
    const Result result = runSimnode({"serve", "--dir", folder.filePath(QString(100, 'x'))});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("it should have at most 99"), result.errors);
}

void DaemonTest::aFolderThatCannotBeMadeIsRefused()
{
    QTemporaryDir folder;
    const Result result = runSimnode({"serve", "--dir", folder.filePath("no/such")});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("cannot make the folder"), result.errors);
    QVERIFY2(result.errors.contains("No such file or directory"), result.errors);
}

void DaemonTest::aFolderThatOthersMayWriteIsRefused_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("group") << 0770;
    QTest::newRow("all") << 0702;
    QTest::newRow("all, but for the files of others") << 01777;
}

void DaemonTest::aFolderThatOthersMayWriteIsRefused()
{
    QFETCH(int, mode);
    QTemporaryDir folder;
    QCOMPARE(chmod(folder.path().toUtf8(), static_cast<mode_t>(mode)), 0);
    const Result result = runSimnode({"run", "--dir", folder.path(), "--", "true"});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("others may write into the folder"), result.errors);
    QCOMPARE(entriesOf(folder.path()), QStringList());
}

void DaemonTest::aFolderOfAnotherUserIsRefused()
{
    QTemporaryDir folder;
    const bool isRoot = geteuid() == 0;
    QVERIFY(!isRoot || chown(folder.path().toUtf8(), 65534, 65534) == 0);
    const QString foreign = isRoot ? folder.path() : "/usr";
    const Result result = runSimnode({"run", "--dir", foreign, "--", "true"});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains(foreign.toUtf8() + " belongs to another user"), result.errors);
}

void DaemonTest::theSocketsAreForTheUserOnly_data()
{
    QTest::addColumn<int>("mask");
    QTest::newRow("a mask that forbids nothing") << 0;
    QTest::newRow("a mask that forbids everything") << 0777;
}

void DaemonTest::theSocketsAreForTheUserOnly()
{
    QFETCH(int, mask);
    QTemporaryDir folder;
    const QString directory = folder.filePath("new");
    const mode_t before = umask(static_cast<mode_t>(mask));
    Daemon daemon(directory);
    umask(before);
    QVERIFY(daemon.isReady());
    SimNodeControl control(directory.toStdString());
    QCOMPARE(control.command("cable out"), std::string("ok"));
    QCOMPARE(control.command("cable in"), std::string("ok"));
    const auto modeOf = [](const QString &path) {
        struct stat status = {};
        return stat(path.toUtf8(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
    };
    QCOMPARE(modeOf(directory), 0700);
    QCOMPARE(entriesOf(directory), (QStringList{"control", "device", "host"}));
    for (const QString &name : entriesOf(directory))
        QCOMPARE(modeOf(directory + "/" + name), 0600);
}

void DaemonTest::nothingIsLeftBehindWhenTheStartFails()
{
    QTemporaryDir folder;
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert("TMPDIR", folder.path());
    for (const QStringList &arguments :
         {QStringList{"serve", "--dir", folder.filePath(QString(100, 'x'))},
          QStringList{"run", "--dir", folder.filePath("new"), "--", "/no/such/program"},
          QStringList{"run", "--", "/no/such/program"}}) {
        QVERIFY(runSimnode(arguments, environment).exitCode > 0);
        QCOMPARE(entriesOf(folder.path()), QStringList());
    }
    QTemporaryDir deep(folder.filePath(QString(100, 'x') + "-XXXXXX"));
    environment.insert("TMPDIR", deep.path());
    QCOMPARE(runSimnode({"run", "--", "true"}, environment).exitCode, 1);
    QCOMPARE(entriesOf(deep.path()), QStringList());
}

void DaemonTest::aDaemonWhoseFolderIsGoneSaysSo_data()
{
    QTest::addColumn<bool>("isMoved");
    QTest::newRow("removed") << false;
    QTest::newRow("moved") << true;
}

void DaemonTest::aDaemonWhoseFolderIsGoneSaysSo()
{
    QFETCH(bool, isMoved);
    QTemporaryDir folder;
    const QString directory = folder.filePath("node");
    Daemon daemon(directory);
    QVERIFY(daemon.isReady());
    QVERIFY(isMoved ? QDir().rename(directory, folder.filePath("moved"))
                    : QDir(directory).removeRecursively());
    const Result result = finish(daemon.process);
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains(directory.toUtf8() + " was removed or moved"), result.errors);
}

void DaemonTest::anOlderDaemonLeavesTheSocketsOfANewerOneAlone()
{
    QTemporaryDir folder;
    const QString directory = folder.filePath("node");
    Daemon older(directory);
    QVERIFY(older.isReady());
    const auto process = static_cast<pid_t>(older.process.processId());
    QCOMPARE(kill(process, SIGSTOP), 0);
    QVERIFY(QDir(directory).removeRecursively());
    Daemon newer(directory);
    QVERIFY(newer.isReady());
    QCOMPARE(kill(process, SIGTERM), 0);
    QCOMPARE(kill(process, SIGCONT), 0);
    QVERIFY(older.process.waitForFinished(waitTime));
    QCOMPARE(entriesOf(directory), (QStringList{"control", "device", "host"}));
    QVERIFY(waitForStatus(directory, "node", "present"));
}

void DaemonTest::clientsThatCannotBeAcceptedCostNoTime()
{
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    const auto process = static_cast<pid_t>(daemon.process.processId());
    SimNodeControl accepted(folder.path().toStdString());
    QCOMPARE(accepted.command("reset"), std::string("ok"));
    rlimit before = {};
    QCOMPARE(prlimit(process, RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit noMore = limitReachedBy(process, before);
    QCOMPARE(prlimit(process, RLIMIT_NOFILE, &noMore, nullptr), 0);

    SimNodeControl waiting(folder.path().toStdString());
    HostSocket host(folder.path().toStdString());
    const qint64 usedBefore = timeUsedBy(process);
    constexpr int period = 500; // ms
    QTest::qWait(period);
    const qint64 used = timeUsedBy(process) - usedBefore;
    QVERIFY2(used < period / 5, qPrintable(QString::number(used)));
    QCOMPARE(accepted.command("reset"), std::string("ok"));

    QCOMPARE(prlimit(process, RLIMIT_NOFILE, &before, nullptr), 0);
    QCOMPARE(waiting.command("reset"), std::string("ok"));
    QVERIFY(waitForStatus(folder.path(), "host", "1"));
}

void DaemonTest::idleControlClientsLeaveRoomForTheDevice()
{
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    constexpr std::size_t clients = 850; // below the limit of 1024 descriptors here
    std::vector<std::unique_ptr<SimNodeControl>> idle;
    idle.reserve(clients);
    while (idle.size() < clients)
        idle.push_back(std::make_unique<SimNodeControl>(folder.path().toStdString()));
    QVERIFY(QTest::qWaitFor([&] { return waitsForEvents(daemon.process.processId()); }, waitTime));
    QCOMPARE(Probe(folder.path(), {"open", "10", "read", "close"}).output(),
             QByteArray("open 0 -\ntimeout 0 -\nread 0 -\nclose 0 -\n"));
    QCOMPARE(idle.front()->command("reset"), std::string("ok"));
    idle.erase(idle.begin(), idle.end() - 1);
    QCOMPARE(idle.back()->command("reset"), std::string("ok"));
}

void DaemonTest::filesThatAreNoSocketsAreNotRemoved()
{
    QTemporaryDir folder;
    const QString file = writeFile(folder, "control", "precious");
    const Result result = runSimnode({"serve", "--dir", folder.path()});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("control is no socket"), result.errors);
    QCOMPARE(QFileInfo(file).size(), qint64(8));
}

void DaemonTest::theScriptRunsBeforeTheNodeIsReady()
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

void DaemonTest::waitInAScriptDelaysTheLinesBehindIt()
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

void DaemonTest::aFaultyScriptIsAWrongCommandLine()
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

void DaemonTest::theTimeoutResultCanBeChosenAtStart()
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

void DaemonTest::aDescriptorKeptAcrossExecIsTheNode()
{
    QTemporaryDir folder;
    const QString script = writeFile(folder, "script", "inject 616263\n");
    Daemon daemon(folder.filePath("node"), {"--script", script});
    QVERIFY(daemon.isReady());
    Probe probe(folder.filePath("node"), QStringList{"open", "exec"} + wordsToRun(SIMNODE_PROBE) +
                                             QStringList{"inherit", "20", "read", "read", "close"});
    QCOMPARE(probe.output(), QByteArray("open 0 -\ntimeout 0 -\nread 3 -\nread 0 -\nclose 0 -\n"));
    QVERIFY(waitForStatus(folder.filePath("node"), "descriptors", "0"));
}

void DaemonTest::aDeadDaemonEndsAWaitingCallWithAnError()
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

void DaemonTest::anotherDaemonDoesNotKnowOldDescriptors()
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

void DaemonTest::hostTransfersBeyondTheLimitEndTheConnection()
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

void DaemonTest::packetsThatAreNoRequestsEndTheirConnection()
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

void DaemonTest::theControlClientGivesUpOnASilentDaemon()
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

void DaemonTest::theControlClientWaitsForATimeOutOfMoreThan32Bits()
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

void DaemonTest::theControlClientReportsADaemonThatWentAway()
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

QTEST_GUILESS_MAIN(DaemonTest)
#include "tst_daemon.moc"
