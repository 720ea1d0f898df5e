// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <SignalRecorder.h>

namespace {

QStringList lossLines(int reads, int writes, const QString &retries, bool forced, bool closes)
{
    return {"Disconnect read attempts : " + QString::number(reads),
            "Disconnect write attempts : " + QString::number(writes),
            "Disconnect number retries : " + retries,
            QString("Disconnect cable disconnection detected : ") + (forced ? "true" : "false"),
            QString("closeDriverAfterConnectionError = ") + (closes ? "true" : "false")};
}

const QString lossEnd = "_connectedFunc: closeDriverAfterConnectionError = ";

} // namespace

/** How the link is lost, and what the loss does to the ports, the queues and the driver. */
class LinkLossTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void oneFailedReadAboveTheRetriesTakesTheLinkDown_data();
    void oneFailedReadAboveTheRetriesTakesTheLinkDown();
    void oneFailedWriteAboveTheRetriesTakesTheLinkDown();
    void asManyFailedWritesAsRetriesDoNot();
    void failedTransfersAreCountedInARow();
    void rejectedBlocksAloneDoNotAccumulate();
    void withoutRetriesOneRejectedBlockTakesTheLinkDown();
    void failedReadsDuringTheHandshakeAreBorne();
    void failedWritesDuringTheHandshakeAreBorne();

    void aDriverMayHaveTheLinkForcedDownWithItsLastPort();
    void theLinkIsForcedDownDuringTheHandshakeToo();
    void otherDriversKeepTheLinkWithoutPorts();

    void theSignalsOfALossComeInTheirOrder();
    void theSignalsOfAReturnComeInTheirOrder();
    void aLossDropsWhatWasNotWrittenAndNotRead();
    void aLossStartsTheHandshakeAfresh();
    void theSameDriverGoesOnUnlessItWantsToBeClosed();
};

void LinkLossTest::oneFailedReadAboveTheRetriesTakesTheLinkDown_data()
{
    QTest::addColumn<int>("retries");
    QTest::newRow("no retry") << 0;
    QTest::newRow("one retry") << 1;
    QTest::newRow("four retries") << 4;
    QTest::newRow("ten retries") << 10;
}

void LinkLossTest::oneFailedReadAboveTheRetriesTakesTheLinkDown()
{
    QFETCH(int, retries);
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.nbRetry = static_cast<quint32>(retries);
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    int reads = core.driver->reads();
    core.driver->failReads(retries);
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.driver->waitForReads(reads + retries + 1));
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(!core.log.contains(lossEnd + "false"));

    QVERIFY(core.turn());
    reads = core.driver->reads();
    core.driver->failReads(retries + 1);
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.driver->waitForReads(reads + retries + 2));
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QCOMPARE(core.logged("_connectedFunc").mid(1),
             lossLines(retries + 1, 0, QString::number(retries), false, false));
}

void LinkLossTest::oneFailedWriteAboveTheRetriesTakesTheLinkDown()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.transfers->clearCalls();
    core.driver->failWrites(5);
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QCOMPARE(core.transfers->calls(), QByteArray("wwwwwr"));
    QCOMPARE(core.logged("_connectedFunc").mid(1), lossLines(0, 5, "4", false, false));
}

void LinkLossTest::asManyFailedWritesAsRetriesDoNot()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.driver->failWrites(4);
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(!core.log.contains(lossEnd + "false"));
}

void LinkLossTest::failedTransfersAreCountedInARow()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    for (int i = 0; i < 4; ++i) {
        const int reads = core.driver->reads();
        core.driver->failReads(3);
        core.driver->failWrites(3);
        core.driver->feed("DEVICE_NODATA");
        QVERIFY(core.driver->waitForReads(reads + 4));
    }
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(!core.log.contains(lossEnd + "false"));
}

void LinkLossTest::rejectedBlocksAloneDoNotAccumulate()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    for (int i = 0; i < 10; ++i)
        QVERIFY(core.turn("nonsense"));
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(core.eventually([&] { return core._readErrors == 1; }));
}

void LinkLossTest::withoutRetriesOneRejectedBlockTakesTheLinkDown()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.nbRetry = 0;
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    QVERIFY(core.turn("nonsense"));
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QCOMPARE(core.logged("_connectedFunc").mid(1), lossLines(1, 0, "0", false, false));
}

void LinkLossTest::failedReadsDuringTheHandshakeAreBorne()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->failReads(12);
    core.driver->setReadWait(600000);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForReads(13));
    QCOMPARE(core.locked([&](QMutexLocker &) { return core._readErrors; }), 12u);
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(!core.log.contains(lossEnd + "false"));
}

void LinkLossTest::failedWritesDuringTheHandshakeAreBorne()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->setReadWait(600000);
    core.driver->failWrites(12);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForReads(1));
    QVERIFY(core.turn("nonsense"));
    QCOMPARE(core.driver->writes(), 13);
    QVERIFY(!core.log.contains(lossEnd + "false"));
}

