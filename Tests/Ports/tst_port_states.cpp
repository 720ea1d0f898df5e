// SPDX-License-Identifier: MIT
#include "PortsProbe.h"

namespace {

QStringList openedSignals(int port)
{
    const QString text = QString::number(port);
    return {"connected(" + text + ')', "socketStateChanged(" + text + ",OPENED)"};
}

QStringList disconnectedSignals(int port)
{
    const QString text = QString::number(port);
    return {"disconnected(" + text + ')', "socketStateChanged(" + text + ",DISCONNECTED)"};
}

QStringList linesWith(const PortsProbe &core, const QString &part)
{
    return core.log.lines().filter(part);
}

// What the core had written about a port when its signal went out.
struct SeenAtSignal
{
    QString signal;
    SocketState state;
    int logLines;
};

} // namespace

class PortStatesTest : public QObject
{
    Q_OBJECT

private slots:
    void aPortThatWasNeverOpenedIsClosed();
    void openingAnUnknownPortOpensIt();
    void openingAClosedPortOpensItAgain();
    void openingAPortThatThePeerCutOpensItWithoutAClose();
    void aReopenedPortThatThePeerCutCountsTwiceUntilItIsClosed();
    void aPeerDisconnectionCutsAnOpenPort();
    void aPeerDisconnectionLeavesOtherPortsAlone();
    void closingAnOpenPortSignalsDisconnectedAndLeavesItClosed_data();
    void closingAnOpenPortSignalsDisconnectedAndLeavesItClosed();
    void closingADisconnectedPortSignalsNothing_data();
    void closingADisconnectedPortSignalsNothing();
    void aLostLinkDisconnectsEveryOpenPort();
    void aLinkThatIsBackReopensOnlyDisconnectedPorts();
    void aLostLinkLeavesAPortAloneThatThePeerHadCut();
    void anyStateButOpenedIsTakenByEveryPortThatIsNotClosed();
    void theStateIsWrittenBeforeTheSignalsGoOut();
    void theLogLineOfAPortStandsBetweenItsTwoSignals();
    void openPortsAreCountedByState();
};

void PortStatesTest::aPortThatWasNeverOpenedIsClosed()
{
    PortsProbe core;
    QCOMPARE(core.socketStatus(3), SocketState::CLOSED);
    core.configure();
    QCOMPARE(core.socketStatus(3), SocketState::CLOSED);
    QVERIFY2(!core._socketStates.contains(3), "the look created an entry");
}

void PortStatesTest::openingAnUnknownPortOpensIt()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.signalsSeen.all(), openedSignals(1));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(core.nbClients(), 1u);
    QCOMPARE(core.log.count("_onConnected: socket #1CONNECTED"), 1);
}

void PortStatesTest::openingAClosedPortOpensItAgain()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(2));
    QVERIFY(core.closeConnection(2));
    core.signalsSeen.take();
    QVERIFY(core.openConnection(2));
    QCOMPARE(core.signalsSeen.all(), openedSignals(2));
    QCOMPARE(core.socketStatus(2), SocketState::OPENED);
    QCOMPARE(core.nbClients(), 1u);
}

void PortStatesTest::openingAPortThatThePeerCutOpensItWithoutAClose()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    core.peerDisconnected(1);
    core.signalsSeen.take();
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.signalsSeen.all(), openedSignals(1));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
}

void PortStatesTest::aReopenedPortThatThePeerCutCountsTwiceUntilItIsClosed()
{
    PortsProbe core;
    core.configureFor(2);
    QVERIFY(core.openConnection(1));
    core.peerDisconnected(1);
    QCOMPARE(core.nbClients(), 1u);
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.nbClients(), 2u);
    QVERIFY(!core.openConnection(2));
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.nbClients(), 1u);
    QVERIFY(core.openConnection(2));
}

void PortStatesTest::aPeerDisconnectionCutsAnOpenPort()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(4));
    core.signalsSeen.take();
    core.peerDisconnected(4);
    QCOMPARE(core.signalsSeen.all(), disconnectedSignals(4));
    QCOMPARE(core.socketStatus(4), SocketState::DISCONNECTED);
    QCOMPARE(core.nbClients(), 1u);
    QCOMPARE(core.log.count("_onDisconnected: socket #4DISCONNECTED"), 1);
    QCOMPARE(core.log.count("_onDisconnected: 0 messages removed from Write FIFO for port 4"), 1);
}

