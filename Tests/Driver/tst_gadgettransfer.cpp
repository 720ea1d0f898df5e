// SPDX-License-Identifier: MIT
#include "FakeNode.h"
#include "GadgetProbe.h"

#include <LogCapture.h>
#include <UsbHalLog.h>

#include <QElapsedTimer>
#include <QtTest>

#include <cerrno>

/** Reads, writes and the choice of an instance, call by call. */
class GadgetTransferTest : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void theFirstBlockSelectsTheInstance();
    void theFirstInstanceThatDeliversIsSelected();
    void noInstanceIsSelectedWhenNoneDelivers();
    void nothingIsSelectedWithoutInstances();
    void onlyTheSelectedInstanceIsUsed();
    void aNewOpenSelectsAfresh();

    void aBlockRefersToTheDriversBuffer();
    void aBlockIsFollowedByAZero();
    void aReadWithoutAPlaceReturnsTheSize();
    void aReadIsBoundedByTheBuffer_data();
    void aReadIsBoundedByTheBuffer();
    void aReadFollowsTheConfiguredSize();
    void aSilentReadPausesAndLogsNothing();
    void aFailedReadIsLoggedAndPauses();

    void aWholeWriteReturnsItsSize();
    void aLongBlockIsCutToTheMaxWriteSize();
    void theMaxWriteSizeOfTheHostCutsBlocks();
    void aPartialWriteFailsAndIsLogged();
    void aFailedWriteLogsThreeLinesAndPauses();
    void aWriteOfNothingLogsThreeLines();
    void anEmptyBlockIsWrittenSilently();
    void aWriteBeforeTheSelectionGoesToDescriptor0();

    void aDetailedErrorIsErrnoAndItsText_data();
    void aDetailedErrorIsErrnoAndItsText();
    void cancellingOnlyLogs();

private:
    /** Opens the driver, selects its instance and begins a new record and log. */
    void select(GadgetProbe &driver);
    void beginLog();

    FakeNode &_node = FakeNode::instance();
    QScopedPointer<LogCapture> _log;
};

void GadgetTransferTest::init()
{
    _node.reset();
    beginLog();
}

void GadgetTransferTest::beginLog()
{
    _log.reset(new LogCapture);
    QVERIFY(UsbHalLog::getInstance()->open(_log->folder(), QStringLiteral("UsbHal")));
}

void GadgetTransferTest::select(GadgetProbe &driver)
{
    QVERIFY(driver.open());
    _node.reads = {FakeNode::data("DEVICE_NODATA")};
    QByteArray block;
    QCOMPARE(driver.read(&block), 13);
    _node.clearRecord();
    beginLog();
}

void GadgetTransferTest::theFirstBlockSelectsTheInstance()
{
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE(driver._selectedInstance, 0);
    QCOMPARE(driver.getDriverName(), QStringLiteral("unknown"));
    _node.reads = {FakeNode::data("DEVICE_NODATA")};
    QByteArray block;
    QCOMPARE(driver.read(&block), 13);
    QCOMPARE(block, QByteArray("DEVICE_NODATA"));
    QCOMPARE(_log->lines().last(), QStringLiteral("_selectDriver: selected driver /dev/brn7200"));
    QCOMPARE(driver._selectedInstance, 1);
    QCOMPARE(driver.getDriverName(), QStringLiteral("/dev/brn7200"));
}

void GadgetTransferTest::theFirstInstanceThatDeliversIsSelected()
{
    GadgetProbe driver({"/dev/a", "/dev/b", "/dev/c"});
    QVERIFY(driver.open());
    _node.clearRecord();
    _node.reads = {{}, FakeNode::data("block")};
    QByteArray block;
    QCOMPARE(driver.read(&block), 5);
    QCOMPARE(_node.record(), QStringList({"read 1001 10000", "read 1002 10000"}));
    QCOMPARE(driver._selectedInstance, 2);
    QCOMPARE(driver.getDriverName(), QStringLiteral("/dev/b"));
    QCOMPARE(_log->lines().last(), QStringLiteral("_selectDriver: selected driver /dev/b"));
}

