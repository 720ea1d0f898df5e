// SPDX-License-Identifier: MIT
#include "PortsProbe.h"

#include <QElapsedTimer>

#include <atomic>
#include <thread>

namespace {

constexpr qint64 flushTime = 300; // ms

// A link whose next write blocks, so that the write FIFO fills up.
bool connectWithBlockedWrites(PortsProbe &core, const QList<int> &ports)
{
    if (!core.connectPorts(ports))
        return false;
    core.driver->blockWrites();
    return core.driver->waitForBlockedCall();
}

} // namespace

class PortClosingTest : public QObject
{
    Q_OBJECT

private slots:
    void aCloseWithoutAnOpenPortYieldsError6_data();
    void aCloseWithoutAnOpenPortYieldsError6();
    void disconnectingAnUnknownPortFromTheHostDoesNothing();
    void disconnectingAClosedPortFromTheHostYieldsError6();
    void aCloseWithAnEmptyFifoDoesNotWait();
    void aCloseWaitsForTheFifoAndGoesOnRegardless();
    void aCloseLetsTheFifoBeSentMeanwhile();
    void aCloseEndsItsWaitWhenItIsWoken();
    void aCloseRemovesTheMessagesOfAnOpenPort();
    void aCloseOfADisconnectedPortLeavesItsMessages();
    void aPeerDisconnectionRemovesTheMessagesOfThePort();
    void aCloseEmptiesTheReadQueueButKeepsIt();
    void aCloseCountsAMessageOnlyUpToItsFirstZeroByte();
    void aDisconnectedPortClearsTheExchangeOfTheMaximumSize();
    void theLastOpenPortForcesTheLinkDown_data();
    void theLastOpenPortForcesTheLinkDown();
    void theForcedDisconnectionTakesTheLinkDown();
    void ofTwoThreadsThatCloseOnePortOneGetsError6_data();
    void ofTwoThreadsThatCloseOnePortOneGetsError6();
};

void PortClosingTest::aCloseWithoutAnOpenPortYieldsError6_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("unknown port") << "unknown";
    QTest::newRow("port closed before") << "closed";
    QTest::newRow("port without a queue") << "queueless";
    QTest::newRow("port without a state") << "stateless";
    QTest::newRow("no client counted") << "uncounted";
}

void PortClosingTest::aCloseWithoutAnOpenPortYieldsError6()
{
    QFETCH(QString, how);
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    QVERIFY(core.openConnection(2));
    if (how == "closed")
        QVERIFY(core.closeConnection(2));
    core.locked([&](QMutexLocker &) {
        if (how == "queueless")
            core._readQueues[2].reset();
        if (how == "stateless")
            core._socketStates.remove(2);
        if (how == "uncounted")
            core._clientCount = 0;
    });
    const int port = how == "unknown" ? 3 : 2;
    const quint32 clients = core.nbClients();
    core.signalsSeen.take();
    const int before = core.log.lines().size();
    QVERIFY(!core.closeConnection(port));
    QCOMPARE(core.signalsSeen.all(), QStringList("error(6," + QString::number(port) + ')'));
    QCOMPARE(core.nbClients(), clients);
    QCOMPARE(core.log.lines().mid(before),
             QStringList("closeConnection: closeConnection on port " + QString::number(port)));
}

void PortClosingTest::disconnectingAnUnknownPortFromTheHostDoesNothing()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    core.signalsSeen.take();
    const QStringList before = core.log.lines();
    core.disconnectFromHost(2);
    QCOMPARE(core.signalsSeen.all(), QStringList());
    QCOMPARE(core.log.lines(), before);
    QCOMPARE(core.nbClients(), 1u);
}

void PortClosingTest::disconnectingAClosedPortFromTheHostYieldsError6()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    QVERIFY(core.closeConnection(1));
    core.signalsSeen.take();
    const int before = core.log.lines().size();
    core.disconnectFromHost(1);
    QCOMPARE(core.signalsSeen.all(), QStringList("error(6,1)"));
    QCOMPARE(core.log.lines().mid(before),
             QStringList({"disconnectFromHost: Disconnect 1 from host",
                          "disconnectFromHost: 1 is now closed"}));
}

void PortClosingTest::aCloseWithAnEmptyFifoDoesNotWait()
{
    // A hundred closes that each waited would take half a minute.
    PortsProbe core;
    core.configure();
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < 100; ++i) {
        QVERIFY(core.openConnection(1));
        QVERIFY(core.closeConnection(1));
    }
    QVERIFY(timer.elapsed() < 100 * flushTime / 2);
}

