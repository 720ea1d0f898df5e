// SPDX-License-Identifier: MIT
#include "MessageCore.h"

#include <SignalRecorder.h>

#include <QTest>

#include <atomic>
#include <thread>

namespace {

/** A core in the host role with one open port and the link up, without a communication thread. */
class HostCore : public MessageCore
{
public:
    HostCore()
    {
        playsHost = true;
        setupConfig(setup);
        setPort(1, SocketState::OPENED);
        locked([this](QMutexLocker &) {
            _hwDriver = driver.data();
            _driverState = DriverState::CONNECTED;
        });
    }

    void fillFifo(int messages)
    {
        locked([&](QMutexLocker &) {
            _writeFifo.clear();
            for (int i = 0; i < messages; ++i)
                _writeFifo.append(dataMessage(1, QByteArray::number(i)));
        });
    }

    /** What the communication thread does at the end of each of its passes. */
    void endPass()
    {
        locked([this](QMutexLocker &) { _grantWriters(); });
    }

    bool waitForWriter(const QString &line, int times = 1)
    {
        const auto isWaiting = [this] {
            return locked([this](QMutexLocker &) { return _writerWaiting; });
        };
        return log.waitFor(line, times) && QTest::qWaitFor(isWaiting);
    }
};

const QString granted("_connectedFunc: write permission granted");

} // namespace

class HostMessagesTest : public QObject
{
    Q_OBJECT

private slots:
    void theDevicesMaxReadSizeBecomesTheMaxWriteSize();
    void theMaxWriteSizeIsBoundByTheDriver();
    void theMaxWriteSizeIsTakenWithoutADriver();
    void theMaxWriteSizeIsTakenOncePerConnection();
    void anInvalidMaxWriteSizeIsLoggedAndSkipped_data();
    void anInvalidMaxWriteSizeIsLoggedAndSkipped();
    void theNumberIsTakenFromTheEndOfTheBuffer();
    void noDataNeverTakesMoreThanTheBuffer_data();
    void noDataNeverTakesMoreThanTheBuffer();
    void noDataClearsThePeersRequestForDelay();
    void anyAcceptedMessageMarksTheLinkConnected();
    void dataIsDeliveredAsOnTheDevice();

    void aWriteWaitsForAFullFifo();
    void aWriteWaitsForABusyDevice();
    void aWriteWaitsForBothInTurn();
    void aWriteBelowTheThresholdDoesNotWait();
    void aWriteToAClosedPortDoesNotWait();
    void permissionIsGrantedToWaitingWritersOnly();
    void writersAreWokenByTheCommunicationThread();
};

void HostMessagesTest::theDevicesMaxReadSizeBecomesTheMaxWriteSize()
{
    HostCore core;
    QVERIFY(core.receive("DEVICE_NODATA00512"));
    QCOMPARE(core.driver->getMaxWriteSize(), 512U);
    QCOMPARE(core.getMaxWriteSize(), 499);
    QVERIFY(core._maxSizeExchanged);
    QCOMPARE(core.logged({"_processMessage", "_processAllMessages"}),
             QStringList{"_processMessage: max write size set to 512"});
}

void HostMessagesTest::theMaxWriteSizeIsBoundByTheDriver()
{
    HostCore core;
    QVERIFY(core.receive("DEVICE_NODATA40000"));
    QCOMPARE(core.driver->getMaxWriteSize(), 31000U);
    QVERIFY(core.log.contains("_processMessage: max write size set to 40000"));
}

void HostMessagesTest::theMaxWriteSizeIsTakenWithoutADriver()
{
    HostCore core;
    core.locked([&](QMutexLocker &) { core._hwDriver = nullptr; });
    QVERIFY(core.receive("DEVICE_NODATA00512"));
    QCOMPARE(core.driver->getMaxWriteSize(), 10000U);
    QVERIFY(core._maxSizeExchanged);
    QVERIFY(core.log.contains("_processMessage: max write size set to 512"));
}

void HostMessagesTest::theMaxWriteSizeIsTakenOncePerConnection()
{
    HostCore core;
    QVERIFY(core.receive("DEVICE_NODATA00512"));
    QVERIFY(core.receive("DEVICE_NODATA01024"));
    QVERIFY(core.receive("DEVICE_NODATAabcde"));
    QCOMPARE(core.driver->getMaxWriteSize(), 512U);
    QCOMPARE(core.logged({"_processMessage", "_processAllMessages"}).size(), 1);
    core.peerDisconnected(1);
    QVERIFY(core.receive("DEVICE_NODATA01024"));
    QCOMPARE(core.driver->getMaxWriteSize(), 1024U);
}

