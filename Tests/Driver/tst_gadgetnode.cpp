// SPDX-License-Identifier: MIT
#include "GadgetProbe.h"

#include <Background.h>
#include <LogCapture.h>
#include <SeqPacketTransport.h>
#include <SimNodeControl.h>
#include <UsbHalLog.h>
#include <WireMessages.h>

#include <QDir>
#include <QElapsedTimer>
#include <QtTest>

#include <fcntl.h>

using hostpeer::SeqPacketTransport;
using hostpeer::TransferResult;

namespace {

constexpr std::chrono::seconds patience(5);

QSet<int> openDescriptors()
{
    QSet<int> descriptors;
    const QStringList entries = QDir("/proc/self/fd").entryList(QDir::AllEntries | QDir::System);
    for (const QString &entry : entries) {
        if (::fcntl(entry.toInt(), F_GETFD) >= 0)
            descriptors.insert(entry.toInt());
    }
    return descriptors;
}

} // namespace

/**
 * The driver over a simulated node, one function a process: the node's state lasts as long as the
 * process that it serves.
 */
class GadgetNodeTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void aMissingNodeCannotBeOpened();
    void aRefusedNodeCannotBeOpened();
    void aNodeThatAppearsLaterIsOpened();
    void openingTakesASecondAndSetsTheTimeouts();
    void openingANodeWithTimeoutErrorsSucceeds();
    void messagesThatWaitAreDiscardedAtOpen();
    void anErrorDuringTheDrainIsSurvived();
    void theDescriptorIsNotInherited();
    void theFirstReadWithDataSelectsTheNode();
    void aSilentReadEndsAfterTimeoutAndPause();
    void aSilentReadWithAnErrorIsLogged();
    void aFailedReadIsLoggedAndTheNextOneDelivers();
    void aTransferBeyondTheReadSizeIsContinued();
    void aBlockOf12000BytesIsCutTo10000();
    void allBytesPassInBothDirections();
    void aPartialWriteFails();
    void aWriteThatSendsNothingFails();
    void aRefusedWriteFails();
    void aWriteWithoutAHostTimesOut();
    void aClosedNodeIsGivenBack();
    void aReopenedNodeIsSelectedAfresh();
    void cancellingDoesNotDisturbARead();

private:
    void control(const char *command);
    QString status(const char *key);
    void connectHost();
    void sendFromHost(const QByteArray &transfer);
    QByteArray receiveAtHost();
    /** Opens the driver, lets the host select it and begins a new log. */
    void select(GadgetProbe &driver);
    void beginLog();

    QScopedPointer<SimNodeControl> _control;
    QScopedPointer<SeqPacketTransport> _host;
    QScopedPointer<LogCapture> _log;
};

void GadgetNodeTest::initTestCase()
{
    const std::string folder = SimNodeControl::directoryFromEnvironment();
    QVERIFY2(!folder.empty(), "this program is to be run by the simulated node");
    _control.reset(new SimNodeControl(folder));
    _host.reset(new SeqPacketTransport(folder + "/host"));
    beginLog();
}

void GadgetNodeTest::beginLog()
{
    _log.reset(new LogCapture);
    QVERIFY(UsbHalLog::getInstance()->open(_log->folder(), QStringLiteral("UsbHal")));
}

void GadgetNodeTest::control(const char *command)
{
    QCOMPARE(QString::fromStdString(_control->command(command)), QStringLiteral("ok"));
}

QString GadgetNodeTest::status(const char *key)
{
    return QString::fromStdString(_control->statusValue(key));
}

void GadgetNodeTest::connectHost()
{
    const TransferResult result = _host->connect();
    QVERIFY2(result.status == TransferResult::Status::Done, result.text.c_str());
    QTRY_COMPARE(status("host"), QStringLiteral("1"));
}

void GadgetNodeTest::sendFromHost(const QByteArray &transfer)
{
    const TransferResult result = _host->send(transfer.toStdString(), patience);
    QVERIFY2(result.status == TransferResult::Status::Done, result.text.c_str());
}

