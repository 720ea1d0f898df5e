// SPDX-License-Identifier: MIT
#include "MessageCore.h"

#include <SignalRecorder.h>

#include <QTest>

class MessageCuttingTest : public QObject
{
    Q_OBJECT

private slots:
    void threeMessagesInOneBufferAreTakenInTheirOrder();
    void eachMessageTakesItsOwnBytes_data();
    void eachMessageTakesItsOwnBytes();
    void aMessageOfOneByteIsDelivered();
    void aMessageWithoutPayloadIsDeliveredEmpty();
    void manyMessagesForManyPortsShareABuffer();

    void noDataClearsThePeersRequestForDelay();
    void aRequestForDelayIsRecorded();
    void aRequestForDelayWithBytesBehindIsRejected();
    void theDeviceRejectsTheNumberBehindNoData();

    void theRestOfABufferIsLoggedAfterEachMessage();
    void theLoggedRestIsCutToItsFirstHundredBytes_data();
    void theLoggedRestIsCutToItsFirstHundredBytes();

    void anyAcceptedMessageMarksTheLinkConnected_data();
    void anyAcceptedMessageMarksTheLinkConnected();
    void anAcceptedMessageOnAConnectedLinkSignalsNothingOfTheLink();
    void theFirstDataMessageIsAnnouncedBeforeTheLink();
    void theFirstDataMessageAfterALossOpensThePortsButIsDropped();
    void aReturningLinkOpensPortsBeforeTheNextMessageOfTheBuffer();
    void aRejectedMessageLeavesTheLinkDown_data();
    void aRejectedMessageLeavesTheLinkDown();
};

void MessageCuttingTest::threeMessagesInOneBufferAreTakenInTheirOrder()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive("DEVICE_WTSEND"));
    QVERIFY(core.peerBusy());
    bool busyAtDelivery = true;
    SignalRecorder record(&core);
    record.setHandler([&](const QString &) { busyAtDelivery = core.peerBusy(); });

    QVERIFY(core.receive("DEVICE_NODATA" + dataMessage(1, "abc") + "DEVICE_WTSEND"));
    record.setHandler({});

    QCOMPARE(record.all(), QStringList{"readyRead(1)"});
    QVERIFY(!busyAtDelivery);
    QVERIFY(core.peerBusy());
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
}

void MessageCuttingTest::eachMessageTakesItsOwnBytes_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<unsigned int>("consumed");
    const QByteArray tail = dataMessage(1, "tail");
    QTest::newRow("no data") << QByteArray("DEVICE_NODATA") << true << 13U;
    QTest::newRow("no data and more") << "DEVICE_NODATA" + tail << true << 13U;
    QTest::newRow("max read size") << QByteArray("DEVICE_NODATA10000") << true << 13U;
    QTest::newRow("delay writes") << QByteArray("DEVICE_WTSEND") << true << 13U;
    QTest::newRow("delay writes and more") << "DEVICE_WTSEND" + tail << false << 0U;
    QTest::newRow("data") << dataMessage(1, "abc") << true << 16U;
    QTest::newRow("data and more") << dataMessage(1, "abc") + tail << true << 16U;
    QTest::newRow("empty data") << dataMessage(1, "") << true << 13U;
    QTest::newRow("data for another port") << dataMessage(7, "abc") << true << 16U;
    QTest::newRow("not valid") << QByteArray("nonsense") << false << 0U;
    QTest::newRow("wrong size") << QByteArray("FADA000990001abc") << false << 0U;
    QTest::newRow("length below 4") << QByteArray("FADA000030001abc") << false << 0U;
    QTest::newRow("invalid id") << QByteArray("FADA00007ab12xyz") + tail << false << 16U;
    QTest::newRow("nothing") << QByteArray() << false << 0U;
}

void MessageCuttingTest::eachMessageTakesItsOwnBytes()
{
    QFETCH(QByteArray, message);
    MessageCore core;
    QVERIFY(core.start());
    unsigned int consumed = 0;
    const bool accepted = core.locked(
        [&](QMutexLocker &locker) { return core._processMessage(message, locker, consumed); });
    QTEST(accepted, "accepted");
    QTEST(consumed, "consumed");
}

void MessageCuttingTest::aMessageOfOneByteIsDelivered()
{
    MessageCore core;
    QVERIFY(core.start({3}));
    QVERIFY(core.receive("FADA000050003x"));
    QCOMPARE(core.queuedMessages(3), 1);
    QCOMPARE(core.read(3, 100), QByteArray("x"));
}

