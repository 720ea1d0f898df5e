// SPDX-License-Identifier: MIT
#include "MessageCore.h"

#include <SignalRecorder.h>

#include <QTest>

class MessageFaultsTest : public QObject
{
    Q_OBJECT

private slots:
    void aFaultIsLoggedAndTheRestOfTheBufferDropped_data();
    void aFaultIsLoggedAndTheRestOfTheBufferDropped();
    void aFaultIsLoggedUpToItsFirstZeroByte_data();
    void aFaultIsLoggedUpToItsFirstZeroByte();
    void anInvalidMessageIsShownAsItsExcerptIs_data();
    void anInvalidMessageIsShownAsItsExcerptIs();
    void messagesBeforeTheFaultAreDelivered();
    void aMessageCutByTwoReadsIsLostInBoth();
    void aFaultIsNeitherSignalledNorAnswered();
    void aMessageForAPortOfMoreThanFourDigitsIsRejected_data();
    void aMessageForAPortOfMoreThanFourDigitsIsRejected();
};

void MessageFaultsTest::aFaultIsLoggedAndTheRestOfTheBufferDropped_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("shown");
    QTest::addColumn<int>("consumed");
    const QString notValid("ERROR: Message received is not valid: ");
    const QString wrongSize("ERROR: Received message with wrong size ! Trash it: ");
    const QString invalidId("ERROR: Received message with invalid connection id ! Trash it: ");
    QTest::newRow("no magic") << QByteArray("nonsense") << notValid << true << 0;
    QTest::newRow("half a magic") << QByteArray("FADX000050001x") << notValid << true << 0;
    QTest::newRow("bare port opened") << QByteArray("DEVICE_CONN") << notValid << true << 0;
    QTest::newRow("bare port closed") << QByteArray("DEVICE_DISC") << notValid << true << 0;
    QTest::newRow("five letters") << QByteArray("FADAabcde") << wrongSize << false << 0;
    QTest::newRow("signed length") << QByteArray("FADA+00050001x") << wrongSize << false << 0;
    QTest::newRow("length with blanks") << QByteArray("FADA    50001x") << wrongSize << false << 0;
    QTest::newRow("length below 4") << QByteArray("FADA000030001") << wrongSize << false << 0;
    QTest::newRow("too long") << QByteArray("FADA009990001abc") << wrongSize << false << 0;
    QTest::newRow("letters in the id")
        << QByteArray("FADA00007ab12xyz") << invalidId << false << 16;
    QTest::newRow("signed id") << QByteArray("FADA00007-001xyz") << invalidId << false << 16;
}

void MessageFaultsTest::aFaultIsLoggedAndTheRestOfTheBufferDropped()
{
    QFETCH(QByteArray, fault);
    QFETCH(QString, text);
    QFETCH(bool, shown);
    QFETCH(int, consumed);
    MessageCore core;
    QVERIFY(core.start());
    const QByteArray buffer = fault + dataMessage(1, "lost");
    QVERIFY(!core.receive(buffer));
    QCOMPARE(core.queuedMessages(1), 0);

    QStringList lines{"_processDataMessage: " + text + buffer};
    if (shown)
        lines.append("_processDataMessage: [" + QString(buffer) + ']');
    const QByteArray rest = buffer.mid(consumed);
    lines.append("_processAllMessages: Remaining frame size : " + QString::number(rest.size()));
    lines.append("_processAllMessages: Message: " + QString(rest));
    QCOMPARE(core.logged({"_processDataMessage", "_processMessage", "_processAllMessages"}), lines);
}

void MessageFaultsTest::aFaultIsLoggedUpToItsFirstZeroByte_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<QString>("line");
    const QByteArray zero(1, '\0');
    QTest::newRow("not valid") << "ab" + zero + "cd"
                               << QString("ERROR: Message received is not valid: ab");
    QTest::newRow("wrong size") << "FADA00" + zero + "050001x"
                                << QString("ERROR: Received message with wrong size ! "
                                           "Trash it: FADA00");
    QTest::newRow("invalid id") << "FADA0000700" + zero + "1xyz"
                                << QString("ERROR: Received message with invalid connection id ! "
                                           "Trash it: FADA0000700");
}