void PortClosingTest::aCloseWaitsForTheFifoAndGoesOnRegardless()
{
    PortsProbe core;
    QVERIFY(connectWithBlockedWrites(core, {1, 2}));
    // A message of any port keeps the close waiting.
    QCOMPARE(core.write(2, "stuck"), 5);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(core.closeConnection(1));
    QVERIFY(timer.elapsed() >= flushTime - 1);
    QCOMPARE(core.bytesToWrite(), 1);
    QCOMPARE(core.socketStatus(1), SocketState::CLOSED);
    core.driver->releaseWrites();
    QVERIFY(core.driver->waitForWrite("FADA000090002stuck"));
}

void PortClosingTest::aCloseLetsTheFifoBeSentMeanwhile()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1}));
    QCOMPARE(core.write(1, "last words"), 10);
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.driver->writtenData(), QList<QByteArray>({"FADA000140001last words"}));
    QCOMPARE(core.log.count("_onDisconnected: 0 messages removed from Write FIFO for port 1"), 1);
}

void PortClosingTest::aCloseEndsItsWaitWhenItIsWoken()
{
    // As the host the communication thread wakes whoever waits for the FIFO.
    PortsProbe core;
    core.playsHost = true;
    QVERIFY(core.connectPorts({1}));
    constexpr int rounds = 20;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < rounds; ++i) {
        QCOMPARE(core.write(1, QByteArray::number(i)), QByteArray::number(i).size());
        QVERIFY(core.closeConnection(1));
        QCOMPARE(core.bytesToWrite(), 0);
        QVERIFY(core.openConnection(1));
    }
    QVERIFY(timer.elapsed() < rounds * flushTime / 2);
    QCOMPARE(core.driver->writtenData().size(), rounds);
}

void PortClosingTest::aCloseRemovesTheMessagesOfAnOpenPort()
{
    PortsProbe core;
    QVERIFY(connectWithBlockedWrites(core, {1, 2}));
    QCOMPARE(core.write(1, "one"), 3);
    QCOMPARE(core.write(2, "two"), 3);
    QCOMPARE(core.write(1, "three"), 5);
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.log.count("_onDisconnected: 2 messages removed from Write FIFO for port 1"), 1);
    QCOMPARE(core.bytesToWrite(), 1);
    core.driver->releaseWrites();
    QTRY_COMPARE(core.bytesToWrite(), 0);
    QCOMPARE(core.driver->writtenData(), QList<QByteArray>({"FADA000070002two"}));
}

void PortClosingTest::aCloseOfADisconnectedPortLeavesItsMessages()
{
    PortsProbe core;
    QVERIFY(connectWithBlockedWrites(core, {1}));
    core.peerDisconnected(1);
    core.locked([&](QMutexLocker &) { core._writeFifo.append("FADA000070001abc"); });
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.bytesToWrite(), 1);
    core.driver->releaseWrites();
    QVERIFY(core.driver->waitForWrite("FADA000070001abc"));
}

void PortClosingTest::aPeerDisconnectionRemovesTheMessagesOfThePort()
{
    PortsProbe core;
    QVERIFY(connectWithBlockedWrites(core, {1, 2}));
    QCOMPARE(core.write(1, "one"), 3);
    QCOMPARE(core.write(2, "two"), 3);
    core.peerDisconnected(1);
    QCOMPARE(core.log.count("_onDisconnected: 1 messages removed from Write FIFO for port 1"), 1);
    core.driver->releaseWrites();
    QTRY_COMPARE(core.bytesToWrite(), 0);
    QCOMPARE(core.driver->writtenData(), QList<QByteArray>({"FADA000070002two"}));
}

void PortClosingTest::aCloseEmptiesTheReadQueueButKeepsIt()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    QVERIFY(core.openConnection(2));
    core.storeMessage(1, "abc");
    core.storeMessage(1, "de");
    core.storeMessage(2, "other");
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.queuedMessages(1), 0);
    QCOMPARE(core.nbBytesReceived(2), 5);
    QCOMPARE(core.bytesWaiting(), 5u);
    QCOMPARE(core.log.count("_closeConnection: >>>> _closeConnection _totalBytesWaitingRead = 5"),
             1);
    QCOMPARE(core._socketStates.value(1, SocketState::OPENED), SocketState::CLOSED);
}

void PortClosingTest::aCloseCountsAMessageOnlyUpToItsFirstZeroByte()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    core.storeMessage(1, QByteArray("ab\0cdef", 7));
    core.storeMessage(1, "plain");
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.queuedMessages(1), 0);
    QCOMPARE(core.bytesWaiting(), 5u);
    QCOMPARE(core.log.count("_closeConnection: >>>> _closeConnection _totalBytesWaitingRead = 5"),
             1);
}

