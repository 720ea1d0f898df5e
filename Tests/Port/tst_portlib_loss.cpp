// SPDX-License-Identifier: MIT
#include "PortFixture.h"

#include <QRegularExpression>
#include <QSignalSpy>

/** A link that is lost in the middle of what a port does, and what is left of it. */
class PortLibLossTest : public QObject
{
    Q_OBJECT

private slots:
    void aLossIsToldWithWhatItTookAlong();
    void aLossBetweenTwoLooksIsStillTold();
    void aLossEndsEveryWait();
    void bytesOfAnOldLinkAreNotMixedWithNewOnes();
    void withoutReopenALossIsTheEnd();
    void aStopOfTheLibraryIsALoss();
    void aLinkThatComesUpUnannounced();
    void aCloseWritesWhatItCanAndTellsTheRest();
    void aCloseLeavesNoDelayBehind();
};

void PortLibLossTest::aLossIsToldWithWhatItTookAlong()
{
    PortFixture fixture;
    QStringList seen;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    watchSignals(&port, [&](const QString &text) { seen += text; });
    fixture.host.send(1, "unread");
    QTRY_COMPARE_WITH_TIMEOUT(port.bytesAvailable(), 6, 20000);
    QVERIFY(fixture.host.pause());
    // Both in the library's queue and in the port's own.
    QCOMPARE(port.write(QByteArray(300000, 'x')), 300000);
    seen.clear();
    QVERIFY(fixture.loseHost());
    QTRY_VERIFY_WITH_TIMEOUT(seen.contains("disconnected"), 20000);
    qint64 lost = 0;
    qint64 written = 0;
    for (const QString &text : qAsConst(seen)) {
        lost += text.startsWith("lost") ? text.section(' ', 1).toInt() : 0;
        written += text.startsWith("written") ? text.section(' ', 1).toInt() : 0;
    }
    QCOMPARE(lost + written, 300000);
    QVERIFY(lost > 250000);
    seen = seen.filter(QRegularExpression("^[^w]"));
    QCOMPARE(seen,
             QStringList({"error 6", "state 1", "lost " + QString::number(lost), "disconnected"}));
    QCOMPARE(port.bytesToWrite(), 0);
    QVERIFY(port.errorString().contains("lost the USB host"));
    QCOMPARE(port.read(2), QByteArray("un"));
    // Written for the next link.
    QCOMPARE(port.write("afresh"), 6);
    seen.clear();
    fixture.host.plugIn();
    QTRY_VERIFY_WITH_TIMEOUT(seen.contains("written 6"), 20000);
    QCOMPARE(seen, QStringList({"state 2", "connected", "written 6"}));
    QTRY_VERIFY_WITH_TIMEOUT(fixture.host.received(1).endsWith("afresh"), 20000);
    QCOMPARE(port.droppedBytes(), 4);
    QCOMPARE(port.bytesAvailable(), 0);
}

void PortLibLossTest::aLossBetweenTwoLooksIsStillTold()
{
    PortFixture fixture;
    QStringList seen;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    watchSignals(&port, [&](const QString &text) { seen += text; });
    UsbHALIntf *const hal = UsbHALIntf::getInstance();
    QVERIFY(fixture.loseHost());
    fixture.host.plugIn();
    QVERIFY(hal->waitForConnected(20000));
    QCOMPARE(seen, QStringList());
    QTRY_VERIFY_WITH_TIMEOUT(seen.contains("connected"), 20000);
    QCOMPARE(seen, QStringList({"error 6", "state 1", "disconnected", "state 2", "connected"}));
}

void PortLibLossTest::aLossEndsEveryWait()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    QVERIFY(fixture.host.pause());
    port.write(QByteArray(300000, 'x'));
    QVERIFY(fixture.loseHost());
    while (port.waitForBytesWritten(20000)) {
    }
    QCOMPARE(port.state(), UsbHalPort::ConnectingState);
    fixture.host.plugIn();
    QVERIFY(port.waitForConnected(20000));
    QVERIFY(fixture.loseHost());
    QVERIFY(port.waitForDisconnected(20000));
    QVERIFY(port.waitForDisconnected(0));
    // A port that does not come back has nothing to wait for.
    fixture.host.plugIn();
    QVERIFY(port.waitForConnected(20000));
    port.setReopen(false);
    QVERIFY(fixture.loseHost());
    QVERIFY(!port.waitForReadyRead(-1));
    QVERIFY(!port.waitForConnected(-1));
    QCOMPARE(port.state(), UsbHalPort::UnconnectedState);
}

void PortLibLossTest::bytesOfAnOldLinkAreNotMixedWithNewOnes()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    fixture.host.send(1, "half a mess");
    QVERIFY(port.waitForReadyRead(20000));
    // QIODevice keeps what was peeked at and what a transaction has read.
    QCOMPARE(port.peek(4), QByteArray("half"));
    port.startTransaction();
    QCOMPARE(port.read(6), QByteArray("half a"));
    QVERIFY(fixture.loseLink());
    QVERIFY(port.waitForDisconnected(20000));
    QVERIFY(port.waitForConnected(20000));
    QCOMPARE(port.bytesAvailable(), 0);
    QCOMPARE(port.droppedBytes(), 11);
    QVERIFY(port.isTransactionStarted());
    QTRY_VERIFY_WITH_TIMEOUT(fixture.host.isEstablished(), 20000);
    fixture.host.send(1, "whole message");
    QVERIFY(port.waitForReadyRead(20000));
    QCOMPARE(port.readAll(), QByteArray("whole message"));
    port.rollbackTransaction();
    QCOMPARE(port.readAll(), QByteArray("whole message"));
}

