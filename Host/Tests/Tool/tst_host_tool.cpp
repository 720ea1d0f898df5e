// SPDX-License-Identifier: MIT
#include "Listener.h"
#include "Protocol.h"

#include <BuiltProgram.h>
#include <CaptureReader.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

using namespace usbhalhost;

namespace {

const std::string noData = "DEVICE_NODATA";
const std::string readSize = "DEVICE_NODATA10000";
constexpr int payloadSize = 10000 - 13;
constexpr int longTime = 30000; // ms; for what has to happen
constexpr int quietTime = 700;  // ms; more than a turn of the program takes at most

std::string data(int port, std::string_view payload)
{
    std::string message;
    appendDataMessage(message, port, payload);
    return message;
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

/// `usbhal` as a device sees it, and as its user does.
class HostToolTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void catSendsTheInputAndPrintsWhatThePortSends();
    void catPrintsNothingOfOtherPorts();
    void catWaitsForTheDeviceAndSaysSo();
    void catLingersForMoreFromTheDevice();
    void catFillsWholeTransfers();
    void catFailsWhenTheLinkEndsWithBytesLeft();
    void catEndsWellWhenTheLinkEndsWithNothingLeft();
    void catCountsATransferThatIsNotAnswered();
    void catGoesOnWithADeviceThatComesBack();
    void catWithClosedStreamsDoesNotReadItsOwnSocket();
    void catEndsWhenItsOutputCannotBeWritten();
    void catStopsTheExchangeForAReaderThatTakesNothing();

    void sendEndsWhenTheDeviceHasAnsweredTheLastByte();
    void recvEndsWithTheLastByteAskedFor();
    void recvEndsWhenNothingComesAnyMore();
    void recvEndsBySignal();
    void badFilesAreSaid_data();
    void badFilesAreSaid();
    void aFullDiskIsSaid();

    void listShowsTheNodeAsTextAndAsJson();
    void waitEndsWhenTheDeviceIsThere();
    void waitEndsWithATimeOut();
    void severalDevicesAreAChoiceOfTheUser();
    void withoutADeviceTheStatusIsThree();
    void aNodeThatAnotherHostHasIsSaid();
    void aDeviceThatDoesNotAnswerIsATimeOut();
    void aDeviceThatSpeaksSomethingElseIsSaidWithAnExcerpt();
    void whatWaitingCannotMendIsSaidAtOnce_data();
    void whatWaitingCannotMendIsSaidAtOnce();
    void theEnvironmentNamesTheDevice();
    void verboseTellsEveryTransfer();
    void aCaptureKeepsEveryTransfer();
    void aCaptureTellsATimeOutAndTheLossOfTheDevice();
    void aCaptureIsKeptInTwoFiles();
    void aCaptureThatCannotBeWrittenIsSaid();
    void wrongCommandLinesAreSaid_data();
    void wrongCommandLinesAreSaid();
    void helpShowsExamples_data();
    void helpShowsExamples();
    void theInstalledCompletionIsTheOneOfTheOptions_data();
    void theInstalledCompletionIsTheOneOfTheOptions();
    void bashCompletesCommandsAndOptions();

private:
    QString _device() const { return "sim:" + _folder->path(); }
    QString _file(const QString &name) const { return _folder->filePath(name); }
    void _start(const QStringList &arguments, const QByteArray &input = {});
    void _run(const QStringList &arguments);
    bool _accept();
    bool _exchange(const std::string &expected, const std::string &answer);
    int _answerToTheEnd();
    int _exitStatus();
    QByteArray _errors() { return _program->readAllStandardError(); }

    QScopedPointer<QTemporaryDir> _folder;
    QScopedPointer<Listener> _node;
    QScopedPointer<Listener> _control;
    QScopedPointer<ForkedProcess> _program;
};

void HostToolTest::init()
{
    _folder.reset(new QTemporaryDir);
    _node.reset(new Listener(_file("host").toStdString()));
    _control.reset(new Listener(_file("control").toStdString()));
    QVERIFY(_node->isListening());
    _program.reset(new ForkedProcess);
}

void HostToolTest::cleanup()
{
    _program->kill();
    _program->waitForFinished();
    _program.reset();
    _node.reset();
    _control.reset();
}

void HostToolTest::_start(const QStringList &arguments, const QByteArray &input)
{
    startBuilt(*_program, USBHAL_TOOL, QStringList{"--device", _device()} + arguments);
    _program->write(input);
    while (_program->bytesToWrite() > 0)
        _program->waitForBytesWritten();
    _program->closeWriteChannel();
}

void HostToolTest::_run(const QStringList &arguments)
{
    startBuilt(*_program, USBHAL_TOOL, arguments);
    _program->closeWriteChannel();
    _program->waitForFinished();
}

bool HostToolTest::_accept()
{
    return _node->accept() && _exchange(noData, readSize);
}

bool HostToolTest::_exchange(const std::string &expected, const std::string &answer)
{
    const std::string transfer = _node->receive();
    if (transfer != expected)
        qWarning("received \"%s\"", transfer.c_str());
    return transfer == expected && _node->send(answer);
}

int HostToolTest::_answerToTheEnd()
{
    while (_node->receive() == noData && _node->send(readSize)) {
    }
    return _exitStatus();
}

int HostToolTest::_exitStatus()
{
    _program->waitForFinished();
    return _program->exitStatus() == QProcess::NormalExit ? _program->exitCode() : -1;
}

void HostToolTest::catSendsTheInputAndPrintsWhatThePortSends()
{
    _start({"cat", "3", "--linger", "0.2"}, "hello, device\n");
    QVERIFY(_accept());
    QVERIFY(_exchange(data(3, "hello, device\n"), data(3, "hello, host\n")));
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(_program->readAllStandardOutput(), QByteArray("hello, host\n"));
    QCOMPARE(_errors(), QByteArray());
}

void HostToolTest::catPrintsNothingOfOtherPorts()
{
    _start({"cat", "1", "--linger", "0.2"});
    QVERIFY(_accept());
    QVERIFY(_exchange(noData, data(2, "two") + data(1, "one")));
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(_program->readAllStandardOutput(), QByteArray("one"));
}

void HostToolTest::catWaitsForTheDeviceAndSaysSo()
{
    _node.reset();
    QVERIFY(QFile::remove(_file("host")));
    QElapsedTimer timer;
    timer.start();
    _start({"cat", "1", "--linger", "0"});
    _program->setReadChannel(QProcess::StandardError);
    while (!_program->canReadLine())
        QVERIFY(_program->waitForReadyRead(5000));
    QVERIFY2(timer.elapsed() < 2000, qPrintable(QString::number(timer.elapsed())));
    QVERIFY(_program->readLine().startsWith("usbhal: waiting for the device sim:"));
    _node.reset(new Listener(_file("host").toStdString()));
    QVERIFY(_accept());
    QCOMPARE(_answerToTheEnd(), 0);
}

void HostToolTest::catLingersForMoreFromTheDevice()
{
    _start({"cat", "1", "--linger", "1"});
    QVERIFY(_accept());
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 500)
        QVERIFY(_exchange(noData, readSize));
    QVERIFY(_exchange(noData, data(1, "late")));
    timer.start();
    QCOMPARE(_answerToTheEnd(), 0);
    QVERIFY2(timer.elapsed() >= 900, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(_program->readAllStandardOutput(), QByteArray("late"));
}

void HostToolTest::catFillsWholeTransfers()
{
    const QByteArray input(3 * payloadSize, 'x');
    _start({"cat", "1", "--linger", "0"}, input);
    QVERIFY(_accept());
    for (int i = 0; i < 3; ++i)
        QVERIFY(_exchange(data(1, std::string(payloadSize, 'x')), readSize));
    QCOMPARE(_answerToTheEnd(), 0);
}

void HostToolTest::catFailsWhenTheLinkEndsWithBytesLeft()
{
    _start({"cat", "1"}, "hello");
    QVERIFY(_accept());
    QCOMPARE(_node->receive(), data(1, "hello"));
    _node->closeConnection();
    QCOMPARE(_exitStatus(), 1);
    const QByteArray errors = _errors();
    QVERIFY2(errors.contains("the link is lost: "), errors);
    QVERIFY2(errors.contains("5 bytes may not have reached the device"), errors);
}

void HostToolTest::catEndsWellWhenTheLinkEndsWithNothingLeft()
{
    _start({"cat", "1", "--linger", "100"}, "hello");
    QVERIFY(_accept());
    QVERIFY(_exchange(data(1, "hello"), readSize));
    QVERIFY(_exchange(noData, readSize));
    _node->closeConnection();
    QCOMPARE(_exitStatus(), 0);
}

void HostToolTest::catCountsATransferThatIsNotAnswered()
{
    _start({"cat", "1", "--linger", "0"}, "hello");
    QVERIFY(_accept());
    QCOMPARE(_node->receive(), data(1, "hello"));
    QCOMPARE(_exitStatus(), 1); // some seconds later
    const QByteArray errors = _errors();
    QVERIFY2(errors.contains("the device did not answer, asking again"), errors);
    QVERIFY2(errors.contains("5 bytes may not have reached the device"), errors);
}

// What was in flight is lost and counted; what was not sent yet reaches the device that comes back.
void HostToolTest::catGoesOnWithADeviceThatComesBack()
{
    const QByteArray input = QByteArray(payloadSize, 'x') + "rest";
    _start({"cat", "1", "--linger", "0", "--reconnect"}, input);
    QVERIFY(_accept());
    QCOMPARE(_node->receive(), data(1, std::string(payloadSize, 'x')));
    _node->closeConnection();
    QVERIFY(_accept());
    QVERIFY(_exchange(data(1, "rest"), readSize));
    QCOMPARE(_answerToTheEnd(), 1);
    const QByteArray errors = _errors();
    QVERIFY2(errors.contains("the device is back"), errors);
    QVERIFY2(errors.contains("9987 bytes may not have reached the device"), errors);
}

void HostToolTest::catWithClosedStreamsDoesNotReadItsOwnSocket()
{
    const QStringList words = wordsToRun(USBHAL_TOOL);
    _program->start("sh", QStringList{"-c", R"(exec "$@" <&- >&-)", "sh"} + words +
                              QStringList{"--device", _device(), "cat", "1", "--linger", "0.1"});
    QVERIFY(_accept());
    QVERIFY(_exchange(noData, data(1, "to nobody")));
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(_errors(), QByteArray());
}

void HostToolTest::catEndsWhenItsOutputCannotBeWritten()
{
    _program->setStandardOutputFile("/dev/full");
    _start({"cat", "1", "--linger", "100"});
    QVERIFY(_accept());
    QVERIFY(_exchange(noData, data(1, "hello")));
    QCOMPARE(_exitStatus(), 1);
    QCOMPARE(_errors(), QByteArray("usbhal: cannot write standard output: No space left on device; "
                                   "make room, or name another place\n"));
}

void HostToolTest::catStopsTheExchangeForAReaderThatTakesNothing()
{
    const std::string block = data(1, std::string(payloadSize, 'x'));
    _start({"cat", "1", "--linger", "0.1"});
    QVERIFY(_accept());
    int sent = 0;
    // The reader is this process, which reads at the end alone.
    while (_node->hasTransfer(quietTime)) {
        QVERIFY(_exchange(noData, block));
        sent += payloadSize;
        QVERIFY(sent < 4 * 1024 * 1024);
    }
    QVERIFY2(sent > 512 * 1024, qPrintable(QString::number(sent)));
    QVERIFY2(sent < 1024 * 1024 + 65536, qPrintable(QString::number(sent)));
    QVERIFY(_program->waitForReadyRead(5000));
    while (!_node->hasTransfer(0))
        _program->waitForReadyRead(10);
    while (_program->state() == QProcess::Running) {
        if (_node->hasTransfer(0) && _node->receive() == noData)
            _node->send(readSize);
        _program->waitForReadyRead(10);
    }
    QCOMPARE(_exitStatus(), 0);
    QCOMPARE(_program->readAllStandardOutput().size(), sent);
    const QByteArray errors = _errors();
    QVERIFY2(errors.isEmpty() || errors.contains("the reader of the output takes nothing"), errors);
}

void HostToolTest::sendEndsWhenTheDeviceHasAnsweredTheLastByte()
{
    QFile file(_file("file"));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("content") == 7);
    file.close();
    _start({"send", "2", _file("file")});
    QVERIFY(_accept());
    QVERIFY(_exchange(data(2, "content"), readSize));
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(_errors(), QByteArray());
}