void GadgetTransferTest::noInstanceIsSelectedWhenNoneDelivers()
{
    GadgetProbe driver({"/dev/a", "/dev/b"});
    QVERIFY(driver.open());
    _node.clearRecord();
    QByteArray block("four");
    QElapsedTimer timer;
    timer.start();
    // The size of the block that the caller gave, which the core leaves empty.
    QCOMPARE(driver.read(&block), 4);
    QVERIFY(timer.elapsed() >= 2000);
    QCOMPARE(block, QByteArray("four"));
    QCOMPARE(_node.record(), QStringList({"read 1001 10000", "read 1002 10000"}));
    QCOMPARE(driver._selectedInstance, 0);
    QCOMPARE(driver.getDriverName(), QStringLiteral("unknown"));
    QCOMPARE(driver.write("x"), 1);
    QCOMPARE(_node.record("write"), QStringList("write 0 1"));
}

void GadgetTransferTest::nothingIsSelectedWithoutInstances()
{
    GadgetProbe driver((QStringList()));
    QVERIFY(driver.open());
    QByteArray block;
    QCOMPARE(driver.read(&block), 0);
    QCOMPARE(_node.record(), QStringList());
    QCOMPARE(driver._selectedInstance, 0);
}

void GadgetTransferTest::onlyTheSelectedInstanceIsUsed()
{
    GadgetProbe driver({"/dev/a", "/dev/b"});
    QVERIFY(driver.open());
    _node.reads = {{}, FakeNode::data("first"), FakeNode::data("second"), {}};
    QByteArray block;
    QCOMPARE(driver.read(&block), 5);
    _node.clearRecord();
    QCOMPARE(driver.read(&block), 6);
    QCOMPARE(block, QByteArray("second"));
    QCOMPARE(driver.read(&block), 0);
    QCOMPARE(driver.write("answer"), 6);
    QCOMPARE(_node.record(), QStringList({"read 1002 10000", "read 1002 10000", "write 1002 6"}));
    QCOMPARE(_log->count("_selectDriver: selected driver /dev/b"), 1);
}

void GadgetTransferTest::aNewOpenSelectsAfresh()
{
    GadgetProbe driver;
    select(driver);
    QCOMPARE(driver._selectedInstance, 1);
    QVERIFY(driver.close());
    QVERIFY(driver.open());
    QCOMPARE(driver._selectedInstance, 0);
    QCOMPARE(driver.getDriverName(), QStringLiteral("/dev/brn7200"));
    _node.reads = {FakeNode::data("x")};
    QByteArray block;
    QCOMPARE(driver.read(&block), 1);
    QCOMPARE(_node.record("read").last(), QStringLiteral("read 1002 10000"));
    QCOMPARE(_log->count("_selectDriver: selected driver /dev/brn7200"), 1);
    QCOMPARE(driver._selectedInstance, 1);
}

void GadgetTransferTest::aBlockRefersToTheDriversBuffer()
{
    GadgetProbe driver;
    select(driver);
    _node.reads = {FakeNode::data(QByteArray("a\0b", 3)), FakeNode::data("XYZ")};
    QByteArray block;
    QCOMPARE(driver.read(&block), 3);
    QCOMPARE(block, QByteArray("a\0b", 3));
    QCOMPARE(block.constData(), static_cast<const char *>(driver._readBuffer.get()));
    QCOMPARE(_node.calls("read").last().buffer, static_cast<void *>(driver._readBuffer.get()));
    QByteArray next;
    QCOMPARE(driver.read(&next), 3);
    QCOMPARE(next, QByteArray("XYZ"));
    QCOMPARE(next.constData(), block.constData());
}

