// SPDX-License-Identifier: MIT
#include "HostSocket.h"
#include "SimNodeControl.h"

#include <QtTest>

#include <csignal>
#include <memory>
#include <stdexcept>

using namespace simnode;

namespace {

constexpr int waitTime = 10000; // ms, for what has to happen

struct Result
{
    int exitCode = -1;
    QByteArray output;
    QByteArray errors;
};

QProcessEnvironment cleanEnvironment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(directoryVariable);
    environment.remove("LD_PRELOAD");
    environment.remove("SIMNODE_PRELOAD");
    return environment;
}

Result finish(QProcess &process)
{
    process.closeWriteChannel();
    if (!process.waitForFinished(waitTime))
        return {};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2,
            process.readAllStandardOutput(), process.readAllStandardError()};
}

Result runProgram(const QString &program, const QStringList &arguments,
                  const QProcessEnvironment &environment = cleanEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    return finish(process);
}

Result runSimnode(const QStringList &arguments)
{
    return runProgram(SIMNODE_EXECUTABLE, arguments);
}

/// A `simnode serve` that is ready.
class Daemon
{
public:
    explicit Daemon(const QString &directory, const QStringList &options = {})
    {
        process.setProcessEnvironment(cleanEnvironment());
        process.start(SIMNODE_EXECUTABLE, QStringList{"serve", "--dir", directory} + options);
        process.waitForReadyRead(waitTime);
        readyLine = process.readAllStandardOutput();
    }
    ~Daemon()
    {
        process.kill();
        process.waitForFinished();
    }

    bool isReady() const { return readyLine.startsWith("simnode ready in "); }

    QProcess process;
    QByteArray readyLine;
};

/// A program whose calls on the node go to the daemon of `directory`.
class Probe
{
public:
    Probe(const QString &directory, const QStringList &calls)
    {
        QProcessEnvironment environment = cleanEnvironment();
        environment.insert(directoryVariable, directory);
        environment.insert("LD_PRELOAD", SIMNODE_PRELOAD_LIBRARY);
        QString options = environment.value("ASAN_OPTIONS");
        options += (options.isEmpty() ? "" : ":") + QString("verify_asan_link_order=0");
        environment.insert("ASAN_OPTIONS", options);
        process.setProcessEnvironment(environment);
        process.start(SIMNODE_PROBE, calls);
    }

    QByteArray output()
    {
        process.waitForFinished(waitTime);
        return process.readAllStandardOutput();
    }

    QProcess process;
};

bool waitForStatus(const QString &directory, const char *key, const char *value)
{
    SimNodeControl control(directory.toStdString());
    return QTest::qWaitFor([&] { return control.statusValue(key) == value; }, waitTime);
}

QString writeFile(const QTemporaryDir &folder, const QString &name, const QByteArray &text)
{
    QFile file(folder.filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        qFatal("cannot write %s", qPrintable(file.fileName()));
    return file.fileName();
}

QStringList entriesOf(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::Hidden |
                                  QDir::NoDotAndDotDot);
}

} // namespace

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
    void runEndsWithTheStatusOfItsProgram_data();
    void runEndsWithTheStatusOfItsProgram();
    void runServesItsProgram();
    void runRemovesOnlyAFolderOfItsOwn();
    void runExtendsTheEnvironment();
    void runPassesSignalsOn();
    void runFindsTheInstalledPreloadLibrary();
    void runTakesThePreloadLibraryFromTheEnvironment();
    void runWithoutAPreloadLibrarySaysSo();
    void controlTellsTheAnswerByItsExitStatus();
    void controlWithoutADaemonFails();
    void wrongCommandLinesSayHowTheyShouldBe_data();
    void wrongCommandLinesSayHowTheyShouldBe();
    void helpIsNoError();
    void theControlClientGivesUpOnASilentDaemon();
    void theControlClientReportsADaemonThatWentAway();
    void thePreloadLibraryExportsTheWrappedNamesOnly();
    void thePreloadLibraryNeedsTheCLibraryOnly();
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
    QCOMPARE(runSimnode({"run", "--script", script, "--", SIMNODE_PROBE, "open"}).output,
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
    const QStringList calls = {"--", SIMNODE_PROBE, "open", "20", "read"};
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

void TestDaemon::runEndsWithTheStatusOfItsProgram_data()
{
    QTest::addColumn<QStringList>("program");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("success") << QStringList{"true"} << 0;
    QTest::newRow("failure") << QStringList{"sh", "-c", "exit 7"} << 7;
    QTest::newRow("signal") << QStringList{"sh", "-c", "kill -KILL $$"} << 128 + SIGKILL;
    QTest::newRow("no such program") << QStringList{"/no/such/program"} << 127;
}

void TestDaemon::runEndsWithTheStatusOfItsProgram()
{
    QFETCH(QStringList, program);
    QFETCH(int, exitCode);
    QCOMPARE(runSimnode(QStringList{"run", "--"} + program).exitCode, exitCode);
}

void TestDaemon::runServesItsProgram()
{
    const Result result =
        runSimnode({"run", "--", SIMNODE_PROBE, "open", "10", "read", "close", "close"});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.output,
             QByteArray("open 0 -\ntimeout 0 -\nread 0 -\nclose 0 -\nclose -1 EBADF\n"));
    QCOMPARE(result.errors, QByteArray());
}

