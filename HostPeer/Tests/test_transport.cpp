// SPDX-License-Identifier: MIT
#include "Listener.h"
#include "SeqPacketTransport.h"

#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <future>

using namespace hostpeer;
using namespace std::chrono_literals;
using Status = TransferResult::Status;

class TransportTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void transfersKeepTheirBoundsInBothDirections();
    void aTransferOfTheLargestSizeIsReceivedWhole();
    void aLargerTransferClosesTheConnection();
    void silenceEndsWithTheTimeOut();
    void aTimeOutOfMoreThan32BitsIsWaitedFor();
    void aDeviceThatTakesNothingEndsTheSendWithTheTimeOut();
    void aClosedConnectionIsReportedByReceive();
    void aClosedConnectionIsReportedBySendWithoutASignal();
    void transfersSentBeforeTheCloseAreStillReceived();
    void aRefusalIsTheReasonOfTheClose();
    void aConnectionCanBeMadeAgain();
    void connectingAnewClosesTheOldConnection();
    void nobodyListeningIsReportedWithThePath();
    void aPathTooLongForASocketIsReported();
    void withoutAConnectionNothingIsMoved();

private:
    std::string path() const { return _folder->filePath("host").toStdString(); }

    QScopedPointer<QTemporaryDir> _folder;
    QScopedPointer<Listener> _device;
    QScopedPointer<SeqPacketTransport> _host;
};

void TransportTest::init()
{
    _folder.reset(new QTemporaryDir);
    QVERIFY(_folder->isValid());
    _device.reset(new Listener(path()));
    QVERIFY(_device->isListening());
    _host.reset(new SeqPacketTransport(path()));
    QCOMPARE(_host->connect().status, Status::Done);
    QVERIFY(_device->accept());
}

void TransportTest::cleanup()
{
    _host.reset();
    _device.reset();
    _folder.reset();
}

void TransportTest::transfersKeepTheirBoundsInBothDirections()
{
    QCOMPARE(_host->send("one", 1s).status, Status::Done);
    QCOMPARE(_host->send("three", 1s).status, Status::Done);
    QCOMPARE(_device->receive(), std::string("one"));
    QCOMPARE(_device->receive(), std::string("three"));

    QVERIFY(_device->send(std::string("a\0b", 3)));
    QVERIFY(_device->send("c"));
    std::string transfer = "old";
    QCOMPARE(_host->receive(transfer, 1s).status, Status::Done);
    QCOMPARE(transfer, std::string("a\0b", 3));
    QCOMPARE(_host->receive(transfer, 1s).status, Status::Done);
    QCOMPARE(transfer, std::string("c"));
}

void TransportTest::aTransferOfTheLargestSizeIsReceivedWhole()
{
    const std::string largest(_host->maxTransferSize(), 'x');
    QVERIFY(_device->send(largest));
    std::string transfer;
    QCOMPARE(_host->receive(transfer, 1s).status, Status::Done);
    QVERIFY(transfer == largest);
    QCOMPARE(_host->send(largest, 1s).status, Status::Done);
    QVERIFY(_device->receive() == largest);
}

void TransportTest::aLargerTransferClosesTheConnection()
{
    QVERIFY(_device->send(std::string(_host->maxTransferSize() + 1, 'x')));
    std::string transfer;
    const TransferResult result = _host->receive(transfer, 1s);
    QCOMPARE(result.status, Status::Closed);
    QCOMPARE(result.text, std::string("received a transfer of 65537 bytes"));
    QVERIFY(!_host->isConnected());
}

void TransportTest::silenceEndsWithTheTimeOut()
{
    std::string transfer = "kept";
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(_host->receive(transfer, 50ms).status, Status::TimedOut);
    QVERIFY(timer.elapsed() >= 50);
    QCOMPARE(_host->receive(transfer, 0ms).status, Status::TimedOut);
    QCOMPARE(transfer, std::string("kept"));
    QVERIFY(_host->isConnected());
}

void TransportTest::aTimeOutOfMoreThan32BitsIsWaitedFor()
{
    std::string transfer;
    auto status = std::async(std::launch::async, [&] {
        return _host->receive(transfer, std::chrono::milliseconds((1LL << 32) + 50)).status;
    });
    const bool ended = status.wait_for(200ms) == std::future_status::ready;
    QVERIFY(_device->send("late"));
    QVERIFY(!ended);
    QCOMPARE(status.get(), Status::Done);
    QCOMPARE(transfer, std::string("late"));
}

