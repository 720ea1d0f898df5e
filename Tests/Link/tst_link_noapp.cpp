// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <Background.h>

/** A client without a QCoreApplication. */
class LinkNoAppTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(!QCoreApplication::instance());
        WarningTrap::set();
    }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void theLinkWorksAndRecovers();
    void theCommunicationStopsAndStartsAgain();
    void aCoreIsDestroyedWhileItRuns();
    void aTimerChangeLostWithItsApplicationHoldsNoOtherBack();
};

void LinkNoAppTest::theLinkWorksAndRecovers()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    QCOMPARE(core.write(1, "data"), 4);
    QVERIFY(core.driver->waitForWrite(dataMessage(1, "data")));
    core.driver->feed(dataMessage(1, "answer"));
    QVERIFY(core.waitForReadyRead(1, 5000));
    QCOMPARE(core.read(1, 100), QByteArray("answer"));
    core.driver->setIdleHost(false);
    QVERIFY(core.waitForDisconnected(5000));
    core.driver->setIdleHost(true);
    QVERIFY(core.waitForConnected(5000));
    QVERIFY(core.closeConnection(1));
}

void LinkNoAppTest::theCommunicationStopsAndStartsAgain()
{
    LinkProbe core;
    for (int port = 1; port <= 3; ++port) {
        QVERIFY(core.connectIdle(port));
        core.stop();
        QVERIFY(!core.isRunning());
        QCOMPARE(core.status(), DriverState::DISCONNECTED);
    }
}

void LinkNoAppTest::aCoreIsDestroyedWhileItRuns()
{
    const auto driver = QSharedPointer<RecordingDriver>::create();
    {
        LinkProbe core(driver);
        QVERIFY(core.connectIdle());
    }
    QCOMPARE(driver->closes(), 1);
}

void LinkNoAppTest::aTimerChangeLostWithItsApplicationHoldsNoOtherBack()
{
    LinkProbe core;
    int argc = 0;
    {
        const QCoreApplication application(argc, nullptr);
        QVERIFY(inBackground([&] { return core.connectIdle(); }).get());
    }
    const QCoreApplication application(argc, nullptr);
    inBackground([&] { core.stop(); }).get();
    QVERIFY(inBackground([&] { return core.openConnection(2); }).get());
    QTRY_VERIFY(core._mainLoopTimer.isActive());
}

QTEST_APPLESS_MAIN(LinkNoAppTest)
#include "tst_link_noapp.moc"