void HostMessagesTest::anInvalidMaxWriteSizeIsLoggedAndSkipped_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("none") << QByteArray("DEVICE_NODATA");
    QTest::newRow("zero") << QByteArray("DEVICE_NODATA00000");
    QTest::newRow("letters") << QByteArray("DEVICE_NODATAabcde");
    QTest::newRow("sign") << QByteArray("DEVICE_NODATA+0512");
    QTest::newRow("negative") << QByteArray("DEVICE_NODATA-0512");
    QTest::newRow("blanks") << QByteArray("DEVICE_NODATA  512");
    QTest::newRow("cut") << QByteArray("DEVICE_NODATA0051");
    QTest::newRow("data behind") << "DEVICE_NODATA00512" + dataMessage(1, "abc");
    QTest::newRow("zero byte behind")
        << "DEVICE_NODATA00512" + dataMessage(1, "ab" + QByteArray(1, '\0'));
}

void HostMessagesTest::anInvalidMaxWriteSizeIsLoggedAndSkipped()
{
    QFETCH(QByteArray, message);
    HostCore core;
    QVERIFY(core.receive(message));
    QCOMPARE(core.driver->getMaxWriteSize(), 10000U);
    QVERIFY(!core._maxSizeExchanged);
    const QString text = QString(message).section(QChar(0), 0, 0);
    QCOMPARE(core.logged({"_processMessage"}),
             QStringList{"_processMessage: max write size is invalid : " + text});
    QCOMPARE(core.queuedMessages(1), message.size() > 18 ? 1 : 0);
}

void HostMessagesTest::theNumberIsTakenFromTheEndOfTheBuffer()
{
    HostCore core;
    QVERIFY(core.receive("DEVICE_NODATA10000" + dataMessage(1, "00512")));
    QCOMPARE(core.driver->getMaxWriteSize(), 512U);
    QCOMPARE(core.read(1, 100), QByteArray("00512"));
}

void HostMessagesTest::noDataNeverTakesMoreThanTheBuffer_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<unsigned int>("consumed");
    QTest::newRow("bare") << QByteArray("DEVICE_NODATA") << 13U;
    QTest::newRow("two digits") << QByteArray("DEVICE_NODATA12") << 15U;
    QTest::newRow("five digits") << QByteArray("DEVICE_NODATA00512") << 18U;
    QTest::newRow("data behind") << "DEVICE_NODATA00512" + dataMessage(1, "abc") << 18U;
    QTest::newRow("data in place of the number") << "DEVICE_NODATA" + dataMessage(1, "abc") << 18U;
}

void HostMessagesTest::noDataNeverTakesMoreThanTheBuffer()
{
    QFETCH(QByteArray, message);
    for (const bool exchanged : {false, true}) {
        HostCore core;
        core._maxSizeExchanged = exchanged;
        unsigned int consumed = 0;
        QVERIFY(core.locked(
            [&](QMutexLocker &locker) { return core._processMessage(message, locker, consumed); }));
        QTEST(consumed, "consumed");
    }
}

void HostMessagesTest::noDataClearsThePeersRequestForDelay()
{
    HostCore core;
    QVERIFY(core.receive(dataMessage(1, "abc") + "DEVICE_WTSEND"));
    QVERIFY(core.peerBusy());
    QVERIFY(!core.receive("DEVICE_WTSENDx"));
    QVERIFY(core.peerBusy());
    QVERIFY(core.receive("DEVICE_NODATA"));
    QVERIFY(!core.peerBusy());
    QVERIFY(core.receive("DEVICE_WTSEND"));
    QVERIFY(core.receive("DEVICE_NODATA10000"));
    QVERIFY(!core.peerBusy());
}

void HostMessagesTest::anyAcceptedMessageMarksTheLinkConnected()
{
    HostCore core;
    core.loseLink();
    SignalRecorder record(&core);
    QVERIFY(core.receive("DEVICE_NODATA10000"));
    QCOMPARE(record.all(), (QStringList{"stateChanged(CONNECTED)", "connected", "connected(1)",
                                        "socketStateChanged(1,OPENED)"}));
}