void PortStatesTest::aPeerDisconnectionLeavesOtherPortsAlone()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    QVERIFY(core.openConnection(2));
    QVERIFY(core.closeConnection(2));
    core.peerDisconnected(1);
    core.signalsSeen.take();
    core.peerDisconnected(1);
    core.peerDisconnected(2);
    core.peerDisconnected(3);
    QCOMPARE(core.signalsSeen.all(), QStringList());
    QCOMPARE(core.socketStatus(1), SocketState::DISCONNECTED);
    QCOMPARE(core.socketStatus(2), SocketState::CLOSED);
    QVERIFY2(!core._socketStates.contains(3), "an unknown port got an entry");
}

void PortStatesTest::closingAnOpenPortSignalsDisconnectedAndLeavesItClosed_data()
{
    QTest::addColumn<bool>("fromHost");
    QTest::newRow("closeConnection") << false;
    QTest::newRow("disconnectFromHost") << true;
}

void PortStatesTest::closingAnOpenPortSignalsDisconnectedAndLeavesItClosed()
{
    QFETCH(bool, fromHost);
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    core.signalsSeen.take();
    const int before = core.log.lines().size();
    if (fromHost)
        core.disconnectFromHost(1);
    else
        QVERIFY(core.closeConnection(1));
    QCOMPARE(core.signalsSeen.all(), disconnectedSignals(1));
    QCOMPARE(core.socketStatus(1), SocketState::CLOSED);
    QCOMPARE(core.nbClients(), 0u);
    QStringList expected = {
        fromHost ? "disconnectFromHost: Disconnect 1 from host"
                 : "closeConnection: closeConnection on port 1",
        "_closeConnection: >>>> _closeConnection _totalBytesWaitingRead = 0",
        "_onDisconnected: socket #1DISCONNECTED",
        "_onDisconnected: 0 messages removed from Write FIFO for port 1",
        "_closeConnection: port #1 has been CLOSED",
    };
    if (fromHost)
        expected.append("disconnectFromHost: 1 is now closed");
    QCOMPARE(core.log.lines().mid(before), expected);
}

void PortStatesTest::closingADisconnectedPortSignalsNothing_data()
{
    closingAnOpenPortSignalsDisconnectedAndLeavesItClosed_data();
}

void PortStatesTest::closingADisconnectedPortSignalsNothing()
{
    QFETCH(bool, fromHost);
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    core.peerDisconnected(1);
    core.signalsSeen.take();
    if (fromHost)
        core.disconnectFromHost(1);
    else
        QVERIFY(core.closeConnection(1));
    QCOMPARE(core.signalsSeen.all(), QStringList());
    QCOMPARE(core.socketStatus(1), SocketState::CLOSED);
    QCOMPARE(core.nbClients(), 0u);
    QCOMPARE(core.log.count("_closeConnection: port #1 has been CLOSED"), 1);
}

void PortStatesTest::aLostLinkDisconnectsEveryOpenPort()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1, 2, 3}));
    QVERIFY(core.closeConnection(2));
    core.signalsSeen.take();
    QVERIFY(core.loseLink());
    const QStringList seen = core.signalsSeen.all();
    QCOMPARE(seen.mid(0, 2), QStringList({"stateChanged(DISCONNECTED)", "disconnected"}));
    // The ports follow one after the other, in the order of the hash.
    const QStringList ports = seen.mid(2);
    QVERIFY2(ports == disconnectedSignals(1) + disconnectedSignals(3) ||
                 ports == disconnectedSignals(3) + disconnectedSignals(1),
             qPrintable(ports.join(' ')));
    QCOMPARE(core.socketStatus(1), SocketState::DISCONNECTED);
    QCOMPARE(core.socketStatus(2), SocketState::CLOSED);
    QCOMPARE(core.socketStatus(3), SocketState::DISCONNECTED);
    QCOMPARE(core.nbClients(), 2u);
    QCOMPARE(core.log.count("_changeAllSocketsState: emit disconnected"), 2);
    QCOMPARE(linesWith(core, "socket #2DISCONNECTED").size(), 1);
}

void PortStatesTest::aLinkThatIsBackReopensOnlyDisconnectedPorts()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1, 2, 3}));
    QVERIFY(core.closeConnection(2));
    QVERIFY(core.loseLink());
    QVERIFY(core.openConnection(4));
    core.signalsSeen.take();
    core.driver->failReads(0);
    QTRY_VERIFY(!core.isHandshaking());
    const QStringList seen = core.signalsSeen.all();
    QCOMPARE(seen.mid(0, 2), QStringList({"stateChanged(CONNECTED)", "connected"}));
    const QStringList ports = seen.mid(2);
    QVERIFY2(ports == openedSignals(1) + openedSignals(3) ||
                 ports == openedSignals(3) + openedSignals(1),
             qPrintable(ports.join(' ')));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(core.socketStatus(2), SocketState::CLOSED);
    QCOMPARE(core.socketStatus(3), SocketState::OPENED);
    QCOMPARE(core.nbClients(), 3u);
}