void HostToolTest::recvEndsWithTheLastByteAskedFor()
{
    _start({"recv", "2", _file("file"), "--bytes", "5"});
    QVERIFY(_accept());
    QVERIFY(_exchange(noData, data(2, "abc")));
    QVERIFY(_exchange(noData, data(2, "defgh")));
    QCOMPARE(_exitStatus(), 0);
    QCOMPARE(contentOf(_file("file")), QByteArray("abcde"));
}

void HostToolTest::recvEndsWhenNothingComesAnyMore()
{
    _start({"recv", "2", "-", "--idle", "0.3"});
    QVERIFY(_accept());
    QVERIFY(_exchange(noData, data(2, "abc")));
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(_program->readAllStandardOutput(), QByteArray("abc"));
}

void HostToolTest::recvEndsBySignal()
{
    _start({"recv", "2", _file("file")});
    QVERIFY(_accept());
    QVERIFY(_exchange(noData, data(2, "abc")));
    QVERIFY(_exchange(noData, readSize));
    QCOMPARE(::kill(static_cast<pid_t>(_program->processId()), SIGTERM), 0);
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(contentOf(_file("file")), QByteArray("abc"));
}

void HostToolTest::badFilesAreSaid_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("send") << QStringList{"send", "1", "/nowhere/file"}
                          << QByteArray("usbhal: cannot read /nowhere/file: No such file or "
                                        "directory; name a file that can be read, or - for "
                                        "standard input\n");
    QTest::newRow("folder") << QStringList{"recv", "1", "/"}
                            << QByteArray(
                                   "usbhal: cannot write /: Is a directory; name a file that "
                                   "can be written, or - for standard output\n");
}

