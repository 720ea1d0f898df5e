// SPDX-License-Identifier: MIT
#include "HostSession.h"
#include "SeqPacketTransport.h"

#include <BuiltProgram.h>

#include <QDirIterator>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

using namespace usbhalhost;

namespace {

constexpr int patience = 40000; // ms, for anything that has to happen

} // namespace

// The program itself over a simulated node, with this process as the USB host.
class ProgramTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void aWrongCommandLineEndsWithStatusTwoAndNothingButItsReason();
    void helpEndsWithStatusZeroAndNothingButItsText();
    void aSignalWithoutAHostEndsItCleanly_data();
    void aSignalWithoutAHostEndsItCleanly();
    void aSignalEndsItHoweverEarlyItComes();
    void aSignalWithAHostEndsItCleanly();
    void aSignalWithASilentHostEndsItCleanly();
    void theDefaultServicesAnswerTheHost();
    void allPortsAreServedAtTheSameTime();
    void afterALinkLossTransfersBeginAfresh();
    void theStartNamesNodeLogFolderAndPorts();
    void everyLineBeginsWithItsTime();
    void itWaitsForItsNodeBeforeItOpensAPort();
    void aSignalEndsTheWaitForTheNode();
    void aNodeThatVanishedAndCameBackIsServedAnew();
    void afterARestartByTheWatchdogTheHostIsHeardAgain();
    void aSilentLinkIsTold();
    void aLogThatCannotBeWrittenIsTold();
    void withoutALogFolderThePortsAreServedAllTheSame();
    void aSecondManagerOnTheSameLogFolderIsRefused();
    void verboseShowsEveryMessage();
    void theHostMayStoreNoMoreThanItIsAllowed();

private:
    void startManager(const QStringList &arguments = {}, const QStringList &nodeOptions = {});
    void startNode(ForkedProcess &node);
    void startManagerOnNode();
    bool waitForOutput(const QString &text);
    bool plugIn();
    bool waitForBytes(int port, const QByteArray &expected);
    void endWith(int signal);
    QByteArray control(const QStringList &command) const;
    int readsSoFar() const;
    QByteArray libraryLog() const;
    QStringList commonOptions() const;

    QString path(const char *name) const { return _folder->filePath(name); }

    QScopedPointer<QTemporaryDir> _folder;
    QScopedPointer<ForkedProcess> _manager;
    QScopedPointer<SeqPacketTransport> _transport;
    QScopedPointer<HostSession> _host;
    QString _output;
    QMap<int, QByteArray> _received;
};

void ProgramTest::init()
{
    _output.clear();
    _received.clear();
    _folder.reset(new QTemporaryDir);
    QVERIFY(_folder->isValid());
    _transport.reset(new SeqPacketTransport(path("node/host").toStdString()));
    _host.reset(new HostSession(*_transport));
    _manager.reset(new ForkedProcess);
    _manager->setProcessChannelMode(QProcess::MergedChannels);
    _manager->setWorkingDirectory(_folder->path());
}

void ProgramTest::cleanup()
{
    if (_manager->state() != QProcess::NotRunning) {
        _manager->terminate();
        if (!_manager->waitForFinished(patience))
            _manager->kill();
    }
    if (QTest::currentTestFailed())
        qInfo().noquote() << _output + _manager->readAll();
    _manager.reset();
    _host.reset();
    _transport.reset();
    _folder.reset();
}

void ProgramTest::startManager(const QStringList &arguments, const QStringList &nodeOptions)
{
    const QStringList node = QStringList{"run", "--dir", path("node")} + nodeOptions +
                             QStringList{"--"} + wordsToRun(SAMPLE_MANAGER);
    startBuilt(*_manager, SIMNODE, node + commonOptions() + arguments);
    QVERIFY(_manager->waitForStarted(patience));
}

// A node by itself, which can end before its manager does.
void ProgramTest::startNode(ForkedProcess &node)
{
    startBuilt(node, SIMNODE, {"serve", "--dir", path("node")});
    QVERIFY(node.waitForReadyRead(patience));
    QVERIFY(node.readAll().startsWith("simnode ready"));
}