void MessageCuttingTest::aMessageWithoutPayloadIsDeliveredEmpty()
{
    MessageCore core;
    QVERIFY(core.start({3}));
    SignalRecorder record(&core);
    QVERIFY(core.receive("FADA000040003"));
    QCOMPARE(record.all(), QStringList{"readyRead(3)"});
    QCOMPARE(core.queuedMessages(3), 1);
    QCOMPARE(core.bytesWaiting(), 0U);
}

void MessageCuttingTest::manyMessagesForManyPortsShareABuffer()
{
    MessageCore core;
    QVERIFY(core.start({1, 2, 3}));
    SignalRecorder record(&core);
    QVERIFY(core.receive(dataMessage(2, "to two") + dataMessage(1, "FADA") +
                         dataMessage(3, "DEVICE_WTSEND") + dataMessage(1, "second")));
    QCOMPARE(record.all(),
             (QStringList{"readyRead(2)", "readyRead(1)", "readyRead(3)", "readyRead(1)"}));
    QCOMPARE(core.read(1, 100), QByteArray("FADA"));
    QCOMPARE(core.read(1, 100), QByteArray("second"));
    QCOMPARE(core.read(2, 100), QByteArray("to two"));
    QCOMPARE(core.read(3, 100), QByteArray("DEVICE_WTSEND"));
    QVERIFY(!core.peerBusy());
}

void MessageCuttingTest::noDataClearsThePeersRequestForDelay()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive("DEVICE_WTSEND"));
    QVERIFY(core.receive("DEVICE_NODATA"));
    QVERIFY(!core.peerBusy());
}

void MessageCuttingTest::aRequestForDelayIsRecorded()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(!core.peerBusy());
    QVERIFY(core.receive(dataMessage(1, "abc") + "DEVICE_WTSEND"));
    QVERIFY(core.peerBusy());
    QVERIFY(core.receive(dataMessage(1, "abc")));
    QVERIFY(core.peerBusy());
}

void MessageCuttingTest::aRequestForDelayWithBytesBehindIsRejected()
{
    MessageCore core;
    QVERIFY(core.start());
    SignalRecorder record(&core);
    QVERIFY(!core.receive("DEVICE_WTSEND" + dataMessage(1, "abc")));
    QVERIFY(!core.peerBusy());
    QVERIFY(record.all().isEmpty());
    QCOMPARE(core.queuedMessages(1), 0);
    QCOMPARE(core.logged({"_processDataMessage", "_processMessage", "_processAllMessages"}),
             (QStringList{"_processDataMessage: ERROR: Message received is not valid: "
                          "DEVICE_WTSENDFADA000070001abc",
                          "_processDataMessage: [DEVICE_WTSENDFADA000070001abc]",
                          "_processAllMessages: Remaining frame size : 29",
                          "_processAllMessages: Message: DEVICE_WTSENDFADA000070001abc"}));
}

void MessageCuttingTest::theDeviceRejectsTheNumberBehindNoData()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive("DEVICE_WTSEND"));
    const quint32 limit = core.driver->getMaxWriteSize();
    QVERIFY(!core.receive("DEVICE_NODATA00100"));
    QVERIFY(!core.peerBusy());
    QCOMPARE(core.driver->getMaxWriteSize(), limit);
    QCOMPARE(core.logged({"_processDataMessage", "_processMessage", "_processAllMessages"}),
             (QStringList{"_processAllMessages: Remaining frame size : 5",
                          "_processAllMessages: Message: 00100",
                          "_processDataMessage: ERROR: Message received is not valid: 00100",
                          "_processAllMessages: Remaining frame size : 5",
                          "_processAllMessages: Message: 00100"}));
}

void MessageCuttingTest::theRestOfABufferIsLoggedAfterEachMessage()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive("DEVICE_NODATA" + dataMessage(1, "abc") + "DEVICE_WTSEND"));
    QCOMPARE(core.logged({"_processDataMessage", "_processMessage", "_processAllMessages"}),
             (QStringList{"_processAllMessages: Remaining frame size : 29",
                          "_processAllMessages: Message: FADA000070001abcDEVICE_WTSEND",
                          "_processAllMessages: Remaining frame size : 13",
                          "_processAllMessages: Message: DEVICE_WTSEND"}));
}

void MessageCuttingTest::theLoggedRestIsCutToItsFirstHundredBytes_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QString>("shown");
    const QByteArray letters(87, 'a'); // behind a header of 13 bytes
    QTest::newRow("100 bytes") << letters << QString(letters);
    QTest::newRow("101 bytes") << letters + 'b' << QString(letters);
    QTest::newRow("400 bytes") << letters + QByteArray(300, 'b') << QString(letters);
    QTest::newRow("zero byte") << "abc" + QByteArray(1, '\0') + "def" << QString("abc");
    QTest::newRow("cut through a character")
        << letters.left(86) + "\xc3\xa9" + "b"
        << letters.left(86) + QString(QChar::ReplacementCharacter);
    QTest::newRow("UTF-8") << QByteArray("\xc3\xa9") << QString::fromUtf8("\xc3\xa9");
}

