// SPDX-License-Identifier: MIT
#include "Listener.h"
#include "Protocol.h"

#include <BuiltProgram.h>

#include <QTemporaryDir>
#include <QtTest>

using namespace hostpeer;

namespace {

const std::string noData = "DEVICE_NODATA";
const std::string readSize = "DEVICE_NODATA10000";

std::string data(int port, std::string_view payload)
{
    std::string message;
    appendDataMessage(message, port, payload);
    return message;
}

} // namespace

/// `usbhal-host` as a device sees it, and as its user does.
class ProgramTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void theInputGoesToThePortAndWhatThePortSendsIsPrinted();
    void bytesOfOtherPortsAreNotPrinted();
    void itWaitsForTheNode();
    void itLingersForWhatTheDeviceSendsBehindTheEndOfTheInput();
    void theEndOfTheLinkFailsWhenBytesAreLeft();
    void theEndOfTheLinkIsNoFailureWhenAllIsDelivered();
    void anUnansweredTransferFails();
    void aDeviceThatHasNotAnsweredYetIsNoFault();
    void wrongCommandLinesSayHowTheyShouldBe_data();
    void wrongCommandLinesSayHowTheyShouldBe();
    void helpIsNoError();
    void versionIsNoError();

private:
    void _start(const QStringList &options, const QByteArray &input);
    bool _connect();
    bool _exchange(const std::string &expected, const std::string &answer);
    int _answerToTheEnd();
    int _exitStatus();
    void _run(const QStringList &arguments);

    QScopedPointer<QTemporaryDir> _folder;
    QScopedPointer<Listener> _device;
    QScopedPointer<ForkedProcess> _program;
};

void ProgramTest::init()
{
    _folder.reset(new QTemporaryDir);
    _device.reset(new Listener(_folder->filePath("host").toStdString()));
    QVERIFY(_device->isListening());
    _program.reset(new ForkedProcess);
}

void ProgramTest::cleanup()
{
    _program->kill();
    _program->waitForFinished();
    _program.reset();
    _device.reset();
}

void ProgramTest::_start(const QStringList &options, const QByteArray &input)
{
    startBuilt(*_program, USBHAL_HOST, QStringList{"--node", _folder->path()} + options);
    _program->write(input);
    _program->closeWriteChannel();
    while (_program->bytesToWrite() > 0)
        _program->waitForBytesWritten();
}

// The first answer comes when the input can be read: what is sent next is up to the input alone.
bool ProgramTest::_connect()
{
    if (!_device->accept() || _device->receive() != noData)
        return false;
    QTest::qWait(50);
    return _device->send(readSize);
}

bool ProgramTest::_exchange(const std::string &expected, const std::string &answer)
{
    const std::string transfer = _device->receive();
    if (transfer != expected)
        qWarning("received \"%s\"", transfer.c_str());
    return transfer == expected && _device->send(answer);
}

int ProgramTest::_answerToTheEnd()
{
    while (_device->receive() == noData && _device->send(readSize)) {
    }
    return _exitStatus();
}

int ProgramTest::_exitStatus()
{
    _program->waitForFinished();
    return _program->exitStatus() == QProcess::NormalExit ? _program->exitCode() : -1;
}

void ProgramTest::_run(const QStringList &arguments)
{
    startBuilt(*_program, USBHAL_HOST, arguments);
    _program->waitForFinished();
}

void ProgramTest::theInputGoesToThePortAndWhatThePortSendsIsPrinted()
{
    _start({"--port", "3"}, "hello, device\n");
    QVERIFY(_connect());
    QVERIFY(_exchange(data(3, "hello, device\n"), data(3, "hello, host\n")));
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(_program->readAllStandardOutput(), QByteArray("hello, host\n"));
    QCOMPARE(_program->readAllStandardError(), QByteArray());
}

void ProgramTest::bytesOfOtherPortsAreNotPrinted()
{
    _start({}, "");
    QVERIFY(_connect());
    QVERIFY(_exchange(noData, data(2, "two") + data(1, "one")));
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(_program->readAllStandardOutput(), QByteArray("one"));
}

void ProgramTest::itWaitsForTheNode()
{
    _device.reset();
    QVERIFY(QFile::remove(_folder->filePath("host")));
    _start({"--linger", "0"}, "");
    QVERIFY(!_program->waitForFinished(200));
    _device.reset(new Listener(_folder->filePath("host").toStdString()));
    QVERIFY(_connect());
    QCOMPARE(_answerToTheEnd(), 0);
}

