// SPDX-License-Identifier: MIT
#include "PortsProbe.h"

#include <atomic>
#include <limits>
#include <new>

namespace {

std::atomic<bool> memoryExhausted{false};

} // namespace

// The read queue of a port is all that the library allocates in this way.
void *operator new(std::size_t size, const std::nothrow_t & /*tag*/) noexcept
{
    if (memoryExhausted)
        return nullptr;
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

class PortOpeningTest : public QObject
{
    Q_OBJECT

private slots:
    void asManyPortsOpenAsTheLimitAllows_data();
    void asManyPortsOpenAsTheLimitAllows();
    void anOpenPortCannotBeOpenedAgain();
    void anOpenPortIsReportedBeforeTheLimit();
    void nothingOpensBeforeTheConfiguration();
    void anOpenBeforeTheConfigurationEmptiesTheQueues();
    void nothingOpensOnceTheCoreIsRetired();
    void aPortWithoutMemoryForItsQueueStaysClosed();
    void aPortThatHadNoMemoryOpensLater();
    void theFirstOpenStartsTheCommunication();
    void theFirstOpenEmptiesTheQueues();
    void aFurtherOpenKeepsTheQueuesOfOtherPorts();
    void closingTheLastPortDoesNotStopTheCommunication();
    void anOpenAfterAStopStartsTheCommunicationAgain();
    void reopeningEmptiesTheReadQueue();
    void reopeningCountsAMessageOnlyUpToItsFirstZeroByte();
    void anyNumberNamesAPort_data();
    void anyNumberNamesAPort();
};

void PortOpeningTest::asManyPortsOpenAsTheLimitAllows_data()
{
    QTest::addColumn<quint32>("maxClients");
    QTest::addColumn<int>("limit");
    QTest::newRow("none given") << 0u << 5;
    QTest::newRow("one") << 1u << 1;
    QTest::newRow("three") << 3u << 3;
    QTest::newRow("five") << 5u << 5;
    QTest::newRow("six") << 6u << 5;
    QTest::newRow("nine") << 9u << 5;
}

void PortOpeningTest::asManyPortsOpenAsTheLimitAllows()
{
    QFETCH(quint32, maxClients);
    QFETCH(int, limit);
    PortsProbe core;
    core.configureFor(maxClients);
    for (int port = 1; port <= limit; ++port)
        QVERIFY(core.openConnection(port));
    core.signalsSeen.take();
    const int next = limit + 1;
    QVERIFY(!core.openConnection(next));
    QCOMPARE(core.signalsSeen.all(), QStringList("error(5," + QString::number(next) + ')'));
    QCOMPARE(
        core.log.count("_onError: Too many clients connected ! Param = " + QString::number(next)),
        1);
    QCOMPARE(core.socketStatus(next), SocketState::CLOSED);
    QCOMPARE(core.nbClients(), static_cast<quint32>(limit));
    QVERIFY(core.closeConnection(1));
    QVERIFY(core.openConnection(next));
}

void PortOpeningTest::anOpenPortCannotBeOpenedAgain()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(3));
    core.storeMessage(3, "kept");
    core.signalsSeen.take();
    QVERIFY(!core.openConnection(3));
    QCOMPARE(core.signalsSeen.all(), QStringList("error(4,3)"));
    QCOMPARE(core.log.count("_onError: Tried to open a port already opened ! Param = 3"), 1);
    QCOMPARE(core.socketStatus(3), SocketState::OPENED);
    QCOMPARE(core.nbClients(), 1u);
    QCOMPARE(core.queuedMessages(3), 1);
    QCOMPARE(core.bytesWaiting(), 4u);
    QCOMPARE(core.log.count("openConnection: opening driver"), 2);
}

void PortOpeningTest::anOpenPortIsReportedBeforeTheLimit()
{
    PortsProbe core;
    core.configureFor(1);
    QVERIFY(core.openConnection(3));
    core.signalsSeen.take();
    QVERIFY(!core.openConnection(3));
    QCOMPARE(core.signalsSeen.all(), QStringList("error(4,3)"));
}

void PortOpeningTest::nothingOpensBeforeTheConfiguration()
{
    PortsProbe core;
    QVERIFY(UsbHalLog::getInstance()->open(core.log.folder(), "UsbHal"));
    QVERIFY(!core.openConnection(2));
    QCOMPARE(core.signalsSeen.all(), QStringList("error(7,2)"));
    QCOMPARE(core.log.lines(),
             QStringList({"openConnection: opening driver", "_onError: Driver not initialized !"}));
    QCOMPARE(core.socketStatus(2), SocketState::CLOSED);
    QCOMPARE(core.nbClients(), 0u);
    QVERIFY(!core.isRunning());
    QCOMPARE(core.driver->opens(), 0);
    core.configure();
    QVERIFY(core.openConnection(2));
}

void PortOpeningTest::nothingOpensOnceTheCoreIsRetired()
{
    PortsProbe core;
    QVERIFY(core.connectLink());
    core.retire();
    QVERIFY(!core.isRunning());
    QVERIFY(core.closeConnection(1));
    core.signalsSeen.take();
    QVERIFY(!core.openConnection(1));
    QCOMPARE(core.signalsSeen.all(), QStringList("error(7,1)"));
    QVERIFY(!core.isRunning());
}

void PortOpeningTest::anOpenBeforeTheConfigurationEmptiesTheQueues()
{
    PortsProbe core;
    core._writeFifo.append("FADA000050003x");
    core._readQueues[1].reset(new PortsProbe::ReadQueue);
    core._readQueues[1]->enqueue("left over");
    core._totalBytesWaitingRead = 9;
    QVERIFY(!core.openConnection(1));
    QCOMPARE(core.signalsSeen.all(), QStringList("error(7,1)"));
    QCOMPARE(core.bytesToWrite(), 0);
    QCOMPARE(core.nbBytesReceived(1), 0);
    QCOMPARE(core.bytesWaiting(), 0u);
}

