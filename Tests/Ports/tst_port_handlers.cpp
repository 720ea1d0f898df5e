// SPDX-License-Identifier: MIT
#include "PortsProbe.h"

#include <QRegularExpression>

#include <atomic>
#include <functional>

namespace {

const QByteArray blockForPort1 = QByteArrayLiteral("FADA000070001abc");

// Brings about one signal of a core that is configured, in the thread given by the row's name.
using Provocation = std::function<void(PortsProbe &)>;

struct Occasion
{
    const char *name;
    QString signal;
    bool needsLink;
    Provocation provoke;
};

void open(PortsProbe &core)
{
    core.openConnection(1);
}

void close(PortsProbe &core)
{
    core.closeConnection(1);
}

void openAndLink(PortsProbe &core)
{
    core.openConnection(1);
    core.driver->setIdleHost(true);
}

void loseLink(PortsProbe &core)
{
    core.driver->failReads(-1);
}

void receive(PortsProbe &core)
{
    core.driver->feed(blockForPort1);
}

const QList<Occasion> &occasions()
{
    static const QList<Occasion> list = {
        {"connected(port) by an open", "connected(1)", false, open},
        {"socketStateChanged by an open", "socketStateChanged(1,OPENED)", false, open},
        {"disconnected(port) by a close", "disconnected(1)", true, close},
        {"socketStateChanged by a close", "socketStateChanged(1,DISCONNECTED)", true, close},
        {"error by an open", "error(4,1)", true, open},
        {"stateChanged by the link", "stateChanged(CONNECTED)", false, openAndLink},
        {"connected by the link", "connected", false, openAndLink},
        {"readyRead by a message", "readyRead(1)", true, receive},
        {"stateChanged by the loss", "stateChanged(DISCONNECTED)", true, loseLink},
        {"disconnected by the loss", "disconnected", true, loseLink},
        {"disconnected(port) by the loss", "disconnected(1)", true, loseLink},
        {"socketStateChanged by the loss", "socketStateChanged(1,DISCONNECTED)", true, loseLink},
    };
    return list;
}

// What a handler does, and what it must see.
using Action = std::function<bool(PortsProbe &)>;

struct NamedAction
{
    const char *name;
    Action run;
};

const QList<NamedAction> &actions()
{
    static const QList<NamedAction> list = {
        {"opens", [](PortsProbe &core) { return core.openConnection(2); }},
        {"closes", [](PortsProbe &core) { return core.closeConnection(3); }},
        {"cuts",
         [](PortsProbe &core) {
             core.peerDisconnected(3);
             return core.socketStatus(3) == SocketState::DISCONNECTED;
         }},
        {"transfers",
         [](PortsProbe &core) { return core.write(3, "x") <= 1 && core.read(3, 10).isEmpty(); }},
        {"waits",
         [](PortsProbe &core) {
             core.flush(20);
             return !core.waitForReadyRead(3, 20);
         }},
        {"stops",
         [](PortsProbe &core) {
             core.stop();
             return core.status() == DriverState::DISCONNECTED;
         }},
    };
    return list;
}

} // namespace

class PortHandlersTest : public QObject
{
    Q_OBJECT

private slots:
    void aHandlerMayCallBack_data();
    void aHandlerMayCallBack();
    void aHandlerOfAnyErrorMayCallBack_data();
    void aHandlerOfAnyErrorMayCallBack();
    void aHandlerReadsTheMessageThatItIsToldOf();
    void aHandlerAnswersTheMessageThatItIsToldOf();
    void aHandlerClosesThePortThatWasJustOpened();
    void aHandlerReopensThePortThatIsClosed();
    void aHandlerReopensAPortThatTheLinkTakesDown();
    void aHandlerClosesEveryPortWhileTheLinkTakesThemDown();
    void aHandlerOpensManyPortsWhileTheLinkTakesThemDown();
    void aHandlerClosesEveryPortWhileTheLinkBringsThemBack();
    void aHandlerInAnotherThreadIsReachedByAQueuedConnection();
};

void PortHandlersTest::aHandlerMayCallBack_data()
{
    QTest::addColumn<int>("occasion");
    QTest::addColumn<int>("action");
    for (int occasion = 0; occasion < occasions().size(); ++occasion) {
        for (int action = 0; action < actions().size(); ++action)
            QTest::addRow("%s, the handler %s", occasions().at(occasion).name,
                          actions().at(action).name)
                << occasion << action;
    }
}

