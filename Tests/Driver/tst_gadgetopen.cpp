// SPDX-License-Identifier: MIT
#include "FakeNode.h"
#include "GadgetProbe.h"

#include <LogCapture.h>
#include <UsbHalLog.h>

#include <QElapsedTimer>
#include <QtTest>

#include <cerrno>
#include <fcntl.h>

namespace {

constexpr unsigned long readTimeoutRequest = 0x5302;
const QString discarded = QStringLiteral("_flushReadBuffer: Discarded message : ");

/** The names of the calls, one after the other. */
QByteArray sequence(const FakeNode &node)
{
    QByteArray names;
    const QList<FakeNode::Call> calls = node.calls();
    for (const FakeNode::Call &call : calls)
        names += call.name + ' ';
    return names.trimmed();
}

} // namespace

/** Opening, draining and closing the node, call by call. */
class GadgetOpenTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void aFreshDriverKnowsTheOneNode();
    void theNodeIsOpenedReadWriteAndCloseOnExec();
    void thePathIsGivenInUtf8();
    void theNodeIsDrainedBeforeItsTimeoutsAreSet();
    void configuredTimeoutsReachTheNodeAtTheNextOpen();
    void refusedTimeoutsAreIgnored();
    void pendingMessagesAreDiscarded();
    void theDrainTakesASecondOfSteadyInput();
    void theDrainOfAFailingNodeIsPaced();
    void aDiscardedMessageIsShownUpToItsFirstZero();
    void aDiscardedMessageMayEndWithBytesOfAnEarlierOne();
    void aDiscardedMessageOfFullSizeIsShownWhole();
    void aMissingNodeIsReported();
    void aRefusedNodeIsReported();
    void theFirstFailureEndsTheOpen();
    void aDriverWithoutInstancesOpens();
    void aDriverWithoutABufferDoesNotOpen();
    void anOpenDoesNotCloseFormerDescriptors();
    void closeClosesEveryDescriptorInOrder();
    void closeIgnoresFailures();
    void closeBeforeOpenDoesNothing();
    void closeKeepsTheList();
    void theDestructorClosesNothing();

private:
    FakeNode &_node = FakeNode::instance();
    QScopedPointer<LogCapture> _log;
};

void GadgetOpenTest::init()
{
    _node.reset();
    _log.reset(new LogCapture);
    QVERIFY(UsbHalLog::getInstance()->open(_log->folder(), QStringLiteral("UsbHal")));
}

void GadgetOpenTest::aFreshDriverKnowsTheOneNode()
{
    const GadgetProbe driver;
    QCOMPARE(driver.objectName(), QStringLiteral("GadgetDriver"));
    QCOMPARE(driver._instancePaths, QStringList("/dev/brn7200"));
    QCOMPARE(driver._selectedInstance, 0);
    QCOMPARE(driver.getDriverName(), QStringLiteral("unknown"));
    QCOMPARE(driver.avoidClosingDuringHandshake(), false);
    QCOMPARE(driver.closeDriverAfterConnectionError(), false);
    QCOMPARE(_node.record(), QStringList());
    QCOMPARE(_log->lines(), QStringList());
}

void GadgetOpenTest::theNodeIsOpenedReadWriteAndCloseOnExec()
{
    GadgetProbe driver;
    QVERIFY(driver.open());
    const QList<FakeNode::Call> opens = _node.calls("open");
    QCOMPARE(opens.size(), 1);
    QCOMPARE(opens.first().bytes, QByteArray("/dev/brn7200"));
    QCOMPARE(opens.first().argument, static_cast<unsigned long>(O_RDWR | O_CLOEXEC));
}

void GadgetOpenTest::thePathIsGivenInUtf8()
{
    const QString path = QString::fromUtf8("/dev/gerät€");
    GadgetProbe driver({path});
    QVERIFY(driver.open());
    QCOMPARE(_node.calls("open").first().bytes, QByteArray("/dev/gerät€"));
    QVERIFY(_log->contains("_openDrvInstance: " + path + " successfully opened"));
}

