// SPDX-License-Identifier: MIT
#include "FacadeFixture.h"

#include <thread>

class FacadeOperationsTest : public QObject
{
    Q_OBJECT

private slots:
    void operationsBeforeTheConfigurationReachTheCore();
    void textsAndDefaultsReachTheCore();
    void portOperationsReachTheCore();
    void linkOperationsReachTheCore();
    void writingOperationsReachTheCore();
    void readingOperationsReachTheCore();
    void waitingOperationsReachTheCore();
    void stoppingReachesTheCore();
    void theSignalsOfALinkArriveInTheirOrder();
    void handlersMayCallTheFacadeBack();
};

void FacadeOperationsTest::operationsBeforeTheConfigurationReachTheCore()
{
    FacadeFixture fixture;
    UsbHALIntf *const facade = fixture.facade;
    QVERIFY(!facade->isHost());
    QCOMPARE(facade->status(), DriverState::DISCONNECTED);
    QCOMPARE(facade->socketStatus(1), SocketState::CLOSED);
    QCOMPARE(facade->driverName(), QString());
    QCOMPARE(facade->nbClients(), 0u);
    QCOMPARE(facade->getMaxWriteSize(), 0);
    QVERIFY(!facade->isRunning());
    QVERIFY(!facade->openConnection(1));
    QCOMPARE(fixture.signalsSeen.all(), QStringList("error(7,1)"));
    QVERIFY(!facade->isRunning());
    QVERIFY(facade->setupConfig(fixture.testSetup()));
    QVERIFY(facade->setupConfig(ParamHal()));
    QVERIFY(facade->openConnection(1));
    QVERIFY(facade->isRunning());
}

void FacadeOperationsTest::textsAndDefaultsReachTheCore()
{
    FacadeFixture fixture;
    ParamHal param;
    param.maxClients = 3;
    fixture.facade->getDefaultSetup(param);
    QCOMPARE(param.maxReadSize, 10000u);
    QCOMPARE(param.threadStopTimeout, 2500u);
    QCOMPARE(param.maxClients, 3u);
    QCOMPARE(fixture.facade->getErrorStr(10), "Buffer overflow !");
    QCOMPARE(fixture.facade->getErrorStr(11), "");
    QCOMPARE(fixture.facade->getSocketStateStr(SocketState::OPENED), QString("OPENED"));
    QCOMPARE(fixture.facade->getSocketStateStr(static_cast<SocketState>(3)), QString());
}

void FacadeOperationsTest::portOperationsReachTheCore()
{
    FacadeFixture fixture;
    UsbHALIntf *const facade = fixture.facade;
    QVERIFY(fixture.configure());
    QVERIFY(facade->openConnection(1));
    QVERIFY(facade->openConnection(2));
    QCOMPARE(facade->nbClients(), 2u);
    QCOMPARE(facade->socketStatus(1), SocketState::OPENED);
    facade->peerDisconnected(1);
    QCOMPARE(facade->socketStatus(1), SocketState::DISCONNECTED);
    QVERIFY(facade->closeConnection(1));
    QVERIFY(!facade->closeConnection(1));
    QCOMPARE(facade->socketStatus(1), SocketState::CLOSED);
    facade->disconnectFromHost(2);
    QCOMPARE(facade->socketStatus(2), SocketState::CLOSED);
    QCOMPARE(facade->nbClients(), 0u);
    QCOMPARE(fixture.signalsSeen.all(),
             QStringList({"connected(1)", "socketStateChanged(1,OPENED)", "connected(2)",
                          "socketStateChanged(2,OPENED)", "disconnected(1)",
                          "socketStateChanged(1,DISCONNECTED)", "error(6,1)", "disconnected(2)",
                          "socketStateChanged(2,DISCONNECTED)"}));
}

void FacadeOperationsTest::linkOperationsReachTheCore()
{
    FacadeFixture fixture;
    UsbHALIntf *const facade = fixture.facade;
    QVERIFY(!facade->waitForConnected(0));
    QVERIFY(facade->waitForDisconnected(0));
    QVERIFY(fixture.connectPorts({1}));
    QCOMPARE(facade->status(), DriverState::CONNECTED);
    QVERIFY(facade->waitForConnected(0));
    QVERIFY(!facade->waitForDisconnected(0));
    QVERIFY(facade->isRunning());
    QCOMPARE(facade->driverName(), QString("/dev/brn7200"));
    QCOMPARE(facade->getMaxWriteSize(), 10000 - 13);
    // The watchdog cannot be switched: the link goes on either way.
    facade->watchdog(false);
    facade->watchdog(true);
    QVERIFY(facade->isRunning());
    QCOMPARE(facade->status(), DriverState::CONNECTED);
}