void HostToolTest::badFilesAreSaid()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, text);
    _start(arguments);
    QCOMPARE(_exitStatus(), 1);
    QCOMPARE(_errors(), text);
}

void HostToolTest::aFullDiskIsSaid()
{
    _start({"recv", "1", "/dev/full"});
    QVERIFY(_accept());
    QVERIFY(_exchange(noData, data(1, "hello")));
    QCOMPARE(_exitStatus(), 1);
    QCOMPARE(_errors(), QByteArray("usbhal: cannot write /dev/full: No space left on device; make "
                                   "room, or name another place\n"));
}

void HostToolTest::listShowsTheNodeAsTextAndAsJson()
{
    _run({"list"});
    QCOMPARE(_program->exitCode(), 0);
    const QByteArray line = _device().toUtf8() + "  simulated node  free\n";
    const QByteArray text = _program->readAllStandardOutput();
    QVERIFY2(text.contains(line), text);
    _run({"list", "--json"});
    bool found = false;
    const QJsonArray list = QJsonDocument::fromJson(_program->readAllStandardOutput()).array();
    for (const QJsonValue &value : list) {
        found =
            found || (value.toObject()["name"] == _device() && value.toObject()["holder"].isNull());
    }
    QVERIFY(found);
}

void HostToolTest::waitEndsWhenTheDeviceIsThere()
{
    _run({"--device", _device(), "wait", "connected"});
    QCOMPARE(_program->exitCode(), 0);
    _node.reset();
    _run({"--device", _device(), "wait", "disconnected"});
    QCOMPARE(_program->exitCode(), 0);
}

