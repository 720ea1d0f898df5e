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

constexpr int patience = 20000; // ms, for anything that has to happen

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
    void aSignalWithAHostEndsItCleanly();
    void aSignalWithASilentHostEndsItCleanly();
    void theDefaultServicesAnswerTheHost();
    void allPortsAreServedAtTheSameTime();
    void afterALinkLossTransfersBeginAfresh();

private:
    void startManager(const QStringList &arguments = {});
    bool waitForOutput(const QString &text);
    bool plugIn();
    bool waitForBytes(int port, const QByteArray &expected);
    void endWith(int signal);
    QByteArray control(const QStringList &command) const;
    int readsSoFar() const;
    QByteArray libraryLog() const;

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

void ProgramTest::startManager(const QStringList &arguments)
{
    const QStringList node =
        QStringList{"run", "--dir", path("node"), "--"} + wordsToRun(SAMPLE_MANAGER);
    const QStringList common{"--log-dir",       path("log"), "--read-timeout", "300",
                             "--write-timeout", "300",       "--retries",      "1",
                             "--wait",          "0"};
    startBuilt(*_manager, SIMNODE, node + common + arguments);
    QVERIFY(_manager->waitForStarted(patience));
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
    QVERIFY(help.startsWith("Usage: "));
    QVERIFY(help.contains("--port <N=SERVICE>"));
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

QTEST_GUILESS_MAIN(ProgramTest)
#include "test_program.moc"
