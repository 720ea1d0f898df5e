// SPDX-License-Identifier: MIT
#include "MessageCore.h"

#include <SignalRecorder.h>

#include <QTest>

namespace {

void queueEmptyMessages(MessageCore &core, int count)
{
    core.locked([&](QMutexLocker &) {
        for (int i = 0; i < count; ++i)
            core._readQueues.value(1)->enqueue(QByteArray());
    });
}

} // namespace

class MessageStoringTest : public QObject
{
    Q_OBJECT

private slots:
    void everyPayloadIsCountedAndAnnounced();
    void onlyMiddleSizedPayloadsAreLogged_data();
    void onlyMiddleSizedPayloadsAreLogged();
    void payloadsOwnTheirBytes();
    void payloadsSurviveTheNextReadOfTheDriver();
    void aHandlerOfReadyReadMayReadAtOnce();
    void aHandlerOfReadyReadMayCloseThePort();
    void clearingEmptiesTheQueuesAndKeepsThem();

    void aPayloadForAPortThatIsNotOpenIsDropped_data();
    void aPayloadForAPortThatIsNotOpenIsDropped();
    void onAnOpenPortTheMarkerIsData();
    void theMarkerReopensADisconnectedPort();
    void theMarkerLeavesAClosedPortClosed();
    void theMarkerGivesAnUnknownPortAQueue();
    void theMarkerGivesAnOpenPortItsMissingQueue();
    void theMarkerConnectsTheLinkWithoutASignal();
    void theMarkerIsNotBoundByTheQueueLimit();

    void aPayloadThatMeetsTheQueueLimitIsStored();
    void aPayloadBeyondTheQueueLimitIsRejected();
};

void MessageStoringTest::everyPayloadIsCountedAndAnnounced()
{
    MessageCore core;
    QVERIFY(core.start({1, 2}));
    SignalRecorder record(&core);
    QVERIFY(core.receive(dataMessage(1, "abc") + dataMessage(2, "") + dataMessage(2, "de")));
    QCOMPARE(record.all(), (QStringList{"readyRead(1)", "readyRead(2)", "readyRead(2)"}));
    QCOMPARE(core.bytesWaiting(), 5U);
    QCOMPARE(core._nbBytesWaitingToBeRead(), 5U);
    QCOMPARE(core.queuedMessages(1), 1);
    QCOMPARE(core.queuedMessages(2), 2);
}

void MessageStoringTest::onlyMiddleSizedPayloadsAreLogged_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("logged");
    QTest::newRow("5 bytes") << 5 << false;
    QTest::newRow("6 bytes") << 6 << true;
    QTest::newRow("499 bytes") << 499 << true;
    QTest::newRow("500 bytes") << 500 << false;
}

void MessageStoringTest::onlyMiddleSizedPayloadsAreLogged()
{
    QFETCH(int, size);
    QFETCH(bool, logged);
    MessageCore core;
    QVERIFY(core.start({4}));
    QVERIFY(core.receive(dataMessage(4, QByteArray(size, 'p'))));
    const QString line = "_processDataMessage: " + QString::number(size) +
                         " new bytes to be read by client connected on port 4";
    QCOMPARE(core.logged({"_processDataMessage"}), logged ? QStringList(line) : QStringList());
}

void MessageStoringTest::payloadsOwnTheirBytes()
{
    MessageCore core;
    QVERIFY(core.start());
    QByteArray driverBuffer = dataMessage(1, "first") + dataMessage(1, "");
    QVERIFY(core.receive(QByteArray::fromRawData(driverBuffer.constData(), driverBuffer.size())));
    driverBuffer.fill('#');
    QCOMPARE(core.read(1, 100), QByteArray("first"));
    QCOMPARE(core.read(1, 100), QByteArray());
}

void MessageStoringTest::payloadsSurviveTheNextReadOfTheDriver()
{
    CoreProbe core;
    core.configure();
    QVERIFY(core.openConnection(1));
    core.driver->feed(dataMessage(1, "first"));
    core.driver->feed(dataMessage(1, "other"));
    core.driver->setIdleHost(true);
    const auto received = [&core] {
        return core.locked([&](QMutexLocker &) { return core._readQueues.value(1)->size(); });
    };
    QTRY_COMPARE(received(), 2);
    // The driver overwrites its buffer with each read.
    QVERIFY(core.driver->waitForReads(core.driver->reads() + 2));
    QCOMPARE(core.read(1, 100), QByteArray("first"));
    QCOMPARE(core.read(1, 100), QByteArray("other"));
    core.stop();
}