void TestDaemon::runRemovesOnlyAFolderOfItsOwn()
{
    QTemporaryDir folder;
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert("TMPDIR", folder.path());
    const QStringList print = {"--", "sh", "-c", "echo $SIMNODE_DIR; ls $SIMNODE_DIR"};
    Result result = runProgram(SIMNODE_EXECUTABLE, QStringList{"run"} + print, environment);
    QVERIFY2(result.output.startsWith(folder.path().toUtf8() + "/simnode-"), result.output);
    QVERIFY2(result.output.endsWith("\ncontrol\ndevice\nhost\n"), result.output);
    QCOMPARE(entriesOf(folder.path()), QStringList());

    const QString directory = folder.filePath("kept");
    result =
        runProgram(SIMNODE_EXECUTABLE, QStringList{"run", "--dir", directory} + print, environment);
    QCOMPARE(result.output, directory.toUtf8() + "\ncontrol\ndevice\nhost\n");
    QCOMPARE(entriesOf(folder.path()), QStringList{"kept"});
    QCOMPARE(entriesOf(directory), QStringList());
}

void TestDaemon::runExtendsTheEnvironment()
{
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert("LD_PRELOAD", "libdl.so.2");
    environment.insert("ASAN_OPTIONS", "verify_asan_link_order=0:halt_on_error=1");
    const Result result =
        runProgram(SIMNODE_EXECUTABLE,
                   {"run", "--", "sh", "-c", "echo $LD_PRELOAD; echo $ASAN_OPTIONS"}, environment);
    QCOMPARE(result.output,
             QByteArray("libdl.so.2:" SIMNODE_PRELOAD_LIBRARY
                        "\nverify_asan_link_order=0:halt_on_error=1:verify_asan_link_order=0\n"));
}

void TestDaemon::runPassesSignalsOn()
{
    for (const int signal : {SIGINT, SIGTERM}) {
        QProcess process;
        process.setProcessEnvironment(cleanEnvironment());
        process.start(SIMNODE_EXECUTABLE,
                      {"run", "--", "sh", "-c",
                       "trap 'echo INT; exit 3' INT; trap 'echo TERM; exit 4' TERM; echo ready; "
                       "while :; do sleep 0.05; done"});
        QVERIFY(process.waitForReadyRead(waitTime));
        QCOMPARE(process.readAllStandardOutput(), QByteArray("ready\n"));
        QCOMPARE(kill(static_cast<pid_t>(process.processId()), signal), 0);
        const Result result = finish(process);
        QCOMPARE(result.exitCode, signal == SIGINT ? 3 : 4);
        QCOMPARE(result.output, QByteArray(signal == SIGINT ? "INT\n" : "TERM\n"));
    }
}

void TestDaemon::runFindsTheInstalledPreloadLibrary()
{
    QTemporaryDir prefix;
    QDir root(prefix.path());
    QVERIFY(root.mkpath("bin"));
    const QString libraries = QDir::cleanPath(root.filePath("bin/" SIMNODE_PRELOAD_FROM_BINDIR));
    QVERIFY(root.mkpath(libraries));
    QVERIFY(QFile::copy(SIMNODE_EXECUTABLE, root.filePath("bin/simnode")));
    const QString library = libraries + "/libsimnode-preload.so";
    QVERIFY(QFile::copy(SIMNODE_PRELOAD_LIBRARY, library));
    const Result result =
        runProgram(root.filePath("bin/simnode"), {"run", "--", "sh", "-c", "echo $LD_PRELOAD"});
    QCOMPARE(result.output, library.toUtf8() + "\n");
}

