// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <sys/prctl.h>

/** The read/write cycle of a device: the order of the transfers, and the FIFO behind the writes. */
class LinkCycleTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void theDeviceReadsFirstAndThenAlternates();
    void aFailedReadIsRepeatedBeforeAnyWrite();
    void aRejectedBlockIsAnsweredToo();
    void aRejectedBlockLeavesTheHandshakeUnderWay();
    void aFailedWriteIsRepeatedWithoutARead();
    void eachTransferIsFollowedByAPause();
    void theSystemDoesNotPutOffTheEndOfAPause();
    void theMutexIsFreeDuringDriverCalls();

    void aMessageTakesThePlaceOfTheIdleMessage();
    void aMessageLeavesTheFifoOnlyWhenItIsWritten();
    void aFailedWriteKeepsTheHeadOfTheFifo();
    void aMessageQueuedDuringAnIdleWriteIsNotTakenForTheOneSent();
    void closingAPortDuringItsWriteCostsNoOtherMessage();
    void losingAPortDuringItsWriteCostsNoOtherMessage();
    void aCopyOfTheMessageUnderWayIsSentAsWell();
    void aMessageQueuedAfterAFailedOneIsGoneIsSentOnce();
    void theLastMessageWritesWakeNoFlush();
};

void LinkCycleTest::theDeviceReadsFirstAndThenAlternates()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    QVERIFY(core.transfers->waitForCalls(20));
    QCOMPARE(core.transfers->calls().left(20), QByteArray("rw").repeated(10));
}

void LinkCycleTest::aFailedReadIsRepeatedBeforeAnyWrite()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->failReads(3);
    core.driver->setIdleHost(true);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.transfers->waitForCalls(6));
    QCOMPARE(core.transfers->calls().left(6), QByteArray("rrrrwr"));
}

void LinkCycleTest::aRejectedBlockIsAnsweredToo()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.transfers->clearCalls();
    core.driver->clearWritten();
    QVERIFY(core.turn("nonsense"));
    QCOMPARE(core.transfers->calls(), QByteArray("wr"));
    QCOMPARE(core.driver->written(), QList<QByteArray>{"DEVICE_NODATA10000"});
    QVERIFY(core.eventually([&] { return core._readErrors == 1; }));
    QVERIFY(core.turn());
    QVERIFY(core.eventually([&] { return core._readErrors == 0; }));
}

void LinkCycleTest::aRejectedBlockLeavesTheHandshakeUnderWay()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->setReadWait(600000);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForReads(1));
    QVERIFY(core.turn("nonsense"));
    QVERIFY(core.locked([&](QMutexLocker &) { return core._handshaking; }));
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QVERIFY(core.turn());
    QVERIFY(!core.locked([&](QMutexLocker &) { return core._handshaking; }));
    QCOMPARE(core.status(), DriverState::CONNECTED);
}

void LinkCycleTest::aFailedWriteIsRepeatedWithoutARead()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.transfers->clearCalls();
    core.driver->failWrites(3);
    QVERIFY(core.turn());
    QCOMPARE(core.transfers->calls(), QByteArray("wwwwr"));
    QVERIFY(core.eventually([&] { return core._writeErrors == 0; }));
    QCOMPARE(core.status(), DriverState::CONNECTED);
}

void LinkCycleTest::eachTransferIsFollowedByAPause()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    QVERIFY(core.transfers->waitForCalls(20));
    QVERIFY(core.transfers->smallestGap() >= 10 * 1000 * 1000);
}

void LinkCycleTest::theSystemDoesNotPutOffTheEndOfAPause()
{
    LinkProbe core;
    std::atomic<int> slack{0}; // ns
    QObject::connect(
        &core, QOverload<>::of(&UsbHAL::connected), &core,
        [&] { slack = prctl(PR_GET_TIMERSLACK); }, Qt::DirectConnection);
    QVERIFY(core.connectIdle());
    QTRY_COMPARE(slack, 1);
}

void LinkCycleTest::theMutexIsFreeDuringDriverCalls()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->blockOpens();
    core.driver->blockReads();
    core.driver->setIdleHost(true);
    QVERIFY(core.openConnection(1));
    const auto isFree = [&] {
        const bool free = core._mutex.tryLock(5000);
        if (free)
            core._mutex.unlock();
        return free;
    };
    QVERIFY(core.driver->waitForBlockedCall());
    QVERIFY(isFree());
    core.driver->releaseOpens();
    QVERIFY(core.driver->waitForReads(1));
    QVERIFY(isFree());
    core.driver->blockWrites();
    core.driver->releaseReads();
    QTRY_COMPARE(core.driver->writes(), 1);
    QVERIFY(isFree());
    QCOMPARE(core.driver->written(), QList<QByteArray>());
}

void LinkCycleTest::aMessageTakesThePlaceOfTheIdleMessage()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.driver->clearWritten();
    QCOMPARE(core.write(1, "one"), 3);
    QCOMPARE(core.write(1, "two"), 3);
    for (int i = 0; i < 3; ++i)
        QVERIFY(core.turn());
    const QList<QByteArray> expected = {dataMessage(1, "one"), dataMessage(1, "two"),
                                        "DEVICE_NODATA10000"};
    QCOMPARE(core.driver->written(), expected);
}