void MessageStoringTest::aHandlerOfReadyReadMayReadAtOnce()
{
    MessageCore core;
    QVERIFY(core.start());
    QList<QByteArray> taken;
    SignalRecorder record(&core);
    record.setHandler([&](const QString &) { taken.append(core.read(1, 100)); });
    QVERIFY(core.receive(dataMessage(1, "abc") + dataMessage(1, "de")));
    record.setHandler({});
    QCOMPARE(taken, (QList<QByteArray>{"abc", "de"}));
    QCOMPARE(core.bytesWaiting(), 0U);
}

void MessageStoringTest::aHandlerOfReadyReadMayCloseThePort()
{
    MessageCore core;
    QVERIFY(core.start({1, 2}));
    SignalRecorder record(&core);
    record.setHandler([&](const QString &signal) {
        if (signal == "readyRead(1)")
            core.closeConnection(1);
    });
    QVERIFY(core.receive(dataMessage(1, "abc") + dataMessage(1, "lost") + dataMessage(2, "de")));
    record.setHandler({});
    QCOMPARE(record.all(), (QStringList{"readyRead(1)", "disconnected(1)",
                                        "socketStateChanged(1,DISCONNECTED)", "readyRead(2)"}));
    QCOMPARE(core.bytesWaiting(), 2U);
    QCOMPARE(core.read(2, 100), QByteArray("de"));
}

void MessageStoringTest::clearingEmptiesTheQueuesAndKeepsThem()
{
    MessageCore core;
    QVERIFY(core.start({1, 2}));
    QVERIFY(core.receive(dataMessage(1, "abc") + dataMessage(2, QByteArray(5, '\0'))));
    core.locked([&](QMutexLocker &) { core._clearReadFifo(); });
    QCOMPARE(core.bytesWaiting(), 0U);
    QCOMPARE(core.queuedMessages(1), 0);
    QCOMPARE(core.queuedMessages(2), 0);
    QVERIFY(core.receive(dataMessage(1, "again")));
    QCOMPARE(core.read(1, 100), QByteArray("again"));
}

void MessageStoringTest::aPayloadForAPortThatIsNotOpenIsDropped_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<QByteArray>("payload");
    QTest::newRow("port never opened") << 7 << QByteArray("abc");
    QTest::newRow("closed port") << 2 << QByteArray("abc");
    QTest::newRow("disconnected port") << 3 << QByteArray("abc");
    QTest::newRow("almost the marker") << 3 << QByteArray("DEVICE_CON");
    QTest::newRow("more than the marker") << 3 << QByteArray("DEVICE_CONN ");
    QTest::newRow("the reserved marker") << 3 << QByteArray("DEVICE_DISC");
    QTest::newRow("no payload") << 3 << QByteArray();
}

void MessageStoringTest::aPayloadForAPortThatIsNotOpenIsDropped()
{
    QFETCH(int, port);
    QFETCH(QByteArray, payload);
    MessageCore core;
    QVERIFY(core.start({1, 2, 3}));
    QVERIFY(core.closeConnection(2));
    core.peerDisconnected(3);
    const SocketState state = core.socketStatus(port);
    SignalRecorder record(&core);
    QVERIFY(core.receive(dataMessage(port, payload) + dataMessage(1, "next")));
    QCOMPARE(record.all(), QStringList{"readyRead(1)"});
    QCOMPARE(core.socketStatus(port), state);
    QCOMPARE(core.nbBytesReceived(port), 0);
    QCOMPARE(core.bytesWaiting(), 4U);
    QCOMPARE(core.logged({"_processDataMessage"}),
             QStringList{"_processDataMessage: ERROR: message received for non-connected port: " +
                         QString::number(port)});
}

void MessageStoringTest::onAnOpenPortTheMarkerIsData()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "DEVICE_CONN")));
    QCOMPARE(core.logged({"_processDataMessage"}),
             QStringList{"_processDataMessage: 11 new bytes to be read by client connected on "
                         "port 1"});
    QCOMPARE(core.read(1, 100), QByteArray("DEVICE_CONN"));
}

void MessageStoringTest::theMarkerReopensADisconnectedPort()
{
    MessageCore core;
    QVERIFY(core.start());
    core.peerDisconnected(1);
    SignalRecorder record(&core);
    QVERIFY(core.receive(dataMessage(1, "DEVICE_CONN") + dataMessage(1, "abc")));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(record.all(), (QStringList{"readyRead(1)", "readyRead(1)"}));
    QCOMPARE(core.logged({"_processDataMessage"}),
             QStringList{"_processDataMessage: port #1 is now OPENED"});
    QCOMPARE(core.bytesWaiting(), 14U);
    QCOMPARE(core.read(1, 100), QByteArray("DEVICE_CONN"));
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
}

