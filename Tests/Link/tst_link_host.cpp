// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <Background.h>
#include <SignalRecorder.h>

namespace {

const QString connectedLine = "we successfully read a message: we are now connected";

/** A core that plays the host. */
class HostProbe : public LinkProbe
{
public:
    HostProbe() { playsHost = true; }
    ~HostProbe() override { shutDown(); }

    /** Opens port 1; the core writes first and then waits in its read. */
    bool openStepwise()
    {
        setupConfig(quietSetup());
        driver->setReadWait(600000);
        return openConnection(1) && driver->waitForReads(1);
    }
    bool connectStepwise()
    {
        return openStepwise() && turn() && status() == DriverState::CONNECTED;
    }
};

} // namespace

/** The host's side of the cycle and its ways out of the thread. */
class LinkHostTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void theHostWritesFirst();
    void theHostSendsTheBareMessage();
    void theHostNeverAsksTheDeviceToWait();
    void theLastMessageWritesWakeAFlush();
    void aFailedWriteIsRepeated();
    void theFirstGoodReadIsLoggedOncePerConnection();
    void theHandshakeCountsItsPasses();
    void failedReadsDuringTheHandshakeLeadBackToTheWrite();
    void failedReadsAfterTheHandshakeLeadBackToTheWrite();
    void aRejectedBlockIsReadOn_data();
    void aRejectedBlockIsReadOn();
    void theMaxWriteSizeIsTakenFromTheDevice();
    void waitingWritersAreLetWriteAgain();

    void theLinkIsLostByFailedWrites();
    void theHandshakeFailsAfterTwentyPasses();
    void theHostGivesUpWithoutPortsAfterAFailedHandshake();
    void theHostGoesOnWithAPortAfterAFailedHandshake();
    void theHostGivesUpAfterFiftyOneFailedOpens();
    void aFailedReopenEndsTheThread();
    void theHostGivesUpAfterFiftyFailedReopens_data();
    void theHostGivesUpAfterFiftyFailedReopens();
};

void LinkHostTest::theHostWritesFirst()
{
    HostProbe core;
    QVERIFY(core.connectIdle());
    QVERIFY(core.transfers->waitForCalls(20));
    QCOMPARE(core.transfers->calls().left(20), QByteArray("wr").repeated(10));
}

void LinkHostTest::theHostSendsTheBareMessage()
{
    HostProbe core;
    QVERIFY(core.connectStepwise());
    QVERIFY(core.turn());
    const QList<QByteArray> written = core.driver->written();
    QCOMPARE(written, QList<QByteArray>({"DEVICE_NODATA", "DEVICE_NODATA", "DEVICE_NODATA"}));
    QVERIFY(!core.log.contains("_connectedFunc: max read size message sent with value = 10000"));
}

void LinkHostTest::theHostNeverAsksTheDeviceToWait()
{
    HostProbe core;
    ParamHal param = core.quietSetup();
    param.maxReadSize = 1;
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    QVERIFY(core.turn(dataMessage(1, QByteArray(100, 'x'))));
    QCOMPARE(core.driver->written().last(), QByteArray("DEVICE_NODATA"));
}

void LinkHostTest::theLastMessageWritesWakeAFlush()
{
    HostProbe core;
    QVERIFY(core.connectIdle());
    core.write(1, "one");
    core.write(1, "two");
    QElapsedTimer timer;
    timer.start();
    core.flush(60000);
    QVERIFY(timer.elapsed() < 30000);
    const QList<QByteArray> expected = {dataMessage(1, "one"), dataMessage(1, "two")};
    QCOMPARE(core.driver->writtenData(), expected);
}

void LinkHostTest::aFailedWriteIsRepeated()
{
    HostProbe core;
    QVERIFY(core.connectStepwise());
    core.write(1, "data");
    core.driver->failWrites(2);
    core.transfers->clearCalls();
    QVERIFY(core.turn());
    QCOMPARE(core.transfers->calls(), QByteArray("wwwr"));
    QCOMPARE(core.driver->writtenData(), QList<QByteArray>{dataMessage(1, "data")});
    QCOMPARE(core.bytesToWrite(), 0);
}

void LinkHostTest::theFirstGoodReadIsLoggedOncePerConnection()
{
    HostProbe core;
    QVERIFY(core.connectStepwise());
    QVERIFY(core.turn());
    QCOMPARE(core.log.count("_connectedFunc: " + connectedLine), 1);
    core.driver->failWrites(5);
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QVERIFY(core.turn());
    QCOMPARE(core.log.count("_connectedFunc: " + connectedLine), 2);
}