void MessageFaultsTest::aFaultIsLoggedUpToItsFirstZeroByte()
{
    QFETCH(QByteArray, fault);
    QFETCH(QString, line);
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(!core.receive(fault));
    QCOMPARE(core.logged({"_processDataMessage"}), QStringList("_processDataMessage: " + line));
}

void MessageFaultsTest::anInvalidMessageIsShownAsItsExcerptIs_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QString>("shown");
    QTest::newRow("too short") << QByteArray(5, 'x') << QString();
    QTest::newRow("by its ends") << QByteArray(41, 'x') + QByteArray(40, 'y')
                                 << '[' + QString(40, 'x') + "..." + QString(40, 'y') + ']';
    QTest::newRow("too long") << QByteArray(500, 'x') << QString();
}

void MessageFaultsTest::anInvalidMessageIsShownAsItsExcerptIs()
{
    QFETCH(QByteArray, message);
    QFETCH(QString, shown);
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(!core.receive(message));
    QStringList lines{"_processDataMessage: ERROR: Message received is not valid: " +
                      QString(message)};
    if (!shown.isEmpty())
        lines.append("_processDataMessage: " + shown);
    QCOMPARE(core.logged({"_processDataMessage"}), lines);
}

void MessageFaultsTest::messagesBeforeTheFaultAreDelivered()
{
    MessageCore core;
    QVERIFY(core.start());
    SignalRecorder record(&core);
    QVERIFY(!core.receive(dataMessage(1, "abc") + dataMessage(1, "de") + "nonsense" +
                          dataMessage(1, "lost")));
    QCOMPARE(record.all(), (QStringList{"readyRead(1)", "readyRead(1)"}));
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
    QCOMPARE(core.read(1, 100), QByteArray("de"));
    QCOMPARE(core.read(1, 100), QByteArray());
}

void MessageFaultsTest::aMessageCutByTwoReadsIsLostInBoth()
{
    MessageCore core;
    QVERIFY(core.start());
    const QByteArray message = dataMessage(1, "0123456789");
    QVERIFY(!core.receive(message.left(17)));
    QVERIFY(!core.receive(message.mid(17)));
    QCOMPARE(core.queuedMessages(1), 0);
    QCOMPARE(core.logged({"_processDataMessage"}),
             (QStringList{"_processDataMessage: ERROR: Received message with wrong size ! "
                          "Trash it: FADA0001400010123",
                          "_processDataMessage: ERROR: Message received is not valid: 456789",
                          "_processDataMessage: [456789]"}));
}

void MessageFaultsTest::aFaultIsNeitherSignalledNorAnswered()
{
    MessageCore core;
    QVERIFY(core.start());
    SignalRecorder record(&core);
    const QList<QByteArray> faults{"nonsense", "FADA009990001abc", "FADA00007ab12xyz", "FADA00003",
                                   dataMessage(7, "abc")};
    for (const QByteArray &fault : faults)
        core.receive(fault);
    QVERIFY(record.all().isEmpty());
    QVERIFY(core.fifo().isEmpty());
    QVERIFY(core.driver->written().isEmpty());
}

void MessageFaultsTest::aMessageForAPortOfMoreThanFourDigitsIsRejected_data()
{
    QTest::addColumn<int>("port");
    QTest::newRow("five digits") << 10000;
    QTest::newRow("negative") << -1;
    QTest::newRow("negative and long") << -1000;
}

void MessageFaultsTest::aMessageForAPortOfMoreThanFourDigitsIsRejected()
{
    QFETCH(int, port);
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(!core.receive(usb_messages::frameData(port, "abc", 3)));
}

QTEST_GUILESS_MAIN(MessageFaultsTest)
#include "tst_message_faults.moc"