void HostToolTest::waitEndsWithATimeOut()
{
    _run({"--device", _device(), "wait", "disconnected", "--timeout", "0.1"});
    QCOMPARE(_program->exitCode(), 4);
    QCOMPARE(_errors(), "usbhal: the time is over, waiting for the device " + _device().toUtf8() +
                            " to be disconnected\n");
}

void HostToolTest::severalDevicesAreAChoiceOfTheUser()
{
    const QTemporaryDir other;
    const Listener host(other.filePath("host").toStdString());
    const Listener control(other.filePath("control").toStdString());
    _run({"cat", "1"});
    QCOMPARE(_program->exitCode(), 2);
    const QByteArray errors = _errors();
    QVERIFY2(errors.startsWith("usbhal: there are several devices: name one with --device, of "),
             errors);
    QVERIFY2(errors.contains(_device().toUtf8()) && errors.contains(other.path().toUtf8()), errors);
}

void HostToolTest::withoutADeviceTheStatusIsThree()
{
    _node.reset();
    QVERIFY(QFile::remove(_file("host")));
    _run({"--device", _device(), "--wait", "0.1", "cat", "1"});
    QCOMPARE(_program->exitCode(), 3);
    const QByteArray errors = _errors();
    QVERIFY2(errors.startsWith("usbhal: no device for 0.1 s: connect to "), errors);
}

void HostToolTest::aNodeThatAnotherHostHasIsSaid()
{
    _start({"--wait", "0", "cat", "1"});
    QVERIFY(_node->accept());
    QVERIFY(_node->send("another host is connected"));
    QCOMPARE(_exitStatus(), 3);
    QCOMPARE(_errors(), QByteArray("usbhal: no device for 0 s: another host is connected; end the "
                                   "host that has it, if there is one\n"));
}