void LinkCycleTest::aMessageLeavesTheFifoOnlyWhenItIsWritten()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    QCOMPARE(core.write(1, "data"), 4);
    core.driver->blockWrites();
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.driver->waitForBlockedCall());
    QCOMPARE(core.bytesToWrite(), 1);
    core.driver->releaseWrites();
    QTRY_COMPARE(core.bytesToWrite(), 0);
    QCOMPARE(core.driver->writtenData(), QList<QByteArray>{dataMessage(1, "data")});
}

void LinkCycleTest::aFailedWriteKeepsTheHeadOfTheFifo()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.write(1, "first");
    core.write(1, "second");
    core.driver->failWrites(2);
    core.driver->clearWritten();
    core.transfers->clearCalls();
    QVERIFY(core.turn());
    QCOMPARE(core.transfers->calls(), QByteArray("wwwr"));
    QCOMPARE(core.driver->written(), QList<QByteArray>{dataMessage(1, "first")});
    QCOMPARE(core.bytesToWrite(), 1);
    QVERIFY(core.turn());
    QCOMPARE(core.driver->written().last(), dataMessage(1, "second"));
}

void LinkCycleTest::aMessageQueuedDuringAnIdleWriteIsNotTakenForTheOneSent()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    const int reads = core.driver->reads();
    core.driver->blockWrites();
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.driver->waitForBlockedCall());
    QCOMPARE(core.write(1, "late"), 4);
    core.driver->releaseWrites();
    QVERIFY(core.driver->waitForReads(reads + 1));
    QCOMPARE(core.bytesToWrite(), 1);
    QVERIFY(core.turn());
    QCOMPARE(core.driver->writtenData(), QList<QByteArray>{dataMessage(1, "late")});
}

void LinkCycleTest::closingAPortDuringItsWriteCostsNoOtherMessage()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    QVERIFY(core.openConnection(2));
    core.write(1, "one");
    core.write(2, "two");
    const int reads = core.driver->reads();
    core.driver->blockWrites();
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.driver->waitForBlockedCall());
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.bytesToWrite(), 1);
    core.driver->releaseWrites();
    QVERIFY(core.driver->waitForReads(reads + 1));
    QCOMPARE(core.bytesToWrite(), 1);
    QVERIFY(core.turn());
    const QList<QByteArray> expected = {dataMessage(1, "one"), dataMessage(2, "two")};
    QCOMPARE(core.driver->writtenData(), expected);
    QCOMPARE(core.bytesToWrite(), 0);
}

void LinkCycleTest::losingAPortDuringItsWriteCostsNoOtherMessage()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    QVERIFY(core.openConnection(2));
    core.write(1, "one");
    core.write(2, "two");
    const int reads = core.driver->reads();
    core.driver->blockWrites();
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.driver->waitForBlockedCall());
    core.peerDisconnected(1);
    QCOMPARE(core.bytesToWrite(), 1);
    core.driver->releaseWrites();
    QVERIFY(core.driver->waitForReads(reads + 1));
    QCOMPARE(core.bytesToWrite(), 1);
    QVERIFY(core.turn());
    QCOMPARE(core.driver->writtenData().last(), dataMessage(2, "two"));
}

void LinkCycleTest::aCopyOfTheMessageUnderWayIsSentAsWell()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.write(1, "same");
    const int reads = core.driver->reads();
    core.driver->blockWrites();
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.driver->waitForBlockedCall());
    core.peerDisconnected(1);
    QVERIFY(core.openConnection(1));
    core.write(1, "same");
    core.driver->releaseWrites();
    QVERIFY(core.driver->waitForReads(reads + 1));
    QCOMPARE(core.bytesToWrite(), 1);
    QVERIFY(core.turn());
    const QList<QByteArray> expected = {dataMessage(1, "same"), dataMessage(1, "same")};
    QCOMPARE(core.driver->writtenData(), expected);
}

void LinkCycleTest::aMessageQueuedAfterAFailedOneIsGoneIsSentOnce()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    QVERIFY(core.openConnection(2));
    core.write(1, "gone");
    core.driver->blockWrites();
    core.driver->failWrites(1);
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.driver->waitForBlockedCall());
    core.peerDisconnected(1);
    const int reads = core.driver->reads();
    core.driver->releaseWrites();
    QVERIFY(core.driver->waitForReads(reads + 1));
    QCOMPARE(core.write(2, "kept"), 4);
    QVERIFY(core.turn());
    QCOMPARE(core.driver->writtenData(), QList<QByteArray>{dataMessage(2, "kept")});
    QCOMPARE(core.bytesToWrite(), 0);
}

void LinkCycleTest::theLastMessageWritesWakeNoFlush()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    core.write(1, "data");
    QElapsedTimer timer;
    timer.start();
    core.flush(500);
    QVERIFY(timer.elapsed() >= 490);
    QCOMPARE(core.driver->writtenData(), QList<QByteArray>{dataMessage(1, "data")});
    QVERIFY(core.log.contains("flush: FIFO write is empty (0)"));
}

QTEST_GUILESS_MAIN(LinkCycleTest)
#include "tst_link_cycle.moc"