void PortStatesTest::aLostLinkLeavesAPortAloneThatThePeerHadCut()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1}));
    core.peerDisconnected(1);
    core.signalsSeen.take();
    QVERIFY(core.loseLink());
    QCOMPARE(core.signalsSeen.take(), QStringList({"stateChanged(DISCONNECTED)", "disconnected"}));
    QCOMPARE(core.log.count("_changeAllSocketsState: emit disconnected"), 0);
    core.driver->failReads(0);
    QTRY_VERIFY(!core.isHandshaking());
    QCOMPARE(core.signalsSeen.all(),
             QStringList({"stateChanged(CONNECTED)", "connected"}) + openedSignals(1));
}

void PortStatesTest::anyStateButOpenedIsTakenByEveryPortThatIsNotClosed()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    QVERIFY(core.openConnection(2));
    core.peerDisconnected(2);
    core.signalsSeen.take();
    core.locked(
        [&](QMutexLocker &locker) { core._changeAllSocketsState(SocketState::CLOSED, locker); });
    QStringList seen = core.signalsSeen.all();
    QStringList expected = disconnectedSignals(1) + disconnectedSignals(2);
    seen.sort();
    expected.sort();
    QCOMPARE(seen, expected);
    QCOMPARE(core.socketStatus(1), SocketState::CLOSED);
    QCOMPARE(core.socketStatus(2), SocketState::CLOSED);
}

void PortStatesTest::theStateIsWrittenBeforeTheSignalsGoOut()
{
    PortsProbe core;
    QMutex mutex;
    QList<SeenAtSignal> seen;
    core.signalsSeen.setHandler([&](const QString &signal) {
        const SocketState state = core.socketStatus(1);
        const QMutexLocker locker(&mutex);
        seen.append({signal, state, 0});
    });
    QVERIFY(core.connectPorts({1}));
    QVERIFY(core.loseLink());
    core.driver->failReads(0);
    QTRY_VERIFY(!core.isHandshaking());
    QVERIFY(core.closeConnection(1));
    core.signalsSeen.setHandler({});
    const auto statesAt = [&](const QString &signal) {
        QList<SocketState> states;
        for (const SeenAtSignal &at : qAsConst(seen)) {
            if (at.signal == signal)
                states.append(at.state);
        }
        return states;
    };
    const QList<SocketState> opened = {SocketState::OPENED, SocketState::OPENED};
    const QList<SocketState> lostAndClosed = {SocketState::DISCONNECTED, SocketState::CLOSED};
    QCOMPARE(statesAt("connected(1)"), opened);
    QCOMPARE(statesAt("socketStateChanged(1,OPENED)"), opened);
    QCOMPARE(statesAt("disconnected(1)"), lostAndClosed);
    QCOMPARE(statesAt("socketStateChanged(1,DISCONNECTED)"), lostAndClosed);
}

void PortStatesTest::theLogLineOfAPortStandsBetweenItsTwoSignals()
{
    PortsProbe core;
    core.configure();
    QList<SeenAtSignal> seen;
    core.signalsSeen.setHandler([&](const QString &signal) {
        seen.append({signal, SocketState::CLOSED, linesWith(core, "socket #1").size()});
    });
    QVERIFY(core.openConnection(1));
    core.peerDisconnected(1);
    core.signalsSeen.setHandler({});
    QList<int> lines;
    for (const SeenAtSignal &at : qAsConst(seen))
        lines.append(at.logLines);
    QCOMPARE(core.signalsSeen.all(), openedSignals(1) + disconnectedSignals(1));
    QCOMPARE(lines, QList<int>({0, 1, 1, 2}));
}

void PortStatesTest::openPortsAreCountedByState()
{
    PortsProbe core;
    core.configure();
    const auto portsOpened = [&] {
        return core.locked([&](QMutexLocker &) { return core._nbPortsOpened(); });
    };
    QCOMPARE(portsOpened(), 0u);
    for (const int port : {1, 2, 3})
        QVERIFY(core.openConnection(port));
    QCOMPARE(portsOpened(), 3u);
    core.peerDisconnected(1);
    QVERIFY(core.closeConnection(2));
    QCOMPARE(portsOpened(), 1u);
    QCOMPARE(core.nbClients(), 2u);
}

QTEST_GUILESS_MAIN(PortStatesTest)
#include "tst_port_states.moc"