void HostMessagesTest::dataIsDeliveredAsOnTheDevice()
{
    HostCore core;
    SignalRecorder record(&core);
    QVERIFY(!core.receive(dataMessage(1, "abc") + dataMessage(7, "lost") + "nonsense"));
    QCOMPARE(record.all(), QStringList{"readyRead(1)"});
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
}

void HostMessagesTest::aWriteWaitsForAFullFifo()
{
    HostCore core;
    core.fillFifo(10);
    int queued = -1;
    std::thread client([&] { queued = core.write(1, "abc"); });
    const bool waited = core.waitForWriter("write: wait for FIFO to empty (10)...");
    core.fillFifo(9);
    core.endPass();
    client.join();
    QVERIFY(waited);
    QCOMPARE(queued, 3);
    QCOMPARE(core.bytesToWrite(), 10);
    QCOMPARE(core.log.count(granted), 1);
    QVERIFY(!core._writerWaiting);
}

void HostMessagesTest::aWriteWaitsForABusyDevice()
{
    HostCore core;
    QVERIFY(core.receive("DEVICE_WTSEND"));
    int queued = -1;
    std::thread client([&] { queued = core.write(1, "abc"); });
    const bool waited = core.waitForWriter("write: wait for device to finish reading...");
    core.endPass();
    const int grantedWhileBusy = core.log.count(granted);
    core.receive("DEVICE_NODATA10000");
    core.endPass();
    client.join();
    QVERIFY(waited);
    QCOMPARE(grantedWhileBusy, 0);
    QCOMPARE(queued, 3);
    QCOMPARE(core.log.count(granted), 1);
}

void HostMessagesTest::aWriteWaitsForBothInTurn()
{
    HostCore core;
    core.fillFifo(12);
    QVERIFY(core.receive("DEVICE_WTSEND"));
    int queued = -1;
    std::thread client([&] { queued = core.write(1, "abc"); });
    const QString both("write: wait for FIFO to empty (12) and device to finish reading...");
    const QString full("write: wait for FIFO to empty (12)...");
    const bool waitedForBoth = core.waitForWriter(both);
    core.receive("DEVICE_NODATA10000");
    core.endPass();
    const bool waitedForFifo = core.waitForWriter(full);
    core.fillFifo(0);
    core.endPass();
    client.join();
    QVERIFY(waitedForBoth && waitedForFifo);
    QCOMPARE(queued, 3);
    QCOMPARE(core.fifo(), QList<QByteArray>{dataMessage(1, "abc")});
    QCOMPARE(core.logged({"write"}).mid(0, 2), (QStringList{both, full}));
}

void HostMessagesTest::aWriteBelowTheThresholdDoesNotWait()
{
    HostCore core;
    core.fillFifo(9);
    QCOMPARE(core.write(1, "abc"), 3);
    QCOMPARE(core.bytesToWrite(), 10);
    QVERIFY(core.logged({"write"}).filter("wait for").isEmpty());
}

void HostMessagesTest::aWriteToAClosedPortDoesNotWait()
{
    HostCore core;
    core.fillFifo(10);
    QVERIFY(core.receive("DEVICE_WTSEND"));
    QCOMPARE(core.write(2, "abc"), 0);
    QVERIFY(core.logged({"write"}).isEmpty());
}

void HostMessagesTest::permissionIsGrantedToWaitingWritersOnly()
{
    HostCore core;
    core.endPass();
    QCOMPARE(core.log.count(granted), 0);
}

void HostMessagesTest::writersAreWokenByTheCommunicationThread()
{
    MessageCore core;
    core.playsHost = true;
    core.setup.maxWriteFifoSize = 1;
    core.driver->setIdleHost(true);
    core.driver->releaseReads();
    core.setupConfig(core.setup);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.waitForConnected(5000));
    QList<QByteArray> sent;
    for (int i = 0; i < 5; ++i) {
        const QByteArray text = "message " + QByteArray::number(i);
        QCOMPARE(core.write(1, text), text.size());
        sent.append(dataMessage(1, text));
    }
    QVERIFY(core.driver->waitForWrite(sent.last()));
    QCOMPARE(core.driver->writtenData(), sent);
    // The thread is slower than the writes, so at least one of them found the FIFO full.
    QVERIFY(core.log.contains("write: wait for FIFO to empty (1)..."));
    QVERIFY(core.log.contains(granted));
}

QTEST_GUILESS_MAIN(HostMessagesTest)
#include "tst_host_messages.moc"