void LinkHostTest::theHandshakeCountsItsPasses()
{
    HostProbe core;
    core.driver->failReads(2);
    QVERIFY(core.openStepwise());
    QVERIFY(core.driver->waitForReads(3));
    QVERIFY(core.turn());
    QVERIFY(core.turn());
    const QStringList expected = {"handshake counter = 1", "Read failed !",
                                  "handshake counter = 2", "Read failed !",
                                  "handshake counter = 3", connectedLine};
    QCOMPARE(core.logged("_connectedFunc"), expected);
}

void LinkHostTest::failedReadsDuringTheHandshakeLeadBackToTheWrite()
{
    HostProbe core;
    core.driver->failReads(5);
    QVERIFY(core.openStepwise());
    QVERIFY(core.driver->waitForReads(6));
    // The count goes on during the handshake: after the third failure each one leads back.
    QCOMPARE(core.transfers->calls(), QByteArray("wrrrwrwrwr"));
    QCOMPARE(core.log.count("_connectedFunc: Read failed !"), 5);
    QCOMPARE(core.log.count("_connectedFunc: retry write"), 3);
}

void LinkHostTest::failedReadsAfterTheHandshakeLeadBackToTheWrite()
{
    HostProbe core;
    QVERIFY(core.connectStepwise());
    core.transfers->clearCalls();
    core.driver->failReads(10);
    const int reads = core.driver->reads();
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.driver->waitForReads(reads + 11));
    QCOMPARE(core.transfers->calls(), QByteArray("wrrrrrwrrrrrwr"));
    QCOMPARE(core.log.count("_connectedFunc: Read failed !"), 10);
    QCOMPARE(core.log.count("_connectedFunc: retry write"), 2);
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(!core.log.contains("_connectedFunc: closeDriverAfterConnectionError = false"));
}

void LinkHostTest::aRejectedBlockIsReadOn_data()
{
    QTest::addColumn<quint32>("retries");
    QTest::addColumn<QByteArray>("calls");
    QTest::newRow("while retries remain") << 2u << QByteArray("rwr");
    QTest::newRow("not without one") << 1u << QByteArray("wrwr");
}

void LinkHostTest::aRejectedBlockIsReadOn()
{
    QFETCH(quint32, retries);
    QFETCH(QByteArray, calls);
    HostProbe core;
    ParamHal param = core.quietSetup();
    param.nbRetry = retries;
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    core.transfers->clearCalls();
    QVERIFY(core.turn("nonsense"));
    QVERIFY(core.turn());
    QCOMPARE(core.transfers->calls(), calls);
    QCOMPARE(core.status(), DriverState::CONNECTED);
}

void LinkHostTest::theMaxWriteSizeIsTakenFromTheDevice()
{
    HostProbe core;
    QVERIFY(core.openStepwise());
    QVERIFY(core.turn("DEVICE_NODATA00513"));
    QCOMPARE(core.getMaxWriteSize(), 500);
    QVERIFY(core.log.contains("_processMessage: max write size set to 513"));
}

void LinkHostTest::waitingWritersAreLetWriteAgain()
{
    HostProbe core;
    QVERIFY(core.connectStepwise());
    QVERIFY(core.turn("DEVICE_WTSEND"));
    auto writing = inBackground([&] { return core.write(1, "data"); });
    QVERIFY(core.log.waitFor("write: wait for device to finish reading..."));
    QVERIFY(core.turn());
    QCOMPARE(writing.get(), 4);
    QVERIFY(core.log.contains("_connectedFunc: write permission granted"));
}

void LinkHostTest::theLinkIsLostByFailedWrites()
{
    HostProbe core;
    QVERIFY(core.connectStepwise());
    SignalRecorder recorder(&core);
    core.driver->failWrites(5);
    QVERIFY(core.turn());
    const QStringList expected = {"stateChanged(DISCONNECTED)", "disconnected", "disconnected(1)",
                                  "socketStateChanged(1,DISCONNECTED)"};
    QCOMPARE(recorder.all(), expected);
    QVERIFY(core.log.contains("_connectedFunc: Disconnect write attempts : 5"));
}

