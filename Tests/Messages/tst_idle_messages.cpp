// SPDX-License-Identifier: MIT
#include "MessageCore.h"

#include <QTest>

namespace {

/** The message that the device would send now that its FIFO is empty. */
QByteArray idleMessage(MessageCore &core)
{
    return core.locked([&](QMutexLocker &) { return core._idleMessage(); });
}

} // namespace

/** What an idle message is made of beside what tst_link_idle sees on the wire. */
class IdleMessagesTest : public QObject
{
    Q_OBJECT

private slots:
    void withoutADriverTheIdleMessageIsBare();
    void theDelayFollowsWhatTheHostSendsAndTheClientReads();
};

void IdleMessagesTest::withoutADriverTheIdleMessageIsBare()
{
    MessageCore core;
    core.setupConfig(core.setup);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA"));
    QVERIFY(core._maxSizeExchanged);
    QVERIFY(core.log.lines().filter("max read size message").isEmpty());
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

QTEST_GUILESS_MAIN(IdleMessagesTest)
#include "tst_idle_messages.moc"
