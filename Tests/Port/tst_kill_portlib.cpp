// SPDX-License-Identifier: MIT
#include "PortFixture.h"

/** A communication thread that the watchdog has to kill beneath a port. */
class KillPortLibTest : public QObject
{
    Q_OBJECT

private slots:
    void unreadBytesOfBeforeARestartAreDropped();
};

void KillPortLibTest::unreadBytesOfBeforeARestartAreDropped()
{
    PortFixture fixture([](ParamHal &param) {
        param.maxWatchdogErrors = 80; // 4 s, in which a thread at work comes on
        param.mainLoopPeriod = 50;
        param.threadStopTimeout = 100;
    });
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    port.setReadBufferSize(10);
    // A part in the port, a part in the library, which keeps it through the restart.
    fixture.host.send(1, "ten bytes and more of the old link");
    QTRY_COMPARE_WITH_TIMEOUT(port.bytesAvailable(), 10, 20000);
    QVERIFY(fixture.command("read stuck 1"));
    QTRY_COMPARE_WITH_TIMEOUT(port.state(), UsbHalPort::ConnectingState, 30000);
    QVERIFY(port.waitForConnected(20000));
    QCOMPARE(port.bytesAvailable(), 0);
    QCOMPARE(port.droppedBytes(), 34);
    QTRY_VERIFY_WITH_TIMEOUT(fixture.host.isEstablished(), 20000);
    fixture.host.send(1, "new");
    QVERIFY(port.waitForReadyRead(20000));
    QCOMPARE(port.readAll(), QByteArray("new"));
}

QTEST_GUILESS_MAIN(KillPortLibTest)
#include "tst_kill_portlib.moc"