void PortLibLossTest::withoutReopenALossIsTheEnd()
{
    PortFixture fixture;
    QStringList seen;
    UsbHalPort port(1);
    port.setReopen(false);
    QVERIFY(fixture.connect(port));
    fixture.host.send(1, "last words");
    QVERIFY(port.waitForReadyRead(20000));
    watchSignals(&port, [&](const QString &text) { seen += text; });
    QVERIFY(fixture.loseLink());
    QTRY_VERIFY_WITH_TIMEOUT(seen.contains("disconnected"), 20000);
    QCOMPARE(seen, QStringList({"error 6", "state 0", "finished", "disconnected"}));
    QCOMPARE(UsbHALIntf::getInstance()->nbClients(), 0u);
    QVERIFY(port.isOpen());
    QCOMPARE(port.write("x"), -1);
    QCOMPARE(port.readAll(), QByteArray("last words"));
    char byte;
    QCOMPARE(port.read(&byte, 1), -1);
    QVERIFY(!port.open(QIODevice::ReadWrite));
    port.close();
    QVERIFY(fixture.connect(port));
    port.write("afresh");
    QVERIFY(fixture.host.waitForReceived(1, "afresh"));
}

void PortLibLossTest::aStopOfTheLibraryIsALoss()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    UsbHALIntf *const hal = UsbHALIntf::getInstance();
    QVERIFY(fixture.host.pause());
    port.write("lost");
    QSignalSpy lost(&port, &UsbHalPort::bytesLost);
    hal->stop();
    QVERIFY(port.waitForDisconnected(20000));
    QCOMPARE(lost.value(0).value(0).toInt(), 4);
    QCOMPARE(port.state(), UsbHalPort::ConnectingState);
    fixture.host.resume();
    // What begins the communication again is an open.
    port.close();
    QVERIFY(port.open(QIODevice::ReadWrite));
    QVERIFY(port.waitForConnected(20000));
    port.write("after");
    QVERIFY(fixture.host.waitForReceived(1, "after"));
}

void PortLibLossTest::aLinkThatComesUpUnannounced()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    QVERIFY(fixture.loseHost());
    QVERIFY(port.waitForDisconnected(20000));
    // A host that begins with the announcement of a port that nobody has opened.
    const QByteArray announcement = QByteArray("FADA000150009DEVICE_CONN").toHex();
    QVERIFY(fixture.command("inject " + announcement.toStdString()));
    QVERIFY(port.waitForConnected(20000));
    QCOMPARE(UsbHALIntf::getInstance()->socketStatus(1), SocketState::OPENED);
    QCOMPARE(UsbHALIntf::getInstance()->nbClients(), 1u);
}

void PortLibLossTest::aCloseWritesWhatItCanAndTellsTheRest()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    qint64 told = 0;
    qint64 lost = 0;
    connect(&port, &UsbHalPort::bytesWritten, [&](qint64 size) { told += size; });
    connect(&port, &UsbHalPort::bytesLost, [&](qint64 size) {
        told += size;
        lost += size;
    });
    // In the 300 ms of a close a busy machine may not come to the node.
    for (int attempt = 0; attempt < 20; ++attempt) {
        told = 0;
        lost = 0;
        port.write("goodbye");
        port.close();
        QCOMPARE(told, 7);
        QVERIFY(port.open(QIODevice::ReadWrite));
        QVERIFY(port.waitForConnected(20000));
        if (lost == 0)
            break;
    }
    QCOMPARE(lost, 0);
    QTRY_VERIFY_WITH_TIMEOUT(fixture.host.received(1).endsWith("goodbye"), 20000);
    told = 0;
    port.write(QByteArray(500000, 'x'));
    port.close();
    QCOMPARE(told, 500000);
    QVERIFY(lost > 100000);
    QCOMPARE(port.bytesToWrite(), 0);
}

void PortLibLossTest::aCloseLeavesNoDelayBehind()
{
    PortFixture fixture;
    UsbHalPort other(2);
    UsbHalPort port(1);
    QVERIFY(fixture.connect(other));
    QVERIFY(fixture.connect(port));
    port.setReadBufferSize(1000);
    // Of bytes that a close discards, the library takes off those before the first zero byte only.
    fixture.host.send(1, QByteArray(400000, '\0'));
    QTRY_VERIFY_WITH_TIMEOUT(fixture.host.isDelayed(), 20000);
    port.close();
    QTRY_VERIFY_WITH_TIMEOUT(!fixture.host.isDelayed(), 20000);
    fixture.host.send(2, "on");
    QVERIFY(other.waitForReadyRead(20000));
    QCOMPARE(other.readAll(), QByteArray("on"));
}

QTEST_GUILESS_MAIN(PortLibLossTest)
#include "tst_portlib_loss.moc"