void TransportTest::aDeviceThatTakesNothingEndsTheSendWithTheTimeOut()
{
    const std::string transfer(10000, 'x');
    int taken = 0;
    TransferResult result = _host->send(transfer, 0ms);
    for (; result.status == Status::Done && taken < 10000; ++taken)
        result = _host->send(transfer, 20ms);
    QCOMPARE(result.status, Status::TimedOut);
    QVERIFY(_host->isConnected());

    QCOMPARE(_device->receive().size(), transfer.size());
    QCOMPARE(_host->send(transfer, 1s).status, Status::Done);
}

void TransportTest::aClosedConnectionIsReportedByReceive()
{
    _device->closeConnection();
    std::string transfer;
    const TransferResult result = _host->receive(transfer, 1s);
    QCOMPARE(result.status, Status::Closed);
    QCOMPARE(result.text, std::string("the other end closed the connection"));
    QVERIFY(!_host->isConnected());
}

void TransportTest::aClosedConnectionIsReportedBySendWithoutASignal()
{
    // A parent may have left the signal ignored, which would hide it here.
    const auto inherited = std::signal(SIGPIPE, SIG_DFL);
    _device->closeConnection();
    const TransferResult result = _host->send("x", 1s);
    std::signal(SIGPIPE, inherited);
    QCOMPARE(result.status, Status::Closed);
    QCOMPARE(result.text, std::string("send: Broken pipe"));
    QVERIFY(!_host->isConnected());
}

void TransportTest::transfersSentBeforeTheCloseAreStillReceived()
{
    QVERIFY(_device->send("last"));
    _device->closeConnection();
    std::string transfer;
    QCOMPARE(_host->receive(transfer, 1s).status, Status::Done);
    QCOMPARE(transfer, std::string("last"));
    QCOMPARE(_host->receive(transfer, 1s).status, Status::Closed);
}

void TransportTest::aRefusalIsTheReasonOfTheClose()
{
    QVERIFY(_device->send("another host is connected"));
    std::string transfer = "kept";
    const TransferResult result = _host->receive(transfer, 1s);
    QCOMPARE(result.status, Status::Closed);
    QCOMPARE(result.text, std::string("another host is connected"));
    QCOMPARE(transfer, std::string("kept"));
    QVERIFY(!_host->isConnected());
}

void TransportTest::aConnectionCanBeMadeAgain()
{
    _device->closeConnection();
    std::string transfer;
    QCOMPARE(_host->receive(transfer, 1s).status, Status::Closed);
    QCOMPARE(_host->connect().status, Status::Done);
    QVERIFY(_device->accept());
    QCOMPARE(_host->send("again", 1s).status, Status::Done);
    QCOMPARE(_device->receive(), std::string("again"));
}

void TransportTest::connectingAnewClosesTheOldConnection()
{
    QCOMPARE(_host->connect().status, Status::Done);
    QCOMPARE(_device->receive(), std::string());
    _device->closeConnection();
    QVERIFY(_device->accept());
    QCOMPARE(_host->send("new", 1s).status, Status::Done);
    QCOMPARE(_device->receive(), std::string("new"));
}

void TransportTest::nobodyListeningIsReportedWithThePath()
{
    const std::string missing = path() + ".missing";
    SeqPacketTransport host(missing);
    const TransferResult result = host.connect();
    QCOMPARE(result.status, Status::Closed);
    QCOMPARE(result.text, "connect to " + missing + ": No such file or directory");
    QVERIFY(!host.isConnected());
}

void TransportTest::aPathTooLongForASocketIsReported()
{
    const std::string longPath = "/tmp/" + std::string(200, 'x');
    SeqPacketTransport host(longPath);
    const TransferResult result = host.connect();
    QCOMPARE(result.status, Status::Closed);
    QCOMPARE(result.text, "the path " + longPath + " is longer than a socket's path may be");
}

void TransportTest::withoutAConnectionNothingIsMoved()
{
    _host->close();
    std::string transfer = "kept";
    QCOMPARE(_host->send("x", 1s).text, std::string("not connected"));
    QCOMPARE(_host->receive(transfer, 1s).text, std::string("not connected"));
    QCOMPARE(transfer, std::string("kept"));
}

QTEST_APPLESS_MAIN(TransportTest)
#include "test_transport.moc"