void TestDaemon::runTakesThePreloadLibraryFromTheEnvironment()
{
    QTemporaryDir folder;
    const QString library = folder.filePath("other.so");
    QVERIFY(QFile::copy(SIMNODE_PRELOAD_LIBRARY, library));
    QProcessEnvironment environment = cleanEnvironment();
    environment.insert("SIMNODE_PRELOAD", library);
    const Result result =
        runProgram(SIMNODE_EXECUTABLE, {"run", "--", "sh", "-c", "echo $LD_PRELOAD"}, environment);
    QCOMPARE(result.output, library.toUtf8() + "\n");
}

void TestDaemon::runWithoutAPreloadLibrarySaysSo()
{
    QTemporaryDir folder;
    const QString alone = folder.filePath("simnode");
    QVERIFY(QFile::copy(SIMNODE_EXECUTABLE, alone));
    const Result result = runProgram(alone, {"run", "--", "true"});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("cannot find libsimnode-preload.so"), result.errors);
    QVERIFY2(result.errors.contains("set SIMNODE_PRELOAD"), result.errors);
}

void TestDaemon::controlTellsTheAnswerByItsExitStatus()
{
    QTemporaryDir folder;
    Daemon daemon(folder.path());
    QVERIFY(daemon.isReady());
    const Result good = runSimnode({"control", "--dir", folder.path(), "read", "fail", "EIO", "3"});
    QCOMPARE(good.exitCode, 0);
    QCOMPARE(good.output, QByteArray("ok\n"));
    const Result bad = runSimnode({"control", "--dir", folder.path(), "read", "fail", "EFOO"});
    QCOMPARE(bad.exitCode, 1);
    QVERIFY2(bad.output.startsWith("error: 'EFOO' is no errno name"), bad.output);
}

void TestDaemon::controlWithoutADaemonFails()
{
    QTemporaryDir folder;
    const Result result = runSimnode({"control", "--dir", folder.path(), "status"});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.errors.contains("no simnode serves " + folder.path().toUtf8()), result.errors);
}

void TestDaemon::wrongCommandLinesSayHowTheyShouldBe_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("why");
    const auto row = [](const char *name, const QStringList &arguments, const char *why) {
        QTest::newRow(name) << arguments << QByteArray(why);
    };
    row("no command", {}, "subcommand is required");
    row("unknown command", {"fly"}, "fly");
    row("unknown option", {"serve", "--dir", "x", "--fly"}, "--fly");
    row("serve without a folder", {"serve"}, "--dir is required");
    row("run without a program", {"run"}, "PROGRAM is required");
    row("control without a folder", {"control", "status"}, "--dir is required");
    row("control without a command", {"control", "--dir", "x"}, "COMMAND is required");
    row("unknown result", {"run", "--timeout-result", "two", "--", "true"}, "two not in");
}

void TestDaemon::wrongCommandLinesSayHowTheyShouldBe()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, why);
    const Result result = runSimnode(arguments);
    QCOMPARE(result.exitCode, 2);
    QVERIFY2(result.errors.contains(why), result.errors);
    QVERIFY2(result.errors.contains("Usage: simnode"), result.errors);
}

void TestDaemon::helpIsNoError()
{
    const Result result = runSimnode({"run", "--help"});
    QCOMPARE(result.exitCode, 0);
    QVERIFY2(result.output.contains("--timeout-result"), result.output);
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

void TestDaemon::thePreloadLibraryExportsTheWrappedNamesOnly()
{
    const Result result =
        runProgram("nm", {"-D", "--defined-only", "--format=posix", SIMNODE_PRELOAD_LIBRARY});
    QCOMPARE(result.exitCode, 0);
    QStringList names;
    for (const QByteArray &line : result.output.trimmed().split('\n'))
        names << QString::fromLatin1(line.left(line.indexOf(' ')));
    names.sort();
    QCOMPARE(names, (QStringList{"__open64_2", "__open_2", "__openat64_2", "__openat_2",
                                 "__read_chk", "close", "ioctl", "open", "open64", "openat",
                                 "openat64", "read", "write"}));
}

void TestDaemon::thePreloadLibraryNeedsTheCLibraryOnly()
{
    const Result result = runProgram("objdump", {"-p", SIMNODE_PRELOAD_LIBRARY});
    QCOMPARE(result.exitCode, 0);
    QVERIFY2(result.output.contains("NEEDED               libc.so.6"), result.output);
    QCOMPARE(result.output.count("NEEDED"), 1);
}

QTEST_GUILESS_MAIN(TestDaemon)
#include "tst_daemon.moc"