void ProgramTest::startManagerOnNode()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("SIMNODE_DIR", path("node"));
    environment.insert("LD_PRELOAD", SIMNODE_PRELOAD_LIBRARY);
    const QString options = environment.value("ASAN_OPTIONS");
    environment.insert("ASAN_OPTIONS",
                       options + (options.isEmpty() ? "" : ":") + "verify_asan_link_order=0");
    _manager->setProcessEnvironment(environment);
    startBuilt(*_manager, SAMPLE_MANAGER, commonOptions());
    QVERIFY(_manager->waitForStarted(patience));
}

// A thread that gets no processor for some seconds does not end in the time that a stop takes by
// default, and would be killed: how long a stop may take is not what is tried here.
QStringList ProgramTest::commonOptions() const
{
    return {"--log-dir", path("log"), "--read-timeout", "300", "--write-timeout", "300",
            "--retries", "1",         "--wait",         "0",   "--stop-timeout",  "30000"};
}

bool ProgramTest::waitForOutput(const QString &text)
{
    QElapsedTimer timer;
    timer.start();
    while (!_output.contains(text) && !timer.hasExpired(patience)) {
        if (_transport->isConnected())
            _host->step();
        _manager->waitForReadyRead(20);
        _output += _manager->readAll();
    }
    return _output.contains(text);
}

bool ProgramTest::plugIn()
{
    QElapsedTimer timer;
    timer.start();
    while (_transport->connect().status != TransferResult::Status::Done) {
        if (timer.hasExpired(patience))
            return false;
        QTest::qSleep(20);
    }
    _host->restart();
    while (!_host->isMaxWriteSizeKnown() && !timer.hasExpired(patience))
        _host->step();
    return _host->isMaxWriteSizeKnown();
}

bool ProgramTest::waitForBytes(int port, const QByteArray &expected)
{
    QByteArray &received = _received[port];
    QElapsedTimer timer;
    timer.start();
    received += QByteArray::fromStdString(_host->received(port));
    while (received.size() < expected.size() && !timer.hasExpired(patience)) {
        _host->step();
        received += QByteArray::fromStdString(_host->received(port));
    }
    const bool equal = received == expected;
    if (!equal)
        qInfo() << "received" << received.left(200);
    received.clear();
    return equal;
}

void ProgramTest::endWith(int signal)
{
    QCOMPARE(::kill(static_cast<pid_t>(_manager->processId()), signal), 0);
    QElapsedTimer timer;
    timer.start();
    while (_manager->state() != QProcess::NotRunning && !timer.hasExpired(patience)) {
        if (_transport->isConnected())
            _host->step();
        _manager->waitForFinished(10);
    }
    _output += _manager->readAll();
    QVERIFY2(_manager->state() == QProcess::NotRunning, "it did not end at all");
    QCOMPARE(_manager->exitStatus(), QProcess::NormalExit);
    QCOMPARE(_manager->exitCode(), 0);
    QVERIFY(_output.contains("stopped\n"));
    const QByteArray log = libraryLog();
    QVERIFY2(log.contains("communication thread stopped"), log);
    QVERIFY2(!log.contains("-> killed"), log);
}

QByteArray ProgramTest::control(const QStringList &command) const
{
    ForkedProcess program;
    startBuilt(program, SIMNODE, QStringList{"control", "--dir", path("node")} + command);
    program.waitForFinished(patience);
    return program.readAll();
}

int ProgramTest::readsSoFar() const
{
    static const QRegularExpression reads("\\breads=(\\d+)");
    return reads.match(control({"status"})).captured(1).toInt();
}

QByteArray ProgramTest::libraryLog() const
{
    QByteArray log;
    QDirIterator files(path("log"), QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        QFile file(files.next());
        if (file.open(QIODevice::ReadOnly))
            log += file.readAll();
    }
    return log;
}

