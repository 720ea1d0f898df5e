// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

/** A client without a QCoreApplication. */
class NoApplication : public QObject
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
};

void NoApplication::theLinkWorksAndRecovers()
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

void NoApplication::theCommunicationStopsAndStartsAgain()
{
    LinkProbe core;
    for (int port = 1; port <= 3; ++port) {
        QVERIFY(core.connectIdle(port));
        core.stop();
        QVERIFY(!core.isRunning());
        QCOMPARE(core.status(), DriverState::DISCONNECTED);
    }
}

void NoApplication::aCoreIsDestroyedWhileItRuns()
{
    const auto driver = QSharedPointer<RecordingDriver>::create();
    {
        LinkProbe core(driver);
        QVERIFY(core.connectIdle());
    }
    QCOMPARE(driver->closes(), 1);
}

QTEST_APPLESS_MAIN(NoApplication)
#include "tst_link_noapp.moc"