void GadgetTransferTest::aBlockIsFollowedByAZero()
{
    GadgetProbe driver;
    select(driver);
    _node.reads = {FakeNode::data(QByteArray(10000, 'x')), FakeNode::data("yz")};
    QByteArray block;
    QCOMPARE(driver.read(&block), 10000);
    QCOMPARE(driver._readBuffer[10000], '\0');
    QCOMPARE(driver.read(&block), 2);
    QCOMPARE(driver._readBuffer[2], '\0');
    QCOMPARE(driver._readBuffer[3], 'x');
}

void GadgetTransferTest::aReadWithoutAPlaceReturnsTheSize()
{
    GadgetProbe driver;
    select(driver);
    _node.reads = {FakeNode::data("block")};
    QCOMPARE(driver.read(nullptr), 5);
}

void GadgetTransferTest::aReadIsBoundedByTheBuffer_data()
{
    QTest::addColumn<quint32>("maxReadSize");
    QTest::addColumn<unsigned long>("asked");
    QTest::newRow("smaller") << 100U << 100UL;
    QTest::newRow("all of it") << 10000U << 10000UL;
    QTest::newRow("one more") << 10001U << 10000UL;
    QTest::newRow("most") << 0xFFFFFFFFU << 10000UL;
}

void GadgetTransferTest::aReadIsBoundedByTheBuffer()
{
    QFETCH(quint32, maxReadSize);
    QFETCH(unsigned long, asked);
    GadgetProbe driver;
    driver.setMaxReadSize(maxReadSize);
    QVERIFY(driver.open());
    QCOMPARE(_node.calls("read").last().argument, asked);
    _node.reads = {FakeNode::data("select"), FakeNode::data("read")};
    QByteArray block;
    QCOMPARE(driver.read(&block), 6);
    QCOMPARE(_node.calls("read").last().argument, asked);
    QCOMPARE(driver.read(&block), 4);
    QCOMPARE(_node.calls("read").last().argument, asked);
}

void GadgetTransferTest::aReadFollowsTheConfiguredSize()
{
    GadgetProbe driver;
    select(driver);
    ParamHal param = driverDefaults();
    param.maxReadSize = 20000;
    driver.setupConfig(param);
    _node.reads = {FakeNode::data(QByteArray(20000, 'x'))};
    QByteArray block;
    QCOMPARE(driver.read(&block), 20000);
    QCOMPARE(_node.record(), QStringList("read 1001 20000"));
    QCOMPARE(block, QByteArray(20000, 'x'));
}

void GadgetTransferTest::aSilentReadPausesAndLogsNothing()
{
    GadgetProbe driver;
    select(driver);
    QByteArray block;
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(driver.read(&block), 0);
    QVERIFY(timer.elapsed() >= 1000);
    QVERIFY(block.isEmpty());
    QCOMPARE(_log->lines(), QStringList());
}

void GadgetTransferTest::aFailedReadIsLoggedAndPauses()
{
    GadgetProbe driver;
    select(driver);
    _node.reads = {FakeNode::failure(ETIMEDOUT)};
    QByteArray block;
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(driver.read(&block), 0);
    QVERIFY(timer.elapsed() >= 1000);
    QVERIFY(block.isEmpty());
    QCOMPARE(_log->lines(), QStringList("_read: 110: Connection timed out"));
}

void GadgetTransferTest::aWholeWriteReturnsItsSize()
{
    GadgetProbe driver;
    select(driver);
    const QByteArray block("a\0b\xFF", 4);
    QCOMPARE(driver.write(block), 4);
    QCOMPARE(_node.record(), QStringList("write 1001 4"));
    QCOMPARE(_node.calls().last().bytes, block);
    QCOMPARE(_log->lines(), QStringList());
}

void GadgetTransferTest::aLongBlockIsCutToTheMaxWriteSize()
{
    GadgetProbe driver;
    select(driver);
    QByteArray block(12000, 'x');
    block[9999] = 'y';
    QCOMPARE(driver.write(block), 10000);
    QCOMPARE(_node.record(), QStringList("write 1001 10000"));
    QCOMPARE(_node.calls().last().bytes, block.left(10000));
    QCOMPARE(_log->lines(), QStringList());
    QCOMPARE(driver.write(block.left(10000)), 10000);
}

