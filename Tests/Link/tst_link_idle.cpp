// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

namespace {

const QString askToWait = "_connectedFunc: Ask host to delay further writes";
const QString mayWrite = "_connectedFunc: Warn host he can write again";

QString sentLine(int size)
{
    return "_connectedFunc: max read size message sent with value = " + QString::number(size);
}

} // namespace

/** What a device sends when no message waits: its max read size, or the request to wait. */
class LinkIdleTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void everyIdleMessageCarriesTheMaxReadSize();
    void aMaxReadSizeOfZeroKeepsTheMessageBare();
    void aNewMaxReadSizeIsAnnounced();
    void theMaxReadSizeIsLoggedOncePerConnection();
    void losingAPortMakesTheMaxReadSizeLoggedAgain();

    void theHostIsAskedToWaitAboveThirtyReads_data();
    void theHostIsAskedToWaitAboveThirtyReads();
    void theRequestIsRepeatedUntilAllIsRead();
    void theHostIsAskedAgainAfterItWasLetWrite();
    void messagesGoOutWhileTheHostWaits();
    void theRequestOutlivesTheLink();
    void thirtyReadsAreCountedInSixtyFourBits();
};

void LinkIdleTest::everyIdleMessageCarriesTheMaxReadSize()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    QVERIFY(core.driver->waitForWritten(10));
    const QList<QByteArray> written = core.driver->written();
    QCOMPARE(written.count("DEVICE_NODATA10000"), written.size());
    QCOMPARE(core.log.count(sentLine(10000)), 1);
}

void LinkIdleTest::aMaxReadSizeOfZeroKeepsTheMessageBare()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.maxReadSize = 0;
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    QVERIFY(core.turn());
    const QList<QByteArray> expected = {"DEVICE_NODATA", "DEVICE_NODATA"};
    QCOMPARE(core.driver->written(), expected);
    QCOMPARE(core.log.count(sentLine(0)), 1);
}

void LinkIdleTest::aNewMaxReadSizeIsAnnounced()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.locked([&](QMutexLocker &) { core.driver->setMaxReadSize(512); });
    QVERIFY(core.turn());
    QVERIFY(core.turn());
    const QList<QByteArray> expected = {"DEVICE_NODATA10000", "DEVICE_NODATA00512",
                                        "DEVICE_NODATA00512"};
    QCOMPARE(core.driver->written(), expected);
    QVERIFY(!core.log.contains(sentLine(512)));
}

void LinkIdleTest::theMaxReadSizeIsLoggedOncePerConnection()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    QVERIFY(core.driver->waitForWritten(3));
    core.driver->failReads(5);
    QVERIFY(core.log.waitFor(sentLine(10000), 2));
    const int written = core.driver->written().size();
    QVERIFY(core.driver->waitForWritten(written + 3));
    QCOMPARE(core.log.count(sentLine(10000)), 2);
}

void LinkIdleTest::losingAPortMakesTheMaxReadSizeLoggedAgain()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    core.peerDisconnected(1);
    QVERIFY(core.turn());
    QVERIFY(core.turn());
    QCOMPARE(core.log.count(sentLine(10000)), 2);
}

void LinkIdleTest::theHostIsAskedToWaitAboveThirtyReads_data()
{
    QTest::addColumn<int>("readSize");
    QTest::addColumn<int>("unread");
    QTest::addColumn<bool>("asked");
    QTest::newRow("exactly thirty") << 10 << 300 << false;
    QTest::newRow("one byte more") << 10 << 301 << true;
    QTest::newRow("any byte, when nothing may be read") << 0 << 1 << true;
    QTest::newRow("nothing, when nothing may be read") << 0 << 0 << false;
}

