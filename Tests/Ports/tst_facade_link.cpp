// SPDX-License-Identifier: MIT
#include "FacadeFixture.h"

#include <WireMessages.h>

namespace {

constexpr int lossTimeout = 40000; // ms; a silent read of the node takes up to three seconds

// Sends bytes from the device and from the host over every port at once; the bytes that the host
// received in earlier exchanges stand in before.
bool exchange(FacadeFixture &fixture, const QList<int> &ports, int size,
              const QHash<int, QByteArray> &before = {})
{
    for (const int port : ports) {
        if (fixture.facade->write(port, patternBytes(size, port)) != size)
            return false;
        fixture.host.send(port, patternBytes(size, port + 100));
    }
    QHash<int, QByteArray> received;
    for (const int port : ports) {
        const bool complete = QTest::qWaitFor(
            [&] {
                received[port] += fixture.facade->read(port, 1000000);
                return received[port].size() >= size;
            },
            20000);
        if (!complete || received[port] != patternBytes(size, port + 100))
            return false;
    }
    for (const int port : ports) {
        if (!fixture.host.waitForReceived(port, before.value(port) + patternBytes(size, port)))
            return false;
    }
    return true;
}

} // namespace

class FacadeLinkTest : public QObject
{
    Q_OBJECT

private slots:
    void bytesTravelBothWays();
    void fivePortsCarryBytesAtOnce();
    void theLinkRecoversAfterTheCableWasOut();
    void aHostThatRestartsFindsTheLinkStillUp();
    void aPortThatTheHostReopensIsOpenAgain();
    void aNodeThatAppearsLaterIsOpened();
    void theCommunicationStartsAgainAfterAStop();
    void aLinkThatIsUsedFromTheStartNeedsNoEventLoop();
};

void FacadeLinkTest::bytesTravelBothWays()
{
    FacadeFixture fixture;
    QVERIFY(fixture.connectPorts({3}));
    QVERIFY(exchange(fixture, {3}, 1000));
}

void FacadeLinkTest::fivePortsCarryBytesAtOnce()
{
    FacadeFixture fixture;
    const QList<int> ports = {1, 2, 3, 4, 5};
    QVERIFY(fixture.connectPorts(ports));
    QVERIFY(exchange(fixture, ports, 60000));
    QCOMPARE(fixture.facade->nbClients(), 5u);
    QVERIFY(!fixture.facade->openConnection(6));
}

void FacadeLinkTest::theLinkRecoversAfterTheCableWasOut()
{
    FacadeFixture fixture;
    QVERIFY(fixture.connectPorts({1, 2}));
    QVERIFY(exchange(fixture, {1, 2}, 500));
    QVERIFY(fixture.command("cable out"));
    QVERIFY(fixture.signalsSeen.waitFor("disconnected", 1, lossTimeout));
    QTRY_COMPARE(fixture.facade->socketStatus(1), SocketState::DISCONNECTED);
    QTRY_COMPARE(fixture.facade->socketStatus(2), SocketState::DISCONNECTED);
    QCOMPARE(fixture.facade->write(1, "lost"), 0);
    QVERIFY(fixture.command("cable in"));
    QVERIFY(fixture.signalsSeen.waitFor("connected", 2, lossTimeout));
    QTRY_COMPARE(fixture.facade->socketStatus(1), SocketState::OPENED);
    QTRY_COMPARE(fixture.facade->socketStatus(2), SocketState::OPENED);
    const QHash<int, QByteArray> before = {{1, fixture.host.received(1)},
                                           {2, fixture.host.received(2)}};
    QVERIFY(exchange(fixture, {1, 2}, 500, before));
}

void FacadeLinkTest::aHostThatRestartsFindsTheLinkStillUp()
{
    FacadeFixture fixture;
    QVERIFY(fixture.connectPorts({1}));
    fixture.signalsSeen.take();
    fixture.host.unplug();
    fixture.host.plugIn();
    QTRY_VERIFY_WITH_TIMEOUT(fixture.host.isEstablished(), 20000);
    QVERIFY(exchange(fixture, {1}, 500));
    QCOMPARE(fixture.signalsSeen.all().filter("stateChanged(").size(), 0);
}

void FacadeLinkTest::aPortThatTheHostReopensIsOpenAgain()
{
    FacadeFixture fixture;
    QVERIFY(fixture.connectPorts({1}));
    fixture.facade->peerDisconnected(1);
    QCOMPARE(fixture.facade->socketStatus(1), SocketState::DISCONNECTED);
    fixture.host.announceReopened(1);
    QVERIFY(fixture.signalsSeen.waitFor("readyRead(1)"));
    QCOMPARE(fixture.facade->socketStatus(1), SocketState::OPENED);
    QCOMPARE(fixture.facade->read(1, 100), QByteArray("DEVICE_CONN"));
    QVERIFY(exchange(fixture, {1}, 500));
}

void FacadeLinkTest::aNodeThatAppearsLaterIsOpened()
{
    FacadeFixture fixture;
    QVERIFY(fixture.command("node missing"));
    QVERIFY(fixture.configure());
    QVERIFY(fixture.facade->openConnection(1));
    fixture.host.plugIn();
    QTRY_VERIFY(std::stoi(fixture.node.statusValue("opens")) > 2);
    QCOMPARE(fixture.facade->status(), DriverState::DISCONNECTED);
    QVERIFY(fixture.facade->isRunning());
    QVERIFY(fixture.command("node present"));
    QVERIFY(fixture.facade->waitForConnected(20000));
    QVERIFY(exchange(fixture, {1}, 500));
}

void FacadeLinkTest::theCommunicationStartsAgainAfterAStop()
{
    FacadeFixture fixture;
    QVERIFY(fixture.connectPorts({1}));
    QVERIFY(exchange(fixture, {1}, 500));
    fixture.facade->stop();
    QVERIFY(!fixture.facade->isRunning());
    fixture.host.unplug();
    QVERIFY(fixture.facade->closeConnection(1));
    QVERIFY(fixture.facade->openConnection(1));
    fixture.host.plugIn();
    QVERIFY(fixture.facade->waitForConnected(20000));
    QVERIFY(exchange(fixture, {1}, 500, {{1, fixture.host.received(1)}}));
    // The configured read time-out reached the node at its second open.
    QCOMPARE(fixture.node.statusValue("read_timeout"), std::string("200"));
}

void FacadeLinkTest::aLinkThatIsUsedFromTheStartNeedsNoEventLoop()
{
    // Nothing in here runs the event loop: only waits of the facade and of the host.
    FacadeFixture fixture;
    QVERIFY(fixture.configure());
    QVERIFY(fixture.facade->openConnection(1));
    fixture.host.plugIn();
    QVERIFY(fixture.facade->waitForConnected(20000));
    fixture.host.send(1, "to the device");
    QVERIFY(fixture.facade->waitForReadyRead(1, 20000));
    QCOMPARE(fixture.facade->read(1, 100), QByteArray("to the device"));
    QCOMPARE(fixture.facade->write(1, "to the host"), 11);
    QVERIFY(fixture.host.waitForReceived(1, "to the host"));
    QVERIFY(fixture.facade->closeConnection(1));
    fixture.facade->stop();
    QVERIFY(!fixture.facade->isRunning());
}

QTEST_GUILESS_MAIN(FacadeLinkTest)
#include "tst_facade_link.moc"