void PortClosingTest::aDisconnectedPortClearsTheExchangeOfTheMaximumSize()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1, 2}));
    const QString sent = "_connectedFunc: max read size message sent with value = 10000";
    QVERIFY(core.log.waitFor(sent));
    QVERIFY(core.driver->waitForWritten(core.driver->written().size() + 3));
    QCOMPARE(core.log.count(sent), 1);
    QVERIFY(core.closeConnection(1));
    QVERIFY(core.log.waitFor(sent, 2));
    core.peerDisconnected(2);
    QVERIFY(core.log.waitFor(sent, 3));
}

void PortClosingTest::theLastOpenPortForcesTheLinkDown_data()
{
    QTest::addColumn<bool>("driverInUse");
    QTest::addColumn<bool>("avoidsClosing");
    QTest::addColumn<bool>("otherPortOpen");
    QTest::addColumn<bool>("forcedBefore");
    QTest::addColumn<bool>("forced");
    QTest::newRow("last port") << true << true << false << false << true;
    QTest::newRow("no driver") << false << true << false << false << false;
    QTest::newRow("driver does not ask") << true << false << false << false << false;
    QTest::newRow("other port open") << true << true << true << false << false;
    QTest::newRow("forced before") << true << true << false << true << false;
}

void PortClosingTest::theLastOpenPortForcesTheLinkDown()
{
    QFETCH(bool, driverInUse);
    QFETCH(bool, avoidsClosing);
    QFETCH(bool, otherPortOpen);
    QFETCH(bool, forcedBefore);
    QFETCH(bool, forced);
    // The thread does not run: it would act on the request and clear it.
    PortsProbe core;
    core.configure();
    core.driver->setAvoidClosingDuringHandshake(avoidsClosing);
    core.locked([&](QMutexLocker &locker) {
        core._hwDriver = driverInUse ? core.driver.data() : nullptr;
        core._socketStates[1] = SocketState::DISCONNECTED;
        core._socketStates[2] = otherPortOpen ? SocketState::OPENED : SocketState::CLOSED;
        core._forceLowLevelDisconnection = forcedBefore;
        core._onDisconnected(1, locker);
    });
    QCOMPARE(core._forceLowLevelDisconnection, forced || forcedBefore);
    QCOMPARE(core.log.count("_onDisconnected: [USBHAL] force low-level disconnection"),
             forced ? 1 : 0);
}

void PortClosingTest::theForcedDisconnectionTakesTheLinkDown()
{
    PortsProbe core;
    core.driver->setAvoidClosingDuringHandshake(true);
    QVERIFY(core.connectPorts({1, 2}));
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.log.count("_onDisconnected: [USBHAL] force low-level disconnection"), 0);
    core.signalsSeen.take();
    QVERIFY(core.closeConnection(2));
    QVERIFY(core.log.waitFor("_connectedFunc: Disconnect cable disconnection detected : true"));
    QCOMPARE(core.log.count("_onDisconnected: [USBHAL] force low-level disconnection"), 1);
    QVERIFY(core.signalsSeen.waitFor("disconnected"));
    QCOMPARE(core.signalsSeen.all().mid(0, 4),
             QStringList({"disconnected(2)", "socketStateChanged(2,DISCONNECTED)",
                          "stateChanged(DISCONNECTED)", "disconnected"}));
}

void PortClosingTest::ofTwoThreadsThatCloseOnePortOneGetsError6_data()
{
    QTest::addColumn<QList<int>>("ports");
    QTest::newRow("the only port") << QList<int>({1});
    QTest::newRow("one of two ports") << QList<int>({1, 2});
}

void PortClosingTest::ofTwoThreadsThatCloseOnePortOneGetsError6()
{
    QFETCH(QList<int>, ports);
    PortsProbe core;
    QVERIFY(connectWithBlockedWrites(core, ports));
    // Both closes wait for this message at the same time.
    QCOMPARE(core.write(1, "stuck"), 5);
    core.signalsSeen.take();
    std::atomic<int> closed{0};
    const auto close = [&] { closed += core.closeConnection(1) ? 1 : 0; };
    std::thread first(close);
    std::thread second(close);
    first.join();
    second.join();
    QCOMPARE(closed.load(), 1);
    QCOMPARE(core.signalsSeen.count("error(6,1)"), 1);
    QCOMPARE(core.signalsSeen.count("disconnected(1)"), 1);
    QCOMPARE(core.signalsSeen.count("socketStateChanged(1,DISCONNECTED)"), 1);
    QCOMPARE(core.nbClients(), static_cast<quint32>(ports.size() - 1));
    core.driver->releaseWrites();
}

QTEST_GUILESS_MAIN(PortClosingTest)
#include "tst_port_closing.moc"