void LinkIdleTest::theHostIsAskedToWaitAboveThirtyReads()
{
    QFETCH(int, readSize);
    QFETCH(int, unread);
    QFETCH(bool, asked);
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.maxReadSize = static_cast<quint32>(readSize);
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    QVERIFY(core.turn(dataMessage(1, QByteArray(unread, 'x'))));
    QCOMPARE(core.driver->written().last() == "DEVICE_WTSEND", asked);
    QCOMPARE(core.log.count(askToWait), asked ? 1 : 0);
    QCOMPARE(core.log.count(mayWrite), 0);
}

void LinkIdleTest::theRequestIsRepeatedUntilAllIsRead()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.maxReadSize = 10;
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    core.driver->clearWritten();
    QVERIFY(core.turn(dataMessage(1, QByteArray(301, 'x'))));
    QVERIFY(core.turn());
    QCOMPARE(core.read(1, 300).size(), 300);
    QVERIFY(core.turn());
    QCOMPARE(core.log.count(mayWrite), 0);
    QCOMPARE(core.read(1, 300).size(), 1);
    QVERIFY(core.turn());
    QVERIFY(core.turn());
    const QList<QByteArray> expected = {"DEVICE_WTSEND", "DEVICE_WTSEND", "DEVICE_WTSEND",
                                        "DEVICE_NODATA00010", "DEVICE_NODATA00010"};
    QCOMPARE(core.driver->written(), expected);
    QCOMPARE(core.log.count(askToWait), 1);
    QCOMPARE(core.log.count(mayWrite), 1);
}

void LinkIdleTest::theHostIsAskedAgainAfterItWasLetWrite()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.maxReadSize = 1;
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    core.driver->clearWritten();
    for (int i = 0; i < 2; ++i) {
        QVERIFY(core.turn(dataMessage(1, QByteArray(31, 'x'))));
        QCOMPARE(core.read(1, 100).size(), 31);
        QVERIFY(core.turn());
    }
    const QList<QByteArray> expected = {"DEVICE_WTSEND", "DEVICE_NODATA00001", "DEVICE_WTSEND",
                                        "DEVICE_NODATA00001"};
    QCOMPARE(core.driver->written(), expected);
    QCOMPARE(core.log.count(askToWait), 2);
    QCOMPARE(core.log.count(mayWrite), 2);
}

void LinkIdleTest::messagesGoOutWhileTheHostWaits()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.maxReadSize = 1;
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    core.driver->clearWritten();
    QVERIFY(core.turn(dataMessage(1, QByteArray(31, 'x'))));
    core.write(1, "data");
    QVERIFY(core.turn());
    QVERIFY(core.turn());
    const QList<QByteArray> expected = {"DEVICE_WTSEND", dataMessage(1, "data"), "DEVICE_WTSEND"};
    QCOMPARE(core.driver->written(), expected);
}

void LinkIdleTest::theRequestOutlivesTheLink()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.maxReadSize = 1;
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    QVERIFY(core.turn(dataMessage(1, QByteArray(31, 'x'))));
    core.driver->failReads(5);
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.log.waitFor("_connectedFunc: closeDriverAfterConnectionError = false"));
    QVERIFY(core.locked([&](QMutexLocker &) { return core._delayRequested; }));
    core.driver->clearWritten();
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.driver->waitForWritten(1));
    QCOMPARE(core.driver->written().first(), QByteArray("DEVICE_NODATA00001"));
    QCOMPARE(core.log.count(mayWrite), 1);
}

void LinkIdleTest::thirtyReadsAreCountedInSixtyFourBits()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    // Thirty times this is 14 in 32 bits.
    core.locked([&](QMutexLocker &) { core.driver->setMaxReadSize(143165577); });
    QVERIFY(core.turn(dataMessage(1, QByteArray(100, 'x'))));
    QCOMPARE(core.driver->written().last(), QByteArray("DEVICE_NODATA143165577"));
    QCOMPARE(core.log.count(askToWait), 0);
}

QTEST_GUILESS_MAIN(LinkIdleTest)
#include "tst_link_idle.moc"