void ProgramTest::itLingersForWhatTheDeviceSendsBehindTheEndOfTheInput()
{
    _start({"--linger", "1.5"}, "");
    QVERIFY(_connect());
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 500)
        QVERIFY(_exchange(noData, readSize));
    QVERIFY(_exchange(noData, data(1, "late")));
    timer.start();
    QCOMPARE(_answerToTheEnd(), 0);
    QVERIFY2(timer.elapsed() >= 1400, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(_program->readAllStandardOutput(), QByteArray("late"));
}

void ProgramTest::theEndOfTheLinkFailsWhenBytesAreLeft()
{
    _start({}, "hello");
    QVERIFY(_connect());
    QCOMPARE(_device->receive(), data(1, "hello"));
    _device->closeConnection();
    QCOMPARE(_exitStatus(), 1);
    QVERIFY(_program->readAllStandardError().contains("5 bytes may not have reached the device\n"));
}

void ProgramTest::theEndOfTheLinkIsNoFailureWhenAllIsDelivered()
{
    _start({"--linger", "100"}, "hello");
    QVERIFY(_connect());
    QVERIFY(_exchange(data(1, "hello"), readSize));
    QVERIFY(_exchange(noData, readSize));
    _device->closeConnection();
    QCOMPARE(_exitStatus(), 0);
}

void ProgramTest::anUnansweredTransferFails()
{
    _start({}, "hello");
    QVERIFY(_connect());
    QCOMPARE(_device->receive(), data(1, "hello"));
    QVERIFY(_exchange(noData, readSize)); // asks again, some seconds later
    QCOMPARE(_answerToTheEnd(), 1);
    const QByteArray errors = _program->readAllStandardError();
    QVERIFY2(errors.contains("the device did not answer, asking again\n"), errors);
    QVERIFY2(errors.contains("5 bytes may not have reached the device\n"), errors);
}

void ProgramTest::aDeviceThatHasNotAnsweredYetIsNoFault()
{
    _start({"--linger", "0"}, "hello");
    QVERIFY(_device->accept());
    QCOMPARE(_device->receive(), noData);
    QVERIFY(_exchange(noData, readSize)); // asks again, some seconds later
    QVERIFY(_exchange(data(1, "hello"), readSize));
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(_program->readAllStandardError(), QByteArray());
}

void ProgramTest::wrongCommandLinesSayHowTheyShouldBe_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("text");
    const auto row = [](const char *name, const QStringList &arguments, const char *text) {
        QTest::newRow(name) << arguments << QByteArray(text);
    };
    const QStringList node{"--node", "x"};
    row("no node", {}, "--node is missing");
    row("port", node + QStringList{"--port", "10000"},
        "--port needs a whole number from 0 to 9999, not \"10000\"");
    row("linger", node + QStringList{"--linger", "-1"},
        "--linger needs seconds from 0 to 86400, not \"-1\"");
    row("no number", node + QStringList{"--linger", "nan"},
        "--linger needs seconds from 0 to 86400, not \"nan\"");
    row("no value", node + QStringList{"--linger"}, "--linger needs a value");
    row("more", node + QStringList{"more"}, "unexpected argument \"more\"");
    row("misspelt", {"--nodes", "x"}, "there is no option \"--nodes\"");
}

void ProgramTest::wrongCommandLinesSayHowTheyShouldBe()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, text);
    _run(arguments);
    QCOMPARE(_program->exitCode(), 2);
    const QByteArray errors = _program->readAllStandardError();
    QCOMPARE(errors, "usbhal-host: " + text + "\nTry \"usbhal-host --help\".\n");
}

void ProgramTest::helpIsNoError()
{
    _run({"--help"});
    QCOMPARE(_program->exitCode(), 0);
    const QByteArray help = _program->readAllStandardOutput();
    QVERIFY2(help.contains("--linger SECONDS") && help.contains("by default 1\n"), help);
}

void ProgramTest::versionIsNoError()
{
    _run({"--version"});
    QCOMPARE(_program->exitCode(), 0);
    QCOMPARE(_program->readAllStandardOutput(), QByteArray("usbhal-host " PROJECT_VERSION "\n"));
}

QTEST_GUILESS_MAIN(ProgramTest)
#include "test_program.moc"