void GadgetOpenTest::theNodeIsDrainedBeforeItsTimeoutsAreSet()
{
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE(sequence(_node), QByteArray("open ioctl read ioctl ioctl"));
    const FakeNode::Call drainTimeout = _node.calls("ioctl").first();
    QCOMPARE(drainTimeout.argument, readTimeoutRequest);
    QVERIFY(drainTimeout.value > 0 && drainTimeout.value <= 1000);
    QCOMPARE(_node.record().mid(2),
             QStringList({"read 1001 10000", "ioctl 1001 0x5301 2000", "ioctl 1001 0x5302 2000"}));
    QCOMPARE(_log->lines(), QStringList({"_openDrvInstance: /dev/brn7200 successfully opened",
                                         "open: all drivers opened successfully: 1"}));
}

void GadgetOpenTest::configuredTimeoutsReachTheNodeAtTheNextOpen()
{
    GadgetProbe driver;
    QVERIFY(driver.open());
    _node.clearRecord();
    ParamHal param = driverDefaults();
    param.rdTimeout = 1234;
    param.wrTimeout = 4000000000;
    driver.setupConfig(param);
    QCOMPARE(_node.record(), QStringList());
    QVERIFY(driver.open());
    QCOMPARE(_node.record("ioctl").mid(1),
             QStringList({"ioctl 1002 0x5301 4000000000", "ioctl 1002 0x5302 1234"}));
}

void GadgetOpenTest::refusedTimeoutsAreIgnored()
{
    for (int i = 0; i < 3; ++i)
        _node.ioctls.append(FakeNode::failure(ENOTTY));
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE(sequence(_node), QByteArray("open ioctl read ioctl ioctl"));
    QCOMPARE(_log->lines().size(), 2);
}

void GadgetOpenTest::pendingMessagesAreDiscarded()
{
    _node.reads = {FakeNode::data("DEVICE_NODATA"), FakeNode::data("FADA000060001xy")};
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE(_node.calls("read").size(), 3);
    // The time-out is set afresh before each read.
    QCOMPARE(sequence(_node), QByteArray("open ioctl read ioctl read ioctl read ioctl ioctl"));
    QCOMPARE(_log->lines().mid(0, 2),
             QStringList({discarded + "DEVICE_NODATA", discarded + "FADA000060001xy"}));
}

void GadgetOpenTest::theDrainTakesASecondOfSteadyInput()
{
    _node.otherReads = FakeNode::data("x", 50);
    GadgetProbe driver;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(driver.open());
    QVERIFY(timer.elapsed() >= 1000);
    const int reads = _node.calls("read").size();
    QVERIFY(reads >= 2 && reads <= 20);
    QList<FakeNode::Call> timeouts = _node.calls("ioctl").mid(0, reads);
    unsigned long former = 1000;
    for (const FakeNode::Call &call : qAsConst(timeouts)) {
        QCOMPARE(call.argument, readTimeoutRequest);
        QVERIFY(call.value <= former);
        former = call.value;
    }
    QCOMPARE(_log->count(discarded + "x"), reads);
}

void GadgetOpenTest::theDrainOfAFailingNodeIsPaced()
{
    _node.otherReads = FakeNode::failure(EIO);
    GadgetProbe driver;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(driver.open());
    QVERIFY(timer.elapsed() >= 1000);
    const int reads = _node.calls("read").size();
    QVERIFY2(reads >= 2 && reads <= 100, qPrintable(QString::number(reads)));
    QCOMPARE(_log->count(discarded), reads);
}

void GadgetOpenTest::aDiscardedMessageIsShownUpToItsFirstZero()
{
    _node.reads = {FakeNode::data(QByteArray("gr\xFC\xDF"
                                             "e\0hidden",
                                             12))};
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE(_log->lines().first(), discarded + QString::fromUtf8("grüße"));
}

void GadgetOpenTest::aDiscardedMessageMayEndWithBytesOfAnEarlierOne()
{
    _node.reads = {FakeNode::data("DEVICE_NODATA"), FakeNode::data("FADA")};
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE(_log->lines().at(1), discarded + "FADACE_NODATA");
}

void GadgetOpenTest::aDiscardedMessageOfFullSizeIsShownWhole()
{
    _node.reads = {FakeNode::data(QByteArray(10000, 'x'))};
    GadgetProbe driver;
    QVERIFY(driver.open());
    QCOMPARE(_log->lines().first(), discarded + QString(10000, 'x'));
}