void LinkLossTest::aDriverMayHaveTheLinkForcedDownWithItsLastPort()
{
    LinkProbe core;
    core.driver->setAvoidClosingDuringHandshake(true);
    QVERIFY(core.connectStepwise(1));
    QVERIFY(core.openConnection(2));
    QVERIFY(core.closeConnection(1));
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(core.closeConnection(2));
    QCOMPARE(core.log.count("_onDisconnected: [USBHAL] force low-level disconnection"), 1);
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.log.waitFor(lossEnd + "false"));
    const QStringList lines = core.logged("_connectedFunc");
    QCOMPARE(lines.mid(lines.indexOf("Disconnect read attempts : 0")),
             lossLines(0, 0, "4", true, false));
    QVERIFY(core.eventually([&] { return !core._forceLowLevelDisconnection; }));
}

void LinkLossTest::theLinkIsForcedDownDuringTheHandshakeToo()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->setAvoidClosingDuringHandshake(true);
    core.driver->setReadWait(600000);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForReads(1));
    SignalRecorder recorder(&core);
    QVERIFY(core.closeConnection(1));
    core.driver->feed("nonsense");
    QVERIFY(core.log.waitFor(lossEnd + "false"));
    QCOMPARE(core.logged("_connectedFunc"), lossLines(1, 0, "4", true, false));
    const QStringList expected = {"disconnected(1)", "socketStateChanged(1,DISCONNECTED)",
                                  "disconnected"};
    QCOMPARE(recorder.all(), expected);
}

void LinkLossTest::otherDriversKeepTheLinkWithoutPorts()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    QVERIFY(core.closeConnection(1));
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(core.isRunning());
    QVERIFY(!core.log.contains("_onDisconnected: [USBHAL] force low-level disconnection"));
}

void LinkLossTest::theSignalsOfALossComeInTheirOrder()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    SignalRecorder recorder(&core);
    core.driver->failReads(5);
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.log.waitFor(lossEnd + "false"));
    const QStringList expected = {"stateChanged(DISCONNECTED)", "disconnected", "disconnected(1)",
                                  "socketStateChanged(1,DISCONNECTED)"};
    QCOMPARE(recorder.all(), expected);
    QCOMPARE(core.socketStatus(1), SocketState::DISCONNECTED);
    QCOMPARE(core.nbClients(), 1u);
    const QStringList lines = core.log.lines();
    const int begin = lines.indexOf("_connectedFunc: Disconnect read attempts : 5");
    const QStringList logged = {
        "_connectedFunc: Disconnect read attempts : 5",
        "_connectedFunc: Disconnect write attempts : 0",
        "_connectedFunc: Disconnect number retries : 4",
        "_connectedFunc: Disconnect cable disconnection detected : false",
        "_updateStatus: UsbHal switched to DISCONNECTED state",
        "_changeAllSocketsState: emit disconnected",
        "_onDisconnected: socket #1DISCONNECTED",
        "_onDisconnected: 0 messages removed from Write FIFO for port 1",
        "_connectedFunc: closeDriverAfterConnectionError = false",
    };
    QCOMPARE(lines.mid(begin), logged);
}

void LinkLossTest::theSignalsOfAReturnComeInTheirOrder()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    core.driver->failReads(5);
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.log.waitFor(lossEnd + "false"));
    SignalRecorder recorder(&core);
    QVERIFY(core.turn());
    const QStringList expected = {"stateChanged(CONNECTED)", "connected", "connected(1)",
                                  "socketStateChanged(1,OPENED)"};
    QCOMPARE(recorder.all(), expected);
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QVERIFY(core.log.contains("_updateStatus: UsbHal switched to CONNECTED state"));
}

void LinkLossTest::aLossDropsWhatWasNotWrittenAndNotRead()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    QVERIFY(core.openConnection(2));
    QVERIFY(core.turn(dataMessage(1, "unread")));
    core.write(1, "one");
    core.write(2, "two");
    core.driver->failWrites(5);
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QCOMPARE(core.bytesToWrite(), 0);
    QCOMPARE(core.nbBytesReceived(1), 0);
    QCOMPARE(core.locked([&](QMutexLocker &) { return core._totalBytesWaitingRead; }), 0u);
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(core.read(1, 100).isEmpty());
    QCOMPARE(core.driver->writtenData(), QList<QByteArray>());
}

void LinkLossTest::aLossStartsTheHandshakeAfresh()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.driver->failWrites(5);
    QVERIFY(core.turn());
    core.locked([&](QMutexLocker &) {
        QVERIFY(core._handshaking);
        QVERIFY(!core._maxSizeExchanged);
        QCOMPARE(core._nextAction, 1);
        QCOMPARE(core._writeErrors, 0u);
        QCOMPARE(core._readErrors, 0u);
    });
    core.driver->failReads(12);
    QVERIFY(core.turn());
    QCOMPARE(core.log.count(lossEnd + "false"), 1);
}

void LinkLossTest::theSameDriverGoesOnUnlessItWantsToBeClosed()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.driver->failWrites(5);
    QVERIFY(core.turn());
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QCOMPARE(core.driver->opens(), 1);
    QCOMPARE(core.driver->closes(), 0);
}

QTEST_GUILESS_MAIN(LinkLossTest)
#include "tst_link_loss.moc"