void GadgetTransferTest::theMaxWriteSizeOfTheHostCutsBlocks()
{
    GadgetProbe driver;
    select(driver);
    driver.setMaxWriteSize(20);
    QCOMPARE(driver.write(QByteArray(21, 'x')), 20);
    QCOMPARE(_node.record(), QStringList("write 1001 20"));
}

void GadgetTransferTest::aPartialWriteFailsAndIsLogged()
{
    GadgetProbe driver;
    select(driver);
    _node.writes = {{7}};
    QCOMPARE(driver.write("12345678"), 0);
    QCOMPARE(_node.calls("write").size(), 1);
    QCOMPARE(_log->lines(), QStringList("write: _write() size = 7 (partial -> failed)"));
}

void GadgetTransferTest::aFailedWriteLogsThreeLinesAndPauses()
{
    GadgetProbe driver;
    select(driver);
    _node.writes = {FakeNode::failure(EPIPE)};
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(driver.write("12345678"), 0);
    QVERIFY(timer.elapsed() >= 17);
    QCOMPARE(_node.calls("write").size(), 1);
    QCOMPARE(_log->lines(),
             QStringList({"write: Gadget, error code = -1", "write: Write error: 32: Broken pipe",
                          "write: _write() failed (no byte sent)"}));
}

void GadgetTransferTest::aWriteOfNothingLogsThreeLines()
{
    GadgetProbe driver;
    select(driver);
    _node.writes = {{0}};
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(driver.write("12345678"), 0);
    QVERIFY(timer.elapsed() >= 17);
    QCOMPARE(_log->lines(), QStringList({"write: Gadget, error code = 0", "write: Write error: ok",
                                         "write: _write() failed (no byte sent)"}));
}

void GadgetTransferTest::anEmptyBlockIsWrittenSilently()
{
    GadgetProbe driver;
    select(driver);
    QCOMPARE(driver.write(QByteArray()), 0);
    QCOMPARE(_node.record(), QStringList("write 1001 0"));
    QCOMPARE(_log->lines(), QStringList());
}

void GadgetTransferTest::aWriteBeforeTheSelectionGoesToDescriptor0()
{
    GadgetProbe driver;
    QVERIFY(driver.open());
    _node.clearRecord();
    QCOMPARE(driver.write("early"), 5);
    QCOMPARE(_node.record(), QStringList("write 0 5"));
}

void GadgetTransferTest::aDetailedErrorIsErrnoAndItsText_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("text");
    QTest::newRow("nothing") << 0 << EIO << "ok";
    QTest::newRow("a count") << 10000 << EIO << "ok";
    QTest::newRow("time-out") << -1 << ETIMEDOUT << "110: Connection timed out";
    QTest::newRow("no node") << -1 << ENOENT << "2: No such file or directory";
    QTest::newRow("any negative code") << -1000 << EIO << "5: Input/output error";
    QTest::newRow("no error") << -1 << 0 << "0: Success";
}

void GadgetTransferTest::aDetailedErrorIsErrnoAndItsText()
{
    QFETCH(int, code);
    QFETCH(int, error);
    QFETCH(QString, text);
    const GadgetProbe driver;
    errno = error;
    const QString detail = driver.getDrvDetailedError(code);
    QCOMPARE(detail, text);
}

void GadgetTransferTest::cancellingOnlyLogs()
{
    GadgetProbe driver;
    select(driver);
    driver.cancelPendingIo();
    QCOMPARE(_node.record(), QStringList());
    QCOMPARE(_log->lines(),
             QStringList("cancelPendingIo: Cancel pending io not yet implemented on linux "
                         "drivers"));
    _node.reads = {FakeNode::data("block")};
    QByteArray block;
    QCOMPARE(driver.read(&block), 5);
}

QTEST_GUILESS_MAIN(GadgetTransferTest)
#include "tst_gadgettransfer.moc"