void LinkHostTest::theHandshakeFailsAfterTwentyPasses()
{
    HostProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->failReads(-1);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.log.waitFor("_connectedFunc: closeDriverAfterConnectionError = false"));
    QStringList lines = core.logged("_connectedFunc").filter("handshake counter = ");
    QCOMPARE(lines.value(20), QString("handshake counter = 21"));
    // The count begins anew with the next handshake.
    QVERIFY(core.log.waitFor("_connectedFunc: handshake counter = 1", 2));
    lines = core.logged("_connectedFunc").filter("handshake counter = ");
    QCOMPARE(lines.value(21), QString("handshake counter = 1"));
}

void LinkHostTest::theHostGivesUpWithoutPortsAfterAFailedHandshake()
{
    HostProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->setCloseDriverAfterConnectionError(true);
    core.driver->failReads(-1);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.closeConnection(1));
    SignalRecorder recorder(&core);
    QVERIFY(core.waitForEndOfThread());
    const QStringList expected = {"UsbHAL driver closed",
                                  "failed to setup handshake with device, leaving thread"};
    const QStringList lines = core.logged("_connectedFunc");
    QCOMPARE(lines.mid(lines.indexOf(expected.first())), expected);
    QCOMPARE(recorder.all(), QStringList({"disconnected", "disconnected"}));
    QCOMPARE(core.driver->opens(), 1);
    QVERIFY(!core._running);
    QVERIFY(core.log.contains("_endOfConnectedThread: clean exit of communication thread"));
}

void LinkHostTest::theHostGoesOnWithAPortAfterAFailedHandshake()
{
    HostProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->setCloseDriverAfterConnectionError(true);
    core.driver->failReads(-1);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.log.waitFor("_connectedFunc: UsbHAL driver is opened"));
    core.driver->failReads(0);
    core.driver->setIdleHost(true);
    QVERIFY(core.waitForConnected(5000));
    QVERIFY(core.driver->opens() >= 2);
    QTRY_COMPARE(core.socketStatus(1), SocketState::OPENED);
}

void LinkHostTest::theHostGivesUpAfterFiftyOneFailedOpens()
{
    HostProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->failOpens(-1);
    SignalRecorder recorder(&core);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.waitForEndOfThread());
    QCOMPARE(core.driver->opens(), 51);
    QCOMPARE(core.logged("_connectedFunc"),
             QStringList("Failed to open driver ! Exiting communication thread"));
    const QStringList expected = {"disconnected", "disconnected(1)",
                                  "socketStateChanged(1,DISCONNECTED)"};
    QStringList after = recorder.all();
    after.removeOne("connected(1)");
    after.removeOne("socketStateChanged(1,OPENED)");
    QCOMPARE(after, expected);
    QVERIFY(!core._running);
}

void LinkHostTest::aFailedReopenEndsTheThread()
{
    HostProbe core;
    core.driver->setCloseDriverAfterConnectionError(true);
    QVERIFY(core.connectStepwise());
    core.driver->failWrites(5);
    core.driver->failOpens(1);
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.waitForEndOfThread());
    const QStringList expected = {"UsbHAL driver closed", "Try reopen driver...",
                                  "_hwDriver is NULL", "USB driver closed"};
    const QStringList lines = core.logged("_connectedFunc");
    QCOMPARE(lines.mid(lines.indexOf(expected.first())), expected);
    QCOMPARE(core.driver->opens(), 2);
    QCOMPARE(core.driver->closes(), 1);
}

void LinkHostTest::theHostGivesUpAfterFiftyFailedReopens_data()
{
    QTest::addColumn<quint32>("failures");
    QTest::addColumn<bool>("goesOn");
    QTest::newRow("forty-nine") << 48u << true;
    QTest::newRow("fifty") << 49u << false;
}

void LinkHostTest::theHostGivesUpAfterFiftyFailedReopens()
{
    QFETCH(quint32, failures);
    QFETCH(bool, goesOn);
    HostProbe core;
    core.setupConfig(core.quietSetup());
    core._running = true;
    core._hwDriver = core.driver.data();
    core.driver->failOpens(1);
    HostProbe::Session session;
    session.failedOpens = failures;
    const bool result =
        core.locked([&](QMutexLocker &locker) { return core._reopenAfterLoss(session, locker); });
    QCOMPARE(result, goesOn);
    QCOMPARE(session.failedOpens, failures + 1);
    QCOMPARE(core.log.count("_connectedFunc: failed to open driver !"), goesOn ? 0 : 1);
    QVERIFY(!core._hwDriver);
}

QTEST_GUILESS_MAIN(LinkHostTest)
#include "tst_link_host.moc"