void PortHandlersTest::aHandlerMayCallBack()
{
    QFETCH(int, occasion);
    QFETCH(int, action);
    const Occasion &when = occasions().at(occasion);
    const Action &run = actions().at(action).run;
    PortsProbe core;
    core.configureFor(5);
    QVERIFY(core.openConnection(3));
    if (when.needsLink) {
        QVERIFY(core.openConnection(1));
        QVERIFY(core.raiseLink());
    }
    std::atomic<bool> begun{false};
    std::atomic<bool> ended{false};
    std::atomic<bool> asExpected{false};
    core.signalsSeen.setHandler([&](const QString &signal) {
        if (signal != when.signal || begun.exchange(true))
            return;
        asExpected = run(core);
        ended = true;
    });
    when.provoke(core);
    QTRY_VERIFY(ended);
    QVERIFY(asExpected);
    core.signalsSeen.setHandler({});

    // Whatever the handler did, the core goes on or can be started again.
    core.driver->failReads(0);
    core.driver->setIdleHost(true);
    QVERIFY(core.openConnection(9));
    QTRY_COMPARE(core.status(), DriverState::CONNECTED);
    QTRY_COMPARE(core.socketStatus(9), SocketState::OPENED);
    QCOMPARE(core.write(9, "alive"), 5);
    QVERIFY(core.driver->waitForWrite("FADA000090009alive"));
}

void PortHandlersTest::aHandlerOfAnyErrorMayCallBack_data()
{
    QTest::addColumn<int>("code");
    for (const int code : {4, 5, 6, 7})
        QTest::addRow("error %d", code) << code;
}

void PortHandlersTest::aHandlerOfAnyErrorMayCallBack()
{
    QFETCH(int, code);
    PortsProbe core;
    if (code != 7)
        core.configureFor(1);
    if (code == 4 || code == 5)
        QVERIFY(core.openConnection(1));
    QList<int> clients;
    core.signalsSeen.setHandler([&](const QString &signal) {
        if (!signal.startsWith("error("))
            return;
        core.signalsSeen.setHandler({});
        clients.append(static_cast<int>(core.nbClients()));
        core.closeConnection(1);
    });
    const bool done = code == 6 ? core.closeConnection(1) : core.openConnection(code == 4 ? 1 : 2);
    QVERIFY(!done);
    QCOMPARE(clients.size(), 1);
    QCOMPARE(core.signalsSeen.all().filter("error(" + QString::number(code) + ',').size(),
             code == 6 ? 2 : 1);
    QCOMPARE(core.nbClients(), 0u);
}

void PortHandlersTest::aHandlerReadsTheMessageThatItIsToldOf()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1}));
    QMutex mutex;
    QByteArray bytes;
    core.signalsSeen.setHandler([&](const QString &signal) {
        const QMutexLocker locker(&mutex);
        if (signal == "readyRead(1)")
            bytes += core.read(1, 100);
    });
    core.driver->feed(blockForPort1 + "FADA000060001de");
    QVERIFY(core.signalsSeen.waitFor("readyRead(1)", 2));
    core.signalsSeen.setHandler({});
    QTRY_COMPARE(core.bytesWaiting(), 0u);
    const QMutexLocker locker(&mutex);
    QCOMPARE(bytes, QByteArray("abcde"));
}

void PortHandlersTest::aHandlerAnswersTheMessageThatItIsToldOf()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1}));
    core.signalsSeen.setHandler([&](const QString &signal) {
        if (signal == "readyRead(1)")
            core.write(1, core.read(1, 100));
    });
    core.driver->feed(blockForPort1);
    QVERIFY(core.driver->waitForWrite(blockForPort1));
}

void PortHandlersTest::aHandlerClosesThePortThatWasJustOpened()
{
    PortsProbe core;
    core.configure();
    core.signalsSeen.setHandler([&](const QString &signal) {
        if (signal == "connected(1)")
            core.closeConnection(1);
    });
    QVERIFY(core.openConnection(1));
    // The signal that follows belongs to the open, which it ends.
    QCOMPARE(core.signalsSeen.all(),
             QStringList({"connected(1)", "disconnected(1)", "socketStateChanged(1,DISCONNECTED)",
                          "socketStateChanged(1,OPENED)"}));
    QCOMPARE(core.socketStatus(1), SocketState::CLOSED);
    QCOMPARE(core.nbClients(), 0u);
}

void PortHandlersTest::aHandlerReopensThePortThatIsClosed()
{
    PortsProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    core.signalsSeen.setHandler([&](const QString &signal) {
        if (signal == "disconnected(1)")
            core.openConnection(1);
    });
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(core.nbClients(), 1u);
}

void PortHandlersTest::aHandlerReopensAPortThatTheLinkTakesDown()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1}));
    std::atomic<bool> reopened{false};
    core.signalsSeen.setHandler([&](const QString &signal) {
        if (signal == "disconnected(1)")
            reopened = core.openConnection(1);
    });
    QVERIFY(core.loseLink());
    core.signalsSeen.setHandler({});
    QVERIFY(reopened);
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(core.nbClients(), 2u);
}

