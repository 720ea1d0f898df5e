// SPDX-License-Identifier: MIT
#include "MessageCore.h"

#include <QTest>

namespace {

/** The message that the device would send now that its FIFO is empty. */
QByteArray idleMessage(MessageCore &core)
{
    return core.locked([&](QMutexLocker &) { return core._idleMessage(); });
}

/** Sets the bytes that wait to be read without receiving them. */
void setBytesWaiting(MessageCore &core, quint32 count)
{
    core.locked([&](QMutexLocker &) { core._totalBytesWaitingRead = count; });
}

} // namespace

class IdleMessagesTest : public QObject
{
    Q_OBJECT

private slots:
    void theIdleMessageTellsTheMaxReadSize();
    void theMaxReadSizeMessageIsLoggedOncePerConnection();
    void theMaxReadSizeMessageFollowsTheDriver();
    void aMaxReadSizeOfZeroIsNotAnnounced();
    void withoutADriverTheIdleMessageIsBare();

    void aDelayIsAskedAboveThirtyTimesTheMaxReadSize();
    void aDelayIsAskedUntilEverythingIsRead();
    void theDelayFollowsWhatTheHostSendsAndTheClientReads();
    void theThresholdIsComputedWithoutOverflow();
};

void IdleMessagesTest::theIdleMessageTellsTheMaxReadSize()
{
    MessageCore core;
    core.setup.maxReadSize = 512;
    QVERIFY(core.start());
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA00512"));
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA00512"));
}

void IdleMessagesTest::theMaxReadSizeMessageIsLoggedOncePerConnection()
{
    MessageCore core;
    QVERIFY(core.start());
    const QString line("_connectedFunc: max read size message sent with value = 10000");
    QVERIFY(!core._maxSizeExchanged);
    idleMessage(core);
    QVERIFY(core._maxSizeExchanged);
    idleMessage(core);
    QCOMPARE(core.log.count(line), 1);
    // The end of a port's connection has it announced again.
    core.peerDisconnected(1);
    QVERIFY(!core._maxSizeExchanged);
    idleMessage(core);
    idleMessage(core);
    QCOMPARE(core.log.count(line), 2);
}

void IdleMessagesTest::theMaxReadSizeMessageFollowsTheDriver()
{
    MessageCore core;
    QVERIFY(core.start());
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA10000"));
    core.driver->setMaxReadSize(7);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA00007"));
}

void IdleMessagesTest::aMaxReadSizeOfZeroIsNotAnnounced()
{
    MessageCore core;
    core.setup.maxReadSize = 0;
    QVERIFY(core.start());
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA"));
    QVERIFY(core.log.contains("_connectedFunc: max read size message sent with value = 0"));
}

void IdleMessagesTest::withoutADriverTheIdleMessageIsBare()
{
    MessageCore core;
    core.setupConfig(core.setup);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA"));
    QVERIFY(core._maxSizeExchanged);
    QVERIFY(core.log.lines().filter("max read size message").isEmpty());
}

void IdleMessagesTest::aDelayIsAskedAboveThirtyTimesTheMaxReadSize()
{
    MessageCore core;
    core.setup.maxReadSize = 100;
    QVERIFY(core.start());
    setBytesWaiting(core, 3000);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA00100"));
    QVERIFY(!core._delayRequested);
    setBytesWaiting(core, 3001);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_WTSEND"));
    QVERIFY(core._delayRequested);
    setBytesWaiting(core, 0);
}

void IdleMessagesTest::aDelayIsAskedUntilEverythingIsRead()
{
    MessageCore core;
    core.setup.maxReadSize = 100;
    QVERIFY(core.start());
    setBytesWaiting(core, 3001);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_WTSEND"));
    setBytesWaiting(core, 9000);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_WTSEND"));
    setBytesWaiting(core, 1);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_WTSEND"));
    setBytesWaiting(core, 0);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA00100"));
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA00100"));
    setBytesWaiting(core, 3001);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_WTSEND"));
    setBytesWaiting(core, 0);
    QStringList lines;
    const QStringList all = core.logged({"_connectedFunc"});
    for (const QString &line : all) {
        if (line.contains("ost"))
            lines.append(line);
    }
    QCOMPARE(lines, (QStringList{"_connectedFunc: Ask host to delay further writes",
                                 "_connectedFunc: Warn host he can write again",
                                 "_connectedFunc: Ask host to delay further writes"}));
}

void IdleMessagesTest::theDelayFollowsWhatTheHostSendsAndTheClientReads()
{
    MessageCore core;
    core.setup.maxReadSize = 10;
    QVERIFY(core.start({1, 2}));
    QVERIFY(core.receive(dataMessage(1, QByteArray(200, 'p'))));
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA00010"));
    QVERIFY(core.receive(dataMessage(2, QByteArray(101, 'p'))));
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_WTSEND"));
    QCOMPARE(core.read(1, 1000).size(), 200);
    QCOMPARE(core.read(2, 100).size(), 100);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_WTSEND"));
    QCOMPARE(core.read(2, 100).size(), 1);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA00010"));
}

void IdleMessagesTest::theThresholdIsComputedWithoutOverflow()
{
    MessageCore core;
    QVERIFY(core.start());
    // Thirty times this is 14 modulo 2 to the 32nd.
    core.driver->setMaxReadSize(143165577);
    setBytesWaiting(core, 1000);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA143165577"));
    QVERIFY(!core._delayRequested);
    setBytesWaiting(core, 0);
}

QTEST_GUILESS_MAIN(IdleMessagesTest)
#include "tst_idle_messages.moc"