void MessageStoringTest::theMarkerLeavesAClosedPortClosed()
{
    MessageCore core;
    QVERIFY(core.start({1, 2}));
    QVERIFY(core.closeConnection(2));
    SignalRecorder record(&core);
    QVERIFY(core.receive(dataMessage(2, "DEVICE_CONN")));
    QCOMPARE(core.socketStatus(2), SocketState::CLOSED);
    QCOMPARE(record.all(), QStringList{"readyRead(2)"});
    QCOMPARE(core.logged({"_processDataMessage"}),
             QStringList{"_processDataMessage: port #2 is now OPENED"});
    QCOMPARE(core.nbBytesReceived(2), 11);
    QCOMPARE(core.bytesWaiting(), 11U);
    QCOMPARE(core.read(2, 100), QByteArray());
}

void MessageStoringTest::theMarkerGivesAnUnknownPortAQueue()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(42, "DEVICE_CONN")));
    QVERIFY(core._socketStates.contains(42));
    QCOMPARE(core.socketStatus(42), SocketState::CLOSED);
    QCOMPARE(core.nbBytesReceived(42), 11);
    QVERIFY(core.receive(dataMessage(42, "DEVICE_CONN")));
    QCOMPARE(core.queuedMessages(42), 2);
    QCOMPARE(core.bytesWaiting(), 22U);
}

void MessageStoringTest::theMarkerGivesAnOpenPortItsMissingQueue()
{
    MessageCore core;
    QVERIFY(core.start());
    core.locked([&](QMutexLocker &) { core._readQueues.remove(1); });
    QVERIFY(core.receive(dataMessage(1, "lost") + dataMessage(1, "DEVICE_CONN")));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(core.read(1, 100), QByteArray("DEVICE_CONN"));
}

void MessageStoringTest::theMarkerConnectsTheLinkWithoutASignal()
{
    MessageCore core;
    QVERIFY(core.start({1, 2}));
    core.loseLink();
    SignalRecorder record(&core);
    const int before = core.logged({"_updateStatus"}).size();
    QVERIFY(core.receive(dataMessage(1, "DEVICE_CONN")));
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QCOMPARE(record.all(), QStringList{"readyRead(1)"});
    QCOMPARE(core.logged({"_updateStatus"}).size(), before);
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(core.socketStatus(2), SocketState::DISCONNECTED);
}

void MessageStoringTest::theMarkerIsNotBoundByTheQueueLimit()
{
    MessageCore core;
    QVERIFY(core.start());
    queueEmptyMessages(core, 124000);
    core.peerDisconnected(1);
    QVERIFY(core.receive(dataMessage(1, "DEVICE_CONN")));
    QCOMPARE(core.queuedMessages(1), 124001);
    QVERIFY(!core.receive(dataMessage(1, "")));
    QCOMPARE(core.queuedMessages(1), 124001);
}

void MessageStoringTest::aPayloadThatMeetsTheQueueLimitIsStored()
{
    MessageCore core;
    QVERIFY(core.start());
    queueEmptyMessages(core, 100000);
    QVERIFY(core.receive(dataMessage(1, QByteArray(24000, 'p'))));
    QCOMPARE(core.queuedMessages(1), 100001);
    QCOMPARE(core.bytesWaiting(), 24000U);
}

void MessageStoringTest::aPayloadBeyondTheQueueLimitIsRejected()
{
    MessageCore core;
    QVERIFY(core.start({1, 2}));
    queueEmptyMessages(core, 100000);
    SignalRecorder record(&core);
    QVERIFY(!core.receive(dataMessage(1, QByteArray(24001, 'p')) + dataMessage(2, "abc")));
    QCOMPARE(core.queuedMessages(1), 100000);
    QCOMPARE(core.queuedMessages(2), 0);
    QCOMPARE(core.bytesWaiting(), 0U);
    QVERIFY(record.all().isEmpty());
    QCOMPARE(core.logged({"_processDataMessage", "_processAllMessages"}),
             (QStringList{"_processDataMessage: ERROR: Buffer Overflow on port #1",
                          "_processAllMessages: Remaining frame size : 16",
                          "_processAllMessages: Message: FADA000070002abc"}));
    QVERIFY(core.receive(dataMessage(2, "abc")));
}

QTEST_GUILESS_MAIN(MessageStoringTest)
#include "tst_message_storing.moc"