QByteArray GadgetNodeTest::receiveAtHost()
{
    std::string transfer;
    const TransferResult result = _host->receive(transfer, patience);
    return result.status == TransferResult::Status::Done ? QByteArray::fromStdString(transfer)
                                                         : QByteArray("nothing received");
}

void GadgetNodeTest::select(GadgetProbe &driver)
{
    connectHost();
    QVERIFY(driver.open());
    sendFromHost("DEVICE_NODATA");
    QByteArray block;
    QCOMPARE(driver.read(&block), 13);
    beginLog();
}

void GadgetNodeTest::aMissingNodeCannotBeOpened()
{
    control("node missing");
    GadgetProbe driver;
    QVERIFY(!driver.open());
    QCOMPARE(_log->lines(),
             QStringList("_openDrvInstance: Error: unable to open driver instance: /dev/brn7200( "
                         "2: No such file or directory )"));
}

void GadgetNodeTest::aRefusedNodeCannotBeOpened()
{
    control("open fail EBUSY");
    GadgetProbe driver;
    QVERIFY(!driver.open());
    QCOMPARE(_log->lines(),
             QStringList("_openDrvInstance: Error: unable to open driver instance: /dev/brn7200( "
                         "16: Device or resource busy )"));
}

void GadgetNodeTest::aNodeThatAppearsLaterIsOpened()
{
    control("node missing");
    GadgetProbe driver;
    QVERIFY(!driver.open());
    control("node present");
    QVERIFY(driver.open());
    QCOMPARE(_log->lines().mid(1),
             QStringList({"_openDrvInstance: /dev/brn7200 successfully opened",
                          "open: all drivers opened successfully: 1"}));
}

void GadgetNodeTest::openingTakesASecondAndSetsTheTimeouts()
{
    GadgetProbe driver;
    ParamHal param = driverDefaults();
    param.rdTimeout = 1500;
    param.wrTimeout = 700;
    driver.setupConfig(param);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(driver.open());
    QVERIFY(timer.elapsed() >= 900);
    QCOMPARE(status("read_timeout"), QStringLiteral("1500"));
    QCOMPARE(status("write_timeout"), QStringLiteral("700"));
    QCOMPARE(_log->lines().size(), 2);
}

void GadgetNodeTest::openingANodeWithTimeoutErrorsSucceeds()
{
    control("timeout error");
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE(_log->lines().first(), QStringLiteral("_flushReadBuffer: Discarded message : "));
    QCOMPARE(status("read_timeout"), QStringLiteral("2000"));
}

void GadgetNodeTest::messagesThatWaitAreDiscardedAtOpen()
{
    connectHost();
    sendFromHost("DEVICE_NODATA");
    sendFromHost("FADA000070001abc, longer");
    QTRY_COMPARE(status("pending"), QStringLiteral("2"));
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE(_log->lines(),
             QStringList({"_flushReadBuffer: Discarded message : DEVICE_NODATA",
                          "_flushReadBuffer: Discarded message : FADA000070001abc, longer",
                          "_openDrvInstance: /dev/brn7200 successfully opened",
                          "open: all drivers opened successfully: 1"}));
    QCOMPARE(status("pending"), QStringLiteral("0"));
}

void GadgetNodeTest::anErrorDuringTheDrainIsSurvived()
{
    control("read fail EIO");
    GadgetProbe driver;
    QVERIFY(driver.open());
    const int drainReads = status("reads").toInt();
    QVERIFY2(drainReads >= 2 && drainReads <= 100, qPrintable(QString::number(drainReads)));
    QCOMPARE(_log->count("_flushReadBuffer: Discarded message : "), drainReads);
    control("read ok");
    connectHost();
    sendFromHost("block");
    QByteArray block;
    QCOMPARE(driver.read(&block), 5);
}

void GadgetNodeTest::theDescriptorIsNotInherited()
{
    const QSet<int> before = openDescriptors();
    GadgetProbe driver;
    QVERIFY(driver.open());
    const QSet<int> opened = openDescriptors() - before;
    QCOMPARE(opened.size(), 1);
    QVERIFY((::fcntl(*opened.begin(), F_GETFD) & FD_CLOEXEC) != 0);
}