void HostToolTest::aDeviceThatDoesNotAnswerIsATimeOut()
{
    _start({"--wait", "0.1", "cat", "1"}, "hello");
    QVERIFY(_node->accept());
    QCOMPARE(_node->receive(), noData);
    QCOMPARE(_exitStatus(), 4);
    QCOMPARE(_errors(), "usbhal: the device " + _device().toUtf8() +
                            " has not answered for 0.1 s: is its program running, and a port "
                            "open?\n");
}

void HostToolTest::aDeviceThatSpeaksSomethingElseIsSaidWithAnExcerpt()
{
    _start({"cat", "1"}, "hello");
    QVERIFY(_node->accept());
    for (int i = 0; i < 3; ++i)
        QVERIFY(_exchange(noData, "AT+OK\r"));
    QCOMPARE(_exitStatus(), 1);
    const QByteArray errors = _errors();
    QVERIFY2(errors.endsWith("speaks something else than UsbHal: it sent \"AT+OK\\x0d\"; name "
                             "another one with --device\n"),
             errors);
}

void HostToolTest::whatWaitingCannotMendIsSaidAtOnce_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("no folder") << "sim:/nowhere/at/all"
                               << QByteArray(
                                      "usbhal: connect to /nowhere/at/all/host: No such file "
                                      "or directory; name the folder of a node that this "
                                      "user may use\n");
    QTest::newRow("long name") << "sim:/" + QString(200, 'x')
                               << QByteArray("usbhal: the path /") + QByteArray(200, 'x') +
                                      "/host is longer than a socket's path may be\n";
}

void HostToolTest::whatWaitingCannotMendIsSaidAtOnce()
{
    QFETCH(QString, device);
    QFETCH(QByteArray, text);
    QElapsedTimer timer;
    timer.start();
    _run({"--device", device, "--wait", "100", "cat", "1"});
    QVERIFY(timer.elapsed() < 20000);
    QCOMPARE(_program->exitCode(), 1);
    QCOMPARE(_errors(), text);
}

void HostToolTest::theEnvironmentNamesTheDevice()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("USBHAL_DEVICE", _device());
    _program->setProcessEnvironment(environment);
    startBuilt(*_program, USBHAL_TOOL, {"cat", "1", "--linger", "0"});
    _program->closeWriteChannel();
    QVERIFY(_accept());
    QCOMPARE(_answerToTheEnd(), 0);
}

void HostToolTest::verboseTellsEveryTransfer()
{
    _start({"-v", "cat", "1", "--linger", "0"});
    QVERIFY(_accept());
    QCOMPARE(_answerToTheEnd(), 0);
    const QByteArray errors = _errors();
    QVERIFY2(errors.startsWith("usbhal: to the device, 13 bytes: \"DEVICE_NODATA\"\n"
                               "usbhal: from the device, 18 bytes: \"DEVICE_NODATA10000\"\n"),
             errors);
}

void HostToolTest::aCaptureKeepsEveryTransfer()
{
    _start({"--pcap", _file("bus.pcap"), "cat", "1", "--linger", "0"});
    QVERIFY(_accept());
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(capture::toldOf(_file("bus.pcap")).mid(0, 4),
             (QStringList{"S out -115 13 DEVICE_NODATA", "C out 0 13", "S in -115 65536",
                          "C in 0 18 DEVICE_NODATA10000"}));
}

void HostToolTest::aCaptureTellsATimeOutAndTheLossOfTheDevice()
{
    _start({"cat", "1", "--wait", "30", "--pcap", _file("bus.pcap")}, "hello");
    QVERIFY(_node->accept());
    QCOMPARE(_node->receive(), noData);
    QTRY_COMPARE_WITH_TIMEOUT(capture::toldOf(_file("bus.pcap")).value(3), QString("C in -2 0"),
                              longTime);
    _node.reset();
    QTRY_VERIFY_WITH_TIMEOUT(capture::toldOf(_file("bus.pcap")).contains("C in -108 0"), longTime);
}

void HostToolTest::aCaptureIsKeptInTwoFiles()
{
    _start({"--pcap", _file("bus.pcap"), "--pcap-size", "1", "cat", "1", "--linger", "0"});
    QVERIFY(_accept());
    QCOMPARE(_answerToTheEnd(), 0);
    QCOMPARE(capture::toldOf(_file("bus.pcap")).size(), 1);
    QCOMPARE(capture::toldOf(_file("bus.pcap.1")).size(), 1);
}