void PortHandlersTest::aHandlerClosesEveryPortWhileTheLinkTakesThemDown()
{
    const QList<int> ports = {1, 2, 3, 4, 5};
    PortsProbe core;
    QVERIFY(core.connectPorts(ports));
    std::atomic<int> closed{0};
    core.signalsSeen.setHandler([&](const QString &signal) {
        if (!signal.startsWith("disconnected(") || closed != 0)
            return;
        for (const int port : ports)
            closed += core.closeConnection(port) ? 1 : 0;
    });
    QVERIFY(core.loseLink());
    core.signalsSeen.setHandler({});
    QCOMPARE(closed.load(), 5);
    QCOMPARE(core.nbClients(), 0u);
    for (const int port : ports) {
        QCOMPARE(core.socketStatus(port), SocketState::CLOSED);
        QCOMPARE(core.signalsSeen.count("disconnected(" + QString::number(port) + ')'), 1);
        QCOMPARE(core.signalsSeen.count("socketStateChanged(" + QString::number(port) +
                                        ",DISCONNECTED)"),
                 1);
    }
    QCOMPARE(core.log.count("_changeAllSocketsState: emit disconnected"), 1);
}

void PortHandlersTest::aHandlerOpensManyPortsWhileTheLinkTakesThemDown()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1, 2}));
    std::atomic<bool> begun{false};
    std::atomic<int> opened{0};
    core.signalsSeen.setHandler([&](const QString &signal) {
        if (!signal.startsWith("disconnected(") || begun.exchange(true))
            return;
        // Enough of them to make the table grow under the walk.
        for (int port = 1000; port < 1500; ++port) {
            opened += core.openConnection(port) ? 1 : 0;
            core.closeConnection(port);
        }
        opened += core.openConnection(1600) ? 1 : 0;
    });
    QVERIFY(core.loseLink());
    core.signalsSeen.setHandler({});
    QCOMPARE(opened.load(), 501);
    QCOMPARE(core.socketStatus(1), SocketState::DISCONNECTED);
    QCOMPARE(core.socketStatus(2), SocketState::DISCONNECTED);
    QCOMPARE(core.socketStatus(1600), SocketState::OPENED);
    QCOMPARE(core.signalsSeen.count("disconnected(1)"), 1);
    QCOMPARE(core.signalsSeen.count("disconnected(2)"), 1);
    QCOMPARE(core.signalsSeen.count("disconnected(1600)"), 0);
    QCOMPARE(core.nbClients(), 3u);
}

void PortHandlersTest::aHandlerClosesEveryPortWhileTheLinkBringsThemBack()
{
    const QList<int> ports = {1, 2, 3};
    PortsProbe core;
    QVERIFY(core.connectPorts(ports));
    QVERIFY(core.loseLink());
    core.signalsSeen.take();
    std::atomic<int> closed{0};
    core.signalsSeen.setHandler([&](const QString &signal) {
        if (!signal.startsWith("connected(") || closed != 0)
            return;
        for (const int port : ports)
            closed += core.closeConnection(port) ? 1 : 0;
    });
    core.driver->failReads(0);
    QTRY_VERIFY(!core.isHandshaking());
    core.signalsSeen.setHandler({});
    QCOMPARE(closed.load(), 3);
    const QStringList seen = core.signalsSeen.all();
    QCOMPARE(seen.filter(QRegularExpression("^connected\\(")).size(), 1);
    QCOMPARE(seen.filter(QRegularExpression("^disconnected\\(")).size(), 1);
    for (const int port : ports)
        QCOMPARE(core.socketStatus(port), SocketState::CLOSED);
    QCOMPARE(core.nbClients(), 0u);
}

void PortHandlersTest::aHandlerInAnotherThreadIsReachedByAQueuedConnection()
{
    PortsProbe core;
    QObject receiver;
    QList<QPair<int, SocketState>> changes;
    connect(
        &core, &UsbHAL::socketStateChanged, &receiver,
        [&](UsbConnID port, SocketState state) {
            changes.append({port, state});
        },
        Qt::QueuedConnection);
    QVERIFY(core.connectPorts({1}));
    QVERIFY(core.loseLink());
    const QList<QPair<int, SocketState>> expected = {{1, SocketState::OPENED},
                                                     {1, SocketState::DISCONNECTED}};
    QTRY_COMPARE(changes, expected);
}

QTEST_GUILESS_MAIN(PortHandlersTest)
#include "tst_port_handlers.moc"