void GadgetNodeTest::theFirstReadWithDataSelectsTheNode()
{
    connectHost();
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE(driver.getDriverName(), QStringLiteral("unknown"));
    sendFromHost("DEVICE_NODATA");
    QByteArray block;
    QCOMPARE(driver.read(&block), 13);
    QCOMPARE(block, QByteArray("DEVICE_NODATA"));
    QCOMPARE(_log->lines().last(), QStringLiteral("_selectDriver: selected driver /dev/brn7200"));
    QCOMPARE(driver.getDriverName(), QStringLiteral("/dev/brn7200"));
    sendFromHost("next");
    QCOMPARE(driver.read(&block), 4);
    QCOMPARE(_log->count("_selectDriver: selected driver /dev/brn7200"), 1);
}

void GadgetNodeTest::aSilentReadEndsAfterTimeoutAndPause()
{
    GadgetProbe driver;
    ParamHal param = driverDefaults();
    param.rdTimeout = 500;
    driver.setupConfig(param);
    QVERIFY(driver.open());
    beginLog();
    QElapsedTimer timer;
    timer.start();
    QByteArray block;
    QCOMPARE(driver.read(&block), 0);
    QVERIFY(timer.elapsed() >= 1500);
    QVERIFY(block.isEmpty());
    QCOMPARE(_log->lines(), QStringList());
    QCOMPARE(driver.getDriverName(), QStringLiteral("unknown"));
}

void GadgetNodeTest::aSilentReadWithAnErrorIsLogged()
{
    GadgetProbe driver;
    ParamHal param = driverDefaults();
    param.rdTimeout = 500;
    driver.setupConfig(param);
    QVERIFY(driver.open());
    beginLog();
    control("timeout error");
    QElapsedTimer timer;
    timer.start();
    QByteArray block;
    QCOMPARE(driver.read(&block), 0);
    QVERIFY(timer.elapsed() >= 1500);
    QCOMPARE(_log->lines(), QStringList("_read: 110: Connection timed out"));
}

void GadgetNodeTest::aFailedReadIsLoggedAndTheNextOneDelivers()
{
    GadgetProbe driver;
    select(driver);
    control("read fail EIO 1");
    sendFromHost("block");
    QByteArray block;
    QCOMPARE(driver.read(&block), 0);
    QCOMPARE(_log->lines(), QStringList("_read: 5: Input/output error"));
    QCOMPARE(driver.read(&block), 5);
    QCOMPARE(block, QByteArray("block"));
}

void GadgetNodeTest::aTransferBeyondTheReadSizeIsContinued()
{
    GadgetProbe driver;
    ParamHal param = driverDefaults();
    param.maxReadSize = 100;
    driver.setupConfig(param);
    select(driver);
    const QByteArray transfer = patternBytes(250);
    sendFromHost(transfer);
    for (const int offset : {0, 100, 200}) {
        QByteArray block;
        QCOMPARE(driver.read(&block), qMin(100, 250 - offset));
        QCOMPARE(block, transfer.mid(offset, 100));
    }
}

void GadgetNodeTest::aBlockOf12000BytesIsCutTo10000()
{
    GadgetProbe driver;
    select(driver);
    const QByteArray block = patternBytes(12000);
    QCOMPARE(driver.write(block), 10000);
    QCOMPARE(receiveAtHost(), block.left(10000));
    QCOMPARE(driver.write("next"), 4);
    QCOMPARE(receiveAtHost(), QByteArray("next"));
    QCOMPARE(_log->lines(), QStringList());
}

void GadgetNodeTest::allBytesPassInBothDirections()
{
    GadgetProbe driver;
    select(driver);
    for (const int size : {1, 13, 255, 256, 9999, 10000}) {
        const QByteArray transfer = patternBytes(size);
        sendFromHost(transfer);
        QByteArray block;
        QCOMPARE(driver.read(&block), size);
        QCOMPARE(block, transfer);
        QCOMPARE(driver.write(transfer), size);
        QCOMPARE(receiveAtHost(), transfer);
    }
}