void MessageCuttingTest::theLoggedRestIsCutToItsFirstHundredBytes()
{
    QFETCH(QByteArray, payload);
    QFETCH(QString, shown);
    MessageCore core;
    QVERIFY(core.start());
    const QByteArray rest = dataMessage(1, payload);
    QVERIFY(core.receive("DEVICE_NODATA" + rest));
    QCOMPARE(
        core.logged({"_processAllMessages"}),
        (QStringList{"_processAllMessages: Remaining frame size : " + QString::number(rest.size()),
                     "_processAllMessages: Message: " + QString(rest.left(13)) + shown}));
}

void MessageCuttingTest::anyAcceptedMessageMarksTheLinkConnected_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("no data") << QByteArray("DEVICE_NODATA");
    QTest::newRow("delay writes") << QByteArray("DEVICE_WTSEND");
    QTest::newRow("data for a port never opened") << dataMessage(7, "abc");
}

void MessageCuttingTest::anyAcceptedMessageMarksTheLinkConnected()
{
    QFETCH(QByteArray, message);
    MessageCore core;
    QVERIFY(core.openPorts());
    SignalRecorder record(&core);
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QVERIFY(core.receive(message));
    QCOMPARE(core.status(), DriverState::CONNECTED);
    // The port was opened before the link came up and has nothing to report.
    QCOMPARE(record.all(), (QStringList{"stateChanged(CONNECTED)", "connected"}));
    QCOMPARE(core.logged({"_updateStatus"}),
             QStringList{"_updateStatus: UsbHal switched to CONNECTED state"});
}

void MessageCuttingTest::anAcceptedMessageOnAConnectedLinkSignalsNothingOfTheLink()
{
    MessageCore core;
    QVERIFY(core.start());
    SignalRecorder record(&core);
    QVERIFY(core.receive("DEVICE_NODATA"));
    QVERIFY(core.receive("DEVICE_WTSEND"));
    QVERIFY(record.all().isEmpty());
}

void MessageCuttingTest::theFirstDataMessageIsAnnouncedBeforeTheLink()
{
    MessageCore core;
    QVERIFY(core.openPorts());
    SignalRecorder record(&core);
    QVERIFY(core.receive(dataMessage(1, "abc")));
    QCOMPARE(record.all(), (QStringList{"readyRead(1)", "stateChanged(CONNECTED)", "connected"}));
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
}

void MessageCuttingTest::theFirstDataMessageAfterALossOpensThePortsButIsDropped()
{
    MessageCore core;
    QVERIFY(core.start());
    core.loseLink();
    SignalRecorder record(&core);
    QVERIFY(core.receive(dataMessage(1, "abc")));
    QCOMPARE(record.all(), (QStringList{"stateChanged(CONNECTED)", "connected", "connected(1)",
                                        "socketStateChanged(1,OPENED)"}));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(core.nbBytesReceived(1), 0);
}

void MessageCuttingTest::aReturningLinkOpensPortsBeforeTheNextMessageOfTheBuffer()
{
    MessageCore core;
    QVERIFY(core.start());
    core.loseLink();
    SignalRecorder record(&core);
    QVERIFY(core.receive("DEVICE_NODATA" + dataMessage(1, "abc")));
    QCOMPARE(record.all(), (QStringList{"stateChanged(CONNECTED)", "connected", "connected(1)",
                                        "socketStateChanged(1,OPENED)", "readyRead(1)"}));
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
}

void MessageCuttingTest::aRejectedMessageLeavesTheLinkDown_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("not valid") << QByteArray("nonsense");
    QTest::newRow("wrong size") << QByteArray("FADA000990001abc");
    QTest::newRow("invalid id") << QByteArray("FADA00007ab12xyz");
    QTest::newRow("delay writes and more") << QByteArray("DEVICE_WTSENDx");
    QTest::newRow("bare port opened") << QByteArray("DEVICE_CONN");
    QTest::newRow("bare port closed") << QByteArray("DEVICE_DISC");
}

void MessageCuttingTest::aRejectedMessageLeavesTheLinkDown()
{
    QFETCH(QByteArray, message);
    MessageCore core;
    QVERIFY(core.openPorts());
    SignalRecorder record(&core);
    QVERIFY(!core.receive(message));
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QVERIFY(record.all().isEmpty());
}

QTEST_GUILESS_MAIN(MessageCuttingTest)
#include "tst_message_cutting.moc"