void ProgramTest::aWrongCommandLineEndsWithStatusTwoAndNothingButItsReason()
{
    _manager->setProcessChannelMode(QProcess::SeparateChannels);
    startBuilt(*_manager, SAMPLE_MANAGER, {"--port", "9=echo"});
    QVERIFY(_manager->waitForFinished(patience));
    QCOMPARE(_manager->exitCode(), 2);
    QVERIFY(_manager->readAllStandardError().contains("N from 1 to 5, not \"9=echo\""));
    QCOMPARE(_manager->readAllStandardOutput(), QByteArray());
}

void ProgramTest::helpEndsWithStatusZeroAndNothingButItsText()
{
    startBuilt(*_manager, SAMPLE_MANAGER, {"--help"});
    QVERIFY(_manager->waitForFinished(patience));
    QCOMPARE(_manager->exitCode(), 0);
    const QByteArray help = _manager->readAll();
    QVERIFY2(help.contains("Usage: usbhal-sample-manager"), help);
    QVERIFY2(help.contains("--port N=SERVICE"), help);
    QVERIFY2(!help.contains("USBHAL]"), help);
}

void ProgramTest::aSignalWithoutAHostEndsItCleanly_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void ProgramTest::aSignalWithoutAHostEndsItCleanly()
{
    QFETCH(int, signal);
    startManager();
    QVERIFY(waitForOutput("no host yet"));
    endWith(signal);
}

// Before the program has begun the signal has its default effect; from then on none is lost.
void ProgramTest::aSignalEndsItHoweverEarlyItComes()
{
    constexpr unsigned long step = 4; // ms
    for (unsigned long delay = 0; delay < 15 * step; delay += step) {
        startManager();
        QThread::msleep(delay);
        QCOMPARE(::kill(static_cast<pid_t>(_manager->processId()), SIGINT), 0);
        QVERIFY2(_manager->waitForFinished(patience), qPrintable(QString::number(delay)));
        const bool isClean =
            _manager->exitStatus() == QProcess::NormalExit && _manager->exitCode() == 0;
        QCOMPARE(isClean, _manager->readAll().contains("stopped\n"));
    }
}

void ProgramTest::aSignalWithAHostEndsItCleanly()
{
    startManager();
    QVERIFY(plugIn());
    QVERIFY(waitForOutput("link CONNECTED"));
    endWith(SIGTERM);
}

// The signal comes at the worst time, when a read has just begun to wait.
void ProgramTest::aSignalWithASilentHostEndsItCleanly()
{
    startManager();
    QVERIFY(plugIn());
    QVERIFY(waitForOutput("link CONNECTED"));
    QCOMPARE(control({"read", "silent"}), QByteArray("ok\n"));
    const int reads = readsSoFar();
    QVERIFY(reads > 0);
    QTRY_VERIFY_WITH_TIMEOUT(readsSoFar() > reads, patience);
    endWith(SIGTERM);
}

void ProgramTest::theDefaultServicesAnswerTheHost()
{
    startManager();
    QVERIFY(plugIn());
    _host->send(1, "echo this");
    _host->send(2, "discard this");
    _host->send(3, "GIVE 3\n");
    _host->send(4, "FILE 4\nfile");
    _host->send(5, "and this");
    QVERIFY(waitForBytes(1, "echo this"));
    QVERIFY(waitForBytes(3, QByteArray("\0\1\2", 3)));
    QVERIFY(waitForBytes(4, "STORED 4\n"));
    QVERIFY(waitForBytes(5, "and this"));
    QVERIFY(waitForBytes(2, ""));
    QFile stored(path("received.bin"));
    QVERIFY(stored.open(QIODevice::ReadOnly));
    QCOMPARE(stored.readAll(), QByteArray("file"));
}

void ProgramTest::allPortsAreServedAtTheSameTime()
{
    startManager({"--port", "2=echo", "--port", "3=echo", "--port", "4=echo"});
    QVERIFY(plugIn());
    QMap<int, QByteArray> sent;
    for (int port = 1; port <= 5; ++port) {
        for (int i = 0; i < 10000; ++i)
            sent[port] += QByteArray::number(i * port) + ' ';
        _host->send(port, sent[port].toStdString());
    }
    for (int port = 1; port <= 5; ++port)
        QVERIFY(waitForBytes(port, sent[port]));
}