void GadgetOpenTest::aMissingNodeIsReported()
{
    _node.opens = {FakeNode::failure(ENOENT)};
    GadgetProbe driver;
    QVERIFY(!driver.open());
    QCOMPARE(sequence(_node), QByteArray("open"));
    QCOMPARE(_log->lines(),
             QStringList("_openDrvInstance: Error: unable to open driver instance: /dev/brn7200( "
                         "2: No such file or directory )"));
}

void GadgetOpenTest::aRefusedNodeIsReported()
{
    _node.opens = {FakeNode::failure(EBUSY)};
    GadgetProbe driver;
    QVERIFY(!driver.open());
    QCOMPARE(_log->lines(),
             QStringList("_openDrvInstance: Error: unable to open driver instance: /dev/brn7200( "
                         "16: Device or resource busy )"));
}

void GadgetOpenTest::theFirstFailureEndsTheOpen()
{
    _node.opens = {{1001}, FakeNode::failure(EACCES)};
    GadgetProbe driver({"/dev/a", "/dev/b", "/dev/c"});
    QVERIFY(!driver.open());
    QCOMPARE(_node.record("open"), QStringList({"open /dev/a", "open /dev/b"}));
    QCOMPARE(_node.record("close"), QStringList());
    QCOMPARE(_log->lines(), QStringList({"_openDrvInstance: /dev/a successfully opened",
                                         "_openDrvInstance: Error: unable to open driver "
                                         "instance: /dev/b( 13: Permission denied )"}));
    QVERIFY(driver.close());
    QCOMPARE(_node.record("close"), QStringList("close 1001"));
}

void GadgetOpenTest::aDriverWithoutInstancesOpens()
{
    GadgetProbe driver((QStringList()));
    QVERIFY(driver.open());
    QCOMPARE(_node.record(), QStringList());
    QCOMPARE(_log->lines(), QStringList("open: all drivers opened successfully: 0"));
}

void GadgetOpenTest::aDriverWithoutABufferDoesNotOpen()
{
    GadgetProbe driver;
    driver._readBuffer.reset();
    QVERIFY(!driver.open());
    QCOMPARE(_node.record(), QStringList());
    QCOMPARE(_log->lines(), QStringList("_openDrvInstance: Error: raw data is null"));
}

void GadgetOpenTest::anOpenDoesNotCloseFormerDescriptors()
{
    GadgetProbe driver;
    QVERIFY(driver.open());
    QVERIFY(driver.open());
    QCOMPARE(_node.record("close"), QStringList());
    QVERIFY(driver.close());
    QCOMPARE(_node.record("close"), QStringList("close 1002"));
}

void GadgetOpenTest::closeClosesEveryDescriptorInOrder()
{
    GadgetProbe driver({"/dev/a", "/dev/b", "/dev/c"});
    QVERIFY(driver.open());
    QVERIFY(_log->contains("open: all drivers opened successfully: 3"));
    QVERIFY(driver.close());
    QCOMPARE(_node.record("close"), QStringList({"close 1001", "close 1002", "close 1003"}));
}

void GadgetOpenTest::closeIgnoresFailures()
{
    GadgetProbe driver({"/dev/a", "/dev/b"});
    QVERIFY(driver.open());
    const int lines = _log->lines().size();
    _node.closes = {FakeNode::failure(EIO), FakeNode::failure(EBADF)};
    QVERIFY(driver.close());
    QCOMPARE(_node.calls("close").size(), 2);
    QCOMPARE(_log->lines().size(), lines);
}

void GadgetOpenTest::closeBeforeOpenDoesNothing()
{
    GadgetProbe driver;
    QVERIFY(driver.close());
    QCOMPARE(_node.record(), QStringList());
}

void GadgetOpenTest::closeKeepsTheList()
{
    GadgetProbe driver;
    QVERIFY(driver.open());
    QVERIFY(driver.close());
    QVERIFY(driver.close());
    QCOMPARE(_node.record("close"), QStringList({"close 1001", "close 1001"}));
    _node.clearRecord();
    QVERIFY(driver.open());
    QVERIFY(driver.close());
    QCOMPARE(_node.record("close"), QStringList("close 1002"));
}

void GadgetOpenTest::theDestructorClosesNothing()
{
    {
        GadgetProbe driver;
        QVERIFY(driver.open());
    }
    QCOMPARE(_node.record("close"), QStringList());
}

QTEST_GUILESS_MAIN(GadgetOpenTest)
#include "tst_gadgetopen.moc"