void HostToolTest::aCaptureThatCannotBeWrittenIsSaid()
{
    const QString path = _file("none/bus.pcap");
    _start({"--pcap", path, "cat", "1"});
    QCOMPARE(_exitStatus(), 1);
    QCOMPARE(_errors(),
             QString("usbhal: cannot write the capture " + path + ": No such file or directory\n")
                 .toUtf8());
}

void HostToolTest::wrongCommandLinesAreSaid_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("no command") << QStringList{} << QByteArray("A subcommand is required");
    QTest::newRow("no port") << QStringList{"cat"} << QByteArray("PORT is required");
    QTest::newRow("port") << QStringList{"cat", "10000"}
                          << QByteArray("PORT: Value 10000 not in range 0 to 9999");
    QTest::newRow("negative") << QStringList{"send", "--", "-1", "x"}
                              << QByteArray("PORT: Value -1 not in range 0 to 9999");
    QTest::newRow("linger") << QStringList{"cat", "1", "--linger", "-1"}
                            << QByteArray("--linger: Value -1 not in range");
    QTest::newRow("state") << QStringList{"wait", "ready"} << QByteArray("ready");
    QTest::newRow("more") << QStringList{"cat", "1", "more"} << QByteArray("more");
    const auto device = [](const char *name, const char *reason) {
        QTest::newRow(name) << QStringList{"--device", name, "cat", "1"}
                            << "usbhal: '" + QByteArray(name) + "' names no device: " + reason +
                                   "; write usb, usb:VID:PID[:SERIAL], usb:BUS-PATH or sim:DIR\n";
    };
    device("ttyUSB0", "it begins with neither usb nor sim:");
    device("sim:", "the folder is missing");
    device("usb:", "'' is no place such as 1-2.3");
    device("usb:1-", "'1-' is no place such as 1-2.3");
    device("usb:1d6b:104", "VID and PID have four hexadecimal digits each");
    device("usb:1d6b:0104:", "the serial number is empty");
}

void HostToolTest::wrongCommandLinesAreSaid()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, text);
    _run(arguments);
    QCOMPARE(_program->exitCode(), 2);
    const QByteArray errors = _errors();
    QVERIFY2(errors.contains(text), errors);
}

void HostToolTest::helpShowsExamples_data()
{
    QTest::addColumn<QString>("command");
    for (const char *command : {"list", "wait", "cat", "send", "recv", "forward", "completion"})
        QTest::newRow(command) << QString(command);
}

void HostToolTest::helpShowsExamples()
{
    QFETCH(QString, command);
    _run({command, "--help"});
    QCOMPARE(_program->exitCode(), 0);
    const QByteArray text = _program->readAllStandardOutput();
    QVERIFY2(text.contains("Example") && text.contains("usbhal "), text);
}

void HostToolTest::theInstalledCompletionIsTheOneOfTheOptions_data()
{
    QTest::addColumn<QString>("shell");
    QTest::addColumn<QString>("file");
    QTest::newRow("bash") << "bash" << USBHAL_COMPLETION_DIR "/usbhal";
    QTest::newRow("zsh") << "zsh" << USBHAL_COMPLETION_DIR "/_usbhal";
}

void HostToolTest::theInstalledCompletionIsTheOneOfTheOptions()
{
    QFETCH(QString, shell);
    QFETCH(QString, file);
    _run({"completion", shell});
    QCOMPARE(_program->exitCode(), 0);
    const QByteArray made = _program->readAllStandardOutput();
    QVERIFY(!made.isEmpty());
    QCOMPARE(contentOf(file), made);
}

void HostToolTest::bashCompletesCommandsAndOptions()
{
    _program->start("bash", {"-c", "source " USBHAL_COMPLETION_DIR "/usbhal\n"
                                   "COMP_WORDS=(usbhal re) COMP_CWORD=1; _usbhal\n"
                                   "echo \"${COMPREPLY[@]}\"\n"
                                   "COMP_WORDS=(usbhal cat --re) COMP_CWORD=2; _usbhal\n"
                                   "echo \"${COMPREPLY[@]}\""});
    QCOMPARE(_exitStatus(), 0);
    QCOMPARE(_program->readAllStandardOutput(), QByteArray("recv\n--reconnect\n"));
}

QTEST_GUILESS_MAIN(HostToolTest)
#include "tst_host_tool.moc"