void ProgramTest::afterALinkLossTransfersBeginAfresh()
{
    startManager();
    QVERIFY(plugIn());
    _host->send(4, "FILE 1000\n" + std::string(500, 'x'));
    _host->send(1, "echo");
    QVERIFY(waitForBytes(1, "echo"));
    _transport->close();
    QVERIFY(waitForOutput("link DISCONNECTED"));

    QVERIFY(plugIn());
    _host->send(4, "FILE 3\nnew");
    QVERIFY(waitForBytes(4, "STORED 3\n"));
    QFile stored(path("received.bin"));
    QVERIFY(stored.open(QIODevice::ReadOnly));
    QCOMPARE(stored.readAll(), QByteArray("new"));
}

void ProgramTest::theStartNamesNodeLogFolderAndPorts()
{
    startManager({"--port", "2=file:a:b"});
    QVERIFY(waitForOutput("node /dev/brn7200, log in " + path("log") +
                          ", ports 1=echo 2=file 3=source 4=file 5=echo\n"));
}

void ProgramTest::everyLineBeginsWithItsTime()
{
    startManager();
    QVERIFY(plugIn());
    QVERIFY(waitForOutput("link CONNECTED\n"));
    endWith(SIGTERM);
    static const QRegularExpression time("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} \\S");
    for (const QString &line : _output.trimmed().split('\n'))
        QVERIFY2(time.match(line).hasMatch(), qPrintable(line));
}

void ProgramTest::itWaitsForItsNodeBeforeItOpensAPort()
{
    QFile script(path("script"));
    QVERIFY(script.open(QIODevice::WriteOnly) && script.write("node missing\n") > 0);
    script.close();
    startManager({}, {"--script", path("script")});
    QVERIFY(waitForOutput("waiting for /dev/brn7200: No such file or directory\n"));
    QVERIFY2(!libraryLog().contains("opening driver"), libraryLog());
    QCOMPARE(control({"node", "present"}), QByteArray("ok\n"));
    QVERIFY(waitForOutput("opening the ports on /dev/brn7200\n"));
    QVERIFY(plugIn());
    QVERIFY(waitForOutput("link CONNECTED\n"));
    QVERIFY2(!libraryLog().contains("unable to open driver instance"), libraryLog());
}

void ProgramTest::aSignalEndsTheWaitForTheNode()
{
    startBuilt(*_manager, SAMPLE_MANAGER, commonOptions());
    QVERIFY(waitForOutput("waiting for /dev/brn7200"));
    QCOMPARE(::kill(static_cast<pid_t>(_manager->processId()), SIGINT), 0);
    QVERIFY(_manager->waitForFinished(patience));
    QCOMPARE(_manager->exitStatus(), QProcess::NormalExit);
    QCOMPARE(_manager->exitCode(), 0);
}

void ProgramTest::aNodeThatVanishedAndCameBackIsServedAnew()
{
    ForkedProcess first;
    startNode(first);
    startManagerOnNode();
    QVERIFY(plugIn());
    QVERIFY(waitForOutput("link CONNECTED\n"));
    first.kill();
    QVERIFY(first.waitForFinished(patience));
    _transport->close();
    QVERIFY(waitForOutput("/dev/brn7200 is gone\n"));
    QVERIFY(waitForOutput("waiting for /dev/brn7200: No such file or directory\n"));

    _output.clear();
    ForkedProcess second;
    startNode(second);
    QVERIFY(plugIn());
    QVERIFY(waitForOutput("link CONNECTED\n"));
    _host->send(1, "anew");
    QVERIFY(waitForBytes(1, "anew"));
    endWith(SIGTERM);
    second.terminate();
    QVERIFY(second.waitForFinished(patience));
}