void GadgetNodeTest::aPartialWriteFails()
{
    GadgetProbe driver;
    select(driver);
    control("write short 7 1");
    QCOMPARE(driver.write("12345678"), 0);
    QCOMPARE(_log->lines(), QStringList("write: _write() size = 7 (partial -> failed)"));
    QCOMPARE(receiveAtHost(), QByteArray("1234567"));
    // The rest is not sent again.
    QCOMPARE(driver.write("next"), 4);
    QCOMPARE(receiveAtHost(), QByteArray("next"));
}

void GadgetNodeTest::aWriteThatSendsNothingFails()
{
    GadgetProbe driver;
    select(driver);
    control("write zero 1");
    QCOMPARE(driver.write("12345678"), 0);
    QCOMPARE(_log->lines(), QStringList({"write: Gadget, error code = 0", "write: Write error: ok",
                                         "write: _write() failed (no byte sent)"}));
}

void GadgetNodeTest::aRefusedWriteFails()
{
    GadgetProbe driver;
    select(driver);
    control("write fail EPIPE 1");
    QCOMPARE(driver.write("12345678"), 0);
    QCOMPARE(_log->lines(),
             QStringList({"write: Gadget, error code = -1", "write: Write error: 32: Broken pipe",
                          "write: _write() failed (no byte sent)"}));
    QCOMPARE(driver.write("next"), 4);
    QCOMPARE(receiveAtHost(), QByteArray("next"));
}

void GadgetNodeTest::aWriteWithoutAHostTimesOut()
{
    GadgetProbe driver;
    ParamHal param = driverDefaults();
    param.wrTimeout = 100;
    driver.setupConfig(param);
    select(driver);
    _host->close();
    QTRY_COMPARE(status("host"), QStringLiteral("0"));
    QCOMPARE(driver.write("12345678"), 0);
    QCOMPARE(_log->lines(), QStringList({"write: Gadget, error code = -1",
                                         "write: Write error: 110: Connection timed out",
                                         "write: _write() failed (no byte sent)"}));
}

void GadgetNodeTest::aClosedNodeIsGivenBack()
{
    const QSet<int> before = openDescriptors();
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE((openDescriptors() - before).size(), 1);
    QVERIFY(driver.close());
    QCOMPARE((openDescriptors() - before).size(), 0);
}

void GadgetNodeTest::aReopenedNodeIsSelectedAfresh()
{
    GadgetProbe driver;
    select(driver);
    QVERIFY(driver.close());
    QVERIFY(driver.open());
    QCOMPARE(driver._selectedInstance, 0);
    sendFromHost("again");
    QByteArray block;
    QCOMPARE(driver.read(&block), 5);
    QCOMPARE(driver._selectedInstance, 1);
    QCOMPARE(_log->count("_selectDriver: selected driver /dev/brn7200"), 1);
    QCOMPARE(driver.write("answer"), 6);
    QCOMPARE(receiveAtHost(), QByteArray("answer"));
}

void GadgetNodeTest::cancellingDoesNotDisturbARead()
{
    GadgetProbe driver;
    ParamHal param = driverDefaults();
    param.rdTimeout = 20000;
    driver.setupConfig(param);
    select(driver);
    const int reads = status("reads").toInt();
    QByteArray block;
    std::future<int> read = inBackground([&] { return driver.read(&block); });
    QTRY_COMPARE(status("reads").toInt(), reads + 1);
    driver.cancelPendingIo();
    QCOMPARE(_log->lines(),
             QStringList("cancelPendingIo: Cancel pending io not yet implemented on linux "
                         "drivers"));
    QVERIFY(!endsWithin(read, 0));
    sendFromHost("block");
    QVERIFY(endsWithin(read, 5000));
    QCOMPARE(read.get(), 5);
    QCOMPARE(block, QByteArray("block"));
}

QTEST_GUILESS_MAIN(GadgetNodeTest)
#include "tst_gadgetnode.moc"