void PortOpeningTest::aPortWithoutMemoryForItsQueueStaysClosed()
{
    PortsProbe core;
    core.configure();
    memoryExhausted = true;
    const bool opened = core.openConnection(1);
    memoryExhausted = false;
    QVERIFY(!opened);
    QCOMPARE(core.signalsSeen.all(), QStringList("error(3,0)"));
    QCOMPARE(core.log.count("_onError: Could not allocate memory ! Param = 0"), 1);
    QCOMPARE(core.socketStatus(1), SocketState::CLOSED);
    QCOMPARE(core.nbClients(), 0u);
}

void PortOpeningTest::aPortThatHadNoMemoryOpensLater()
{
    PortsProbe core;
    core.configure();
    memoryExhausted = true;
    const bool opened = core.openConnection(1);
    memoryExhausted = false;
    QVERIFY(!opened);
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.queuedMessages(1), 0);
    QCOMPARE(core.log.lines().filter("_totalBytesWaitingRead").size(), 0);
    QCOMPARE(core.nbClients(), 1u);
}

void PortOpeningTest::theFirstOpenStartsTheCommunication()
{
    PortsProbe core;
    core.configure();
    QVERIFY(!core.isRunning());
    QVERIFY(core.openConnection(1));
    QVERIFY(core.isRunning());
    QVERIFY(core.driver->waitForReads(1));
    QCOMPARE(core.driver->opens(), 1);
    QVERIFY(core.openConnection(2));
    const QStringList lines = core.log.lines().filter("openConnection: ");
    QCOMPARE(lines, QStringList({"openConnection: opening driver",
                                 "openConnection: start communication thread",
                                 "openConnection: opening driver"}));
    QCOMPARE(core.driver->opens(), 1);
}

void PortOpeningTest::theFirstOpenEmptiesTheQueues()
{
    PortsProbe core;
    core.configure();
    core._writeFifo.append("FADA000050003x");
    core._readQueues[2].reset(new PortsProbe::ReadQueue);
    core._readQueues[2]->enqueue("left over");
    core._totalBytesWaitingRead = 9;
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.bytesToWrite(), 0);
    QCOMPARE(core.nbBytesReceived(2), 0);
    QCOMPARE(core.bytesWaiting(), 0u);
}

void PortOpeningTest::aFurtherOpenKeepsTheQueuesOfOtherPorts()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    core.storeMessage(1, "waiting");
    QVERIFY(core.openConnection(2));
    QCOMPARE(core.nbBytesReceived(1), 7);
    QCOMPARE(core.bytesWaiting(), 7u);
}

void PortOpeningTest::closingTheLastPortDoesNotStopTheCommunication()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1}));
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.nbClients(), 0u);
    QVERIFY(core.driver->waitForReads(core.driver->reads() + 3));
    QVERIFY(core.isRunning());
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.log.count("openConnection: start communication thread"), 1);
}

void PortOpeningTest::anOpenAfterAStopStartsTheCommunicationAgain()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1}));
    core.stop();
    QVERIFY(!core.isRunning());
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QVERIFY(core.openConnection(2));
    QVERIFY(core.waitForConnected(5000));
    QCOMPARE(core.log.count("openConnection: start communication thread"), 2);
    QCOMPARE(core.driver->opens(), 2);
}

void PortOpeningTest::reopeningEmptiesTheReadQueue()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    QVERIFY(core.openConnection(2));
    core.storeMessage(1, "abc");
    core.storeMessage(1, "de");
    core.storeMessage(2, "other");
    core.peerDisconnected(1);
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.queuedMessages(1), 0);
    QCOMPARE(core.nbBytesReceived(2), 5);
    QCOMPARE(core.bytesWaiting(), 5u);
    QCOMPARE(core.log.count("openConnection: >>>> openConnection _totalBytesWaitingRead = 5"), 1);
}

void PortOpeningTest::reopeningCountsAMessageOnlyUpToItsFirstZeroByte()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    core.storeMessage(1, QByteArray("ab\0cdef", 7));
    core.storeMessage(1, QByteArray("\0xyz", 4));
    core.storeMessage(1, "plain");
    QCOMPARE(core.bytesWaiting(), 16u);
    core.peerDisconnected(1);
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.queuedMessages(1), 0);
    QCOMPARE(core.bytesWaiting(), 9u);
    QCOMPARE(core.log.count("openConnection: >>>> openConnection _totalBytesWaitingRead = 9"), 1);
}

void PortOpeningTest::anyNumberNamesAPort_data()
{
    QTest::addColumn<int>("port");
    QTest::newRow("zero") << 0;
    QTest::newRow("the largest of the wire") << 9999;
    QTest::newRow("beyond the wire") << 10000;
    QTest::newRow("negative") << -1;
    QTest::newRow("smallest") << std::numeric_limits<int>::min();
}

void PortOpeningTest::anyNumberNamesAPort()
{
    QFETCH(int, port);
    PortsProbe core;
    core.configure();
    const QString text = QString::number(port);
    QVERIFY(core.openConnection(port));
    QVERIFY(!core.openConnection(port));
    QVERIFY(core.closeConnection(port));
    QCOMPARE(core.signalsSeen.all(),
             QStringList({"connected(" + text + ')', "socketStateChanged(" + text + ",OPENED)",
                          "error(4," + text + ')', "disconnected(" + text + ')',
                          "socketStateChanged(" + text + ",DISCONNECTED)"}));
}

QTEST_GUILESS_MAIN(PortOpeningTest)
#include "tst_port_opening.moc"