// The echo of some bytes goes out with each message, so that most of what the host sends is left
// with the library. Then a write gets stuck.
void ProgramTest::afterARestartByTheWatchdogTheHostIsHeardAgain()
{
    startManager({"--max-write-size", "20", "--stop-timeout", "100"});
    QVERIFY(plugIn());
    _host->send(1, std::string(700000, '\0'));
    QElapsedTimer timer;
    timer.start();
    while (_host->pendingBytes(1) > 0 && !timer.hasExpired(patience))
        _host->step();
    QCOMPARE(_host->pendingBytes(1), std::size_t(0));
    QCOMPARE(control({"write", "stuck"}), QByteArray("ok\n"));
    QVERIFY(waitForOutput("link DISCONNECTED\n"));
    QCOMPARE(control({"write", "ok"}), QByteArray("ok\n"));

    _transport->close();
    _host->received(1);
    QVERIFY(plugIn());
    QVERIFY(waitForOutput("of the old link discarded\n"));
    _host->send(1, "new link");
    QVERIFY(waitForBytes(1, "new link"));
    QVERIFY2(!libraryLog().contains("Ask host to delay"), "the host was told to wait");
}

void ProgramTest::aSilentLinkIsTold()
{
    startManager({"--silence", "4000"}); // well above the second between two looks
    QVERIFY(plugIn());
    QVERIFY(waitForOutput("link CONNECTED\n"));
    QVERIFY(waitForOutput("the link has been silent for "));
    QVERIFY(waitForOutput("s: no message from the host, 0 wait for it\n"));
    _host->send(1, "again");
    QVERIFY(waitForOutput("the link is no longer silent\n"));
}

void ProgramTest::aLogThatCannotBeWrittenIsTold()
{
    startManager();
    QVERIFY(waitForOutput("no host yet"));
    QVERIFY(QDir().rename(path("log"), path("moved")));
    QVERIFY(waitForOutput("the log in " + path("log") +
                          " cannot be written: No such file or directory\n"));
    QVERIFY(QDir().rename(path("moved"), path("log")));
    QVERIFY(waitForOutput("the log in " + path("log") + " can be written again\n"));
}

void ProgramTest::withoutALogFolderThePortsAreServedAllTheSame()
{
    QFile file(path("file"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    startManager({"--log-dir", path("file/log")});
    QVERIFY(
        waitForOutput("the log in " + path("file/log") + " cannot be written: Not a directory\n"));
    QVERIFY(plugIn());
    _host->send(1, "echo");
    QVERIFY(waitForBytes(1, "echo"));
}

void ProgramTest::aSecondManagerOnTheSameLogFolderIsRefused()
{
    startManager();
    QVERIFY(waitForOutput("no host yet"));
    const QByteArray log = libraryLog();
    ForkedProcess second;
    startBuilt(second, SAMPLE_MANAGER, commonOptions());
    QVERIFY(second.waitForFinished(patience));
    QCOMPARE(second.exitCode(), 1);
    const QByteArray reason = second.readAllStandardError();
    QVERIFY2(reason.contains("another manager, process "), reason);
    QVERIFY2(reason.contains("uses the log folder " + path("log").toUtf8()), reason);
    QVERIFY(!QFile::exists(path("log/UsbHal1.log.keep")));
    QVERIFY(libraryLog().startsWith(log));
}

void ProgramTest::verboseShowsEveryMessage()
{
    startManager({"--verbose"});
    QVERIFY(plugIn());
    _host->send(1, "echo");
    QVERIFY(waitForBytes(1, "echo"));
    QVERIFY(waitForOutput("port 1: 4 bytes from the host\n"));
    QVERIFY(waitForOutput("port 1: 4 bytes to the host\n"));
}

void ProgramTest::theHostMayStoreNoMoreThanItIsAllowed()
{
    startManager({"--max-file-size", "3"});
    QVERIFY(plugIn());
    _host->send(4, "FILE 4\nfileFILE 3\nabc");
    QVERIFY(waitForBytes(4, "ERROR 4 bytes are more than the 3 that may be stored\nSTORED 3\n"));
}

QTEST_GUILESS_MAIN(ProgramTest)
#include "tst_program.moc"