void FacadeOperationsTest::writingOperationsReachTheCore()
{
    FacadeFixture fixture;
    UsbHALIntf *const facade = fixture.facade;
    QVERIFY(fixture.connectPorts({1}));
    QVERIFY(fixture.host.pause());
    QCOMPARE(facade->write(1, "first "), 6);
    QCOMPARE(facade->write(1, "second"), 6);
    QCOMPARE(facade->write(2, "lost"), 0);
    QCOMPARE(facade->bytesToWrite(), 2);
    facade->flush(1);
    QCOMPARE(facade->bytesToWrite(), 2);
    fixture.host.resume();
    QVERIFY(fixture.host.waitForReceived(1, "first second"));
    QTRY_COMPARE(facade->bytesToWrite(), 0);
    facade->flush(60000);
}

void FacadeOperationsTest::readingOperationsReachTheCore()
{
    FacadeFixture fixture;
    UsbHALIntf *const facade = fixture.facade;
    QVERIFY(fixture.connectPorts({1}));
    QCOMPARE(facade->nbBytesReceived(1), 0);
    QCOMPARE(facade->peek(1, 10), QByteArray());
    QCOMPARE(facade->read(1, 10), QByteArray());
    fixture.host.send(1, "from the host");
    QVERIFY(fixture.signalsSeen.waitFor("readyRead(1)"));
    QCOMPARE(facade->nbBytesReceived(1), 13);
    QCOMPARE(facade->peek(1, 4), QByteArray("from"));
    QCOMPARE(facade->readAll(1), QByteArray());
    QCOMPARE(facade->read(1, 5), QByteArray("from "));
    QCOMPARE(facade->nbBytesReceived(1), 8);
    QCOMPARE(facade->read(1, 100), QByteArray("the host"));
    QCOMPARE(facade->nbBytesReceived(1), 0);
}

void FacadeOperationsTest::waitingOperationsReachTheCore()
{
    FacadeFixture fixture;
    UsbHALIntf *const facade = fixture.facade;
    QVERIFY(!facade->waitForReadyRead(1, 20000));
    QVERIFY(fixture.connectPorts({1}));
    QVERIFY(!facade->waitForReadyRead(1, 1));
    fixture.host.send(1, "x");
    QVERIFY(facade->waitForReadyRead(1, 20000));
    fixture.host.unplug();
    QVERIFY(facade->waitForDisconnected(40000));
}

void FacadeOperationsTest::stoppingReachesTheCore()
{
    FacadeFixture fixture;
    QVERIFY(fixture.connectPorts({1}));
    fixture.facade->stop();
    QVERIFY(!fixture.facade->isRunning());
    QCOMPARE(fixture.facade->status(), DriverState::DISCONNECTED);
    QCOMPARE(fixture.facade->socketStatus(1), SocketState::OPENED);
}

void FacadeOperationsTest::theSignalsOfALinkArriveInTheirOrder()
{
    FacadeFixture fixture;
    QVERIFY(fixture.connectPorts({1}));
    fixture.host.send(1, "x");
    QVERIFY(fixture.signalsSeen.waitFor("readyRead(1)"));
    fixture.host.unplug();
    QVERIFY(fixture.signalsSeen.waitFor("socketStateChanged(1,DISCONNECTED)", 1, 40000));
    QVERIFY(!fixture.facade->closeConnection(2));
    QCOMPARE(fixture.signalsSeen.all(),
             QStringList({"connected(1)", "socketStateChanged(1,OPENED)", "stateChanged(CONNECTED)",
                          "connected", "readyRead(1)", "stateChanged(DISCONNECTED)", "disconnected",
                          "disconnected(1)", "socketStateChanged(1,DISCONNECTED)", "error(6,2)"}));
}

void FacadeOperationsTest::handlersMayCallTheFacadeBack()
{
    FacadeFixture fixture;
    UsbHALIntf *const facade = fixture.facade;
    fixture.signalsSeen.setHandler([facade](const QString &signal) {
        if (signal == "readyRead(1)")
            facade->write(1, facade->read(1, 100).toUpper());
    });
    QVERIFY(fixture.connectPorts({1}));
    fixture.host.send(1, "echo");
    QVERIFY(fixture.host.waitForReceived(1, "ECHO"));
    fixture.signalsSeen.setHandler({});
}

QTEST_GUILESS_MAIN(FacadeOperationsTest)
#include "tst_facade_operations.moc"
