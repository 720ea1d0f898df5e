// SPDX-License-Identifier: MIT
#include "MessageCore.h"

#include <SignalRecorder.h>

#include <QTest>

#include <atomic>
#include <limits>
#include <thread>

namespace {

QList<int> payloadSizes(const QList<QByteArray> &messages)
{
    QList<int> sizes;
    for (const QByteArray &message : messages)
        sizes.append(message.size() - 13);
    return sizes;
}

} // namespace

class MessageWritingTest : public QObject
{
    Q_OBJECT

private slots:
    void bytesAreCutIntoMessagesOfOneWriteEach();
    void theMessagesCarryTheBytesInTheirOrder();
    void everyQueuedMessageIsLogged();
    void aMessageThatFillsTheWriteStaysWhole();
    void withoutADriverAPayloadHas487Bytes();
    void thePayloadLimitLeavesRoomForTheHeader_data();
    void thePayloadLimitLeavesRoomForTheHeader();
    void aLimitBelowOneByteQueuesNothing_data();
    void aLimitBelowOneByteQueuesNothing();
    void theLengthFieldNeverNeedsASixthDigit();
    void portsShareTheFifoInTheOrderOfTheirWrites();
    void noBytesQueueNothing();
    void aPortThatIsNotUsableQueuesNothing_data();
    void aPortThatIsNotUsableQueuesNothing();
    void theFifoTakesAHundredMessages();
    void aFullFifoTakesNothing();
    void theDeviceDoesNotWaitForPermission();

    void flushWithoutTimeOnlyLooks_data();
    void flushWithoutTimeOnlyLooks();
    void flushOfAnEmptyFifoReturnsAtOnce();
    void flushEndsWithItsTime();
    void flushEndsWhenTheFifoWasEmptied();
    void flushSeesAnEmptiedFifoAtTheEndOfItsTime();

    void theMessagesOfOnePortAreRemovedInOrder();
    void onlyWholeMessagesOfThePortAreRemoved();
    void clearingEmptiesTheFifo();
};

void MessageWritingTest::bytesAreCutIntoMessagesOfOneWriteEach()
{
    MessageCore core;
    core.setup.maxWriteSize = 1013;
    QVERIFY(core.start());
    QCOMPARE(core.getMaxWriteSize(), 1000);
    QCOMPARE(core.bytesToWrite(), 0);
    QCOMPARE(core.write(1, QByteArray(2500, 'w')), 2500);
    QCOMPARE(core.bytesToWrite(), 3);
    QCOMPARE(payloadSizes(core.fifo()), (QList<int>{1000, 1000, 500}));
}

void MessageWritingTest::theMessagesCarryTheBytesInTheirOrder()
{
    MessageCore core;
    core.setup.maxWriteSize = 1013;
    QVERIFY(core.start({7}));
    const QByteArray data = patternBytes(2500);
    QCOMPARE(core.write(7, data), 2500);
    QCOMPARE(core.fifo(), (QList<QByteArray>{"FADA010040007" + data.left(1000),
                                             "FADA010040007" + data.mid(1000, 1000),
                                             "FADA005040007" + data.mid(2000)}));
}

void MessageWritingTest::everyQueuedMessageIsLogged()
{
    MessageCore core;
    core.setup.maxWriteSize = 1013;
    QVERIFY(core.start());
    QCOMPARE(core.write(1, QByteArray(1500, 'w')), 1500);
    QCOMPARE(core.logged({"write"}),
             (QStringList{"write: Add to write queue message of size: 1013",
                          "write: Remaining frame size = 500 is empty = false",
                          "write: Continue...", "write: Add to write queue message of size: 513",
                          "write: Remaining frame size = 0 is empty = true"}));
}

void MessageWritingTest::aMessageThatFillsTheWriteStaysWhole()
{
    MessageCore core;
    core.setup.maxWriteSize = 113;
    QVERIFY(core.start());
    QCOMPARE(core.write(1, QByteArray(100, 'w')), 100);
    QCOMPARE(core.write(1, QByteArray(101, 'w')), 101);
    QCOMPARE(payloadSizes(core.fifo()), (QList<int>{100, 100, 1}));
}

void MessageWritingTest::withoutADriverAPayloadHas487Bytes()
{
    MessageCore core;
    core.driver->failOpens(-1);
    core.setupConfig(core.setup);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.receive("DEVICE_NODATA"));
    QCOMPARE(core.getMaxWriteSize(), 0);
    QCOMPARE(core.write(1, QByteArray(1000, 'w')), 1000);
    QCOMPARE(payloadSizes(core.fifo()), (QList<int>{487, 487, 26}));
}

void MessageWritingTest::thePayloadLimitLeavesRoomForTheHeader_data()
{
    QTest::addColumn<quint32>("maxWriteSize");
    QTest::addColumn<int>("limit");
    QTest::newRow("one byte") << 14U << 1;
    QTest::newRow("usual") << 10000U << 9987;
    QTest::newRow("above the setter's bound") << 50000U << 49987;
}

void MessageWritingTest::thePayloadLimitLeavesRoomForTheHeader()
{
    QFETCH(quint32, maxWriteSize);
    QFETCH(int, limit);
    MessageCore core;
    core.setup.maxWriteSize = maxWriteSize;
    QVERIFY(core.start());
    QCOMPARE(core.getMaxWriteSize(), limit);
    QCOMPARE(core.write(1, QByteArray(limit + 1, 'w')), limit + 1);
    QCOMPARE(payloadSizes(core.fifo()), (QList<int>{limit, 1}));
}

void MessageWritingTest::aLimitBelowOneByteQueuesNothing_data()
{
    QTest::addColumn<quint32>("maxWriteSize");
    QTest::newRow("header only") << 13U;
    QTest::newRow("less than a header") << 12U;
    QTest::newRow("nothing") << 0U;
}

void MessageWritingTest::aLimitBelowOneByteQueuesNothing()
{
    QFETCH(quint32, maxWriteSize);
    MessageCore core;
    core.setup.maxWriteSize = maxWriteSize;
    QVERIFY(core.start());
    QCOMPARE(core.getMaxWriteSize(), static_cast<int>(maxWriteSize) - 13);
    QCOMPARE(core.write(1, "abc"), 0);
    QCOMPARE(core.bytesToWrite(), 0);
    QCOMPARE(core.logged({"write"}).size(), 1);
}

void MessageWritingTest::theLengthFieldNeverNeedsASixthDigit()
{
    MessageCore core;
    core.setup.maxWriteSize = std::numeric_limits<quint32>::max();
    QVERIFY(core.start());
    const QByteArray data = patternBytes(100000);
    QCOMPARE(core.write(1, data), 100000);
    QCOMPARE(core.fifo(), (QList<QByteArray>{"FADA999990001" + data.left(99995),
                                             "FADA000090001" + data.mid(99995)}));
}

void MessageWritingTest::portsShareTheFifoInTheOrderOfTheirWrites()
{
    MessageCore core;
    QVERIFY(core.start({1, 2}));
    QCOMPARE(core.write(2, "b"), 1);
    QCOMPARE(core.write(1, "a"), 1);
    QCOMPARE(core.write(2, "c"), 1);
    QCOMPARE(core.fifo(),
             (QList<QByteArray>{dataMessage(2, "b"), dataMessage(1, "a"), dataMessage(2, "c")}));
}

void MessageWritingTest::noBytesQueueNothing()
{
    MessageCore core;
    QVERIFY(core.start());
    QCOMPARE(core.write(1, QByteArray()), 0);
    QCOMPARE(core.bytesToWrite(), 0);
    QVERIFY(core.logged({"write"}).isEmpty());
}

void MessageWritingTest::aPortThatIsNotUsableQueuesNothing_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<bool>("linkUp");
    QTest::newRow("unknown port") << 99 << true;
    QTest::newRow("closed port") << 2 << true;
    QTest::newRow("disconnected port") << 3 << true;
    QTest::newRow("link down") << 1 << false;
}

void MessageWritingTest::aPortThatIsNotUsableQueuesNothing()
{
    QFETCH(int, port);
    QFETCH(bool, linkUp);
    MessageCore core;
    QVERIFY(core.start({1, 2, 3}));
    QVERIFY(core.closeConnection(2));
    core.peerDisconnected(3);
    if (!linkUp)
        core.locked(
            [&](QMutexLocker &locker) { core._updateStatus(DriverState::DISCONNECTED, locker); });
    SignalRecorder record(&core);
    QCOMPARE(core.write(port, "abc"), 0);
    QCOMPARE(core.bytesToWrite(), 0);
    QVERIFY(core.logged({"write"}).isEmpty());
    QVERIFY(record.all().isEmpty());
}

void MessageWritingTest::theFifoTakesAHundredMessages()
{
    MessageCore core;
    core.setup.maxWriteSize = 113;
    QVERIFY(core.start());
    QCOMPARE(core.write(1, QByteArray(9900, 'w')), 9900);
    QCOMPARE(core.bytesToWrite(), 99);
    const int before = core.logged({"write"}).size();

    QCOMPARE(core.write(1, QByteArray(300, 'x')), 100);

    QCOMPARE(core.bytesToWrite(), 100);
    QCOMPARE(core.fifo().last(), dataMessage(1, QByteArray(100, 'x')));
    // The three lines of the queued message and one of the limit.
    const QStringList lines = core.logged({"write"}).mid(before);
    QCOMPARE(lines.size(), 4);
    QCOMPARE(lines.mid(0, 3), (QStringList{"write: Add to write queue message of size: 113",
                                           "write: Remaining frame size = 200 is empty = false",
                                           "write: Continue..."}));
    QVERIFY(lines.last().contains("limit"));
}

void MessageWritingTest::aFullFifoTakesNothing()
{
    MessageCore core;
    core.setup.maxWriteSize = 113;
    QVERIFY(core.start({1, 2}));
    QCOMPARE(core.write(1, QByteArray(10000, 'w')), 10000);
    SignalRecorder record(&core);
    const int before = core.logged({"write"}).size();
    QCOMPARE(core.write(2, "abc"), 0);
    QCOMPARE(core.bytesToWrite(), 100);
    QCOMPARE(core.logged({"write"}).size(), before + 1);
    QVERIFY(record.all().isEmpty());
}

void MessageWritingTest::theDeviceDoesNotWaitForPermission()
{
    MessageCore core;
    core.setup.maxWriteFifoSize = 1;
    QVERIFY(core.start());
    QVERIFY(core.receive("DEVICE_WTSEND"));
    QVERIFY(core.peerBusy());
    for (int i = 0; i < 5; ++i)
        QCOMPARE(core.write(1, "abc"), 3);
    QCOMPARE(core.bytesToWrite(), 5);
    const QStringList lines = core.logged({"write"});
    QVERIFY(lines.filter("wait for").isEmpty());
}

void MessageWritingTest::flushWithoutTimeOnlyLooks_data()
{
    QTest::addColumn<int>("msecs");
    QTest::newRow("zero") << 0;
    QTest::newRow("negative") << -1;
    QTest::newRow("lowest") << std::numeric_limits<int>::min();
}

void MessageWritingTest::flushWithoutTimeOnlyLooks()
{
    QFETCH(int, msecs);
    MessageCore core;
    QVERIFY(core.start());
    for (int i = 0; i < 3; ++i)
        QCOMPARE(core.write(1, "abc"), 3);
    core.flush(msecs);
    QCOMPARE(core.logged({"flush"}),
             QStringList{"flush: FIFO is not empty (3), leaving in timeout"});
    QCOMPARE(core.bytesToWrite(), 3);
}

void MessageWritingTest::flushOfAnEmptyFifoReturnsAtOnce()
{
    MessageCore core;
    QVERIFY(core.start());
    core.flush(0);
    core.flush(3600000);
    QCOMPARE(core.logged({"flush"}),
             (QStringList{"flush: FIFO write is empty (0)", "flush: FIFO write is empty (0)"}));
}

void MessageWritingTest::flushEndsWithItsTime()
{
    MessageCore core;
    QVERIFY(core.start());
    QCOMPARE(core.write(1, "abc"), 3);
    QElapsedTimer timer;
    timer.start();
    core.flush(50);
    QVERIFY(timer.elapsed() >= 49);
    QCOMPARE(core.logged({"flush"}),
             QStringList{"flush: FIFO is not empty (1), leaving in timeout"});
}

void MessageWritingTest::flushEndsWhenTheFifoWasEmptied()
{
    MessageCore core;
    QVERIFY(core.start());
    QCOMPARE(core.write(1, "abc"), 3);
    std::atomic<bool> ended{false};
    std::thread client([&] {
        core.flush(60000);
        ended = true;
    });
    core.locked([&](QMutexLocker &) { core._clearWriteFifo(); });
    const bool woken = QTest::qWaitFor([&] {
        core._fifoEmptyCond.wakeOne();
        return ended.load();
    });
    client.join();
    QVERIFY(woken);
    QCOMPARE(core.logged({"flush"}), QStringList{"flush: FIFO write is empty (0)"});
}

void MessageWritingTest::flushSeesAnEmptiedFifoAtTheEndOfItsTime()
{
    MessageCore core;
    QVERIFY(core.start());
    QCOMPARE(core.write(1, "abc"), 3);
    std::thread client([&] { core.flush(300); });
    core.locked([&](QMutexLocker &) { core._clearWriteFifo(); });
    client.join();
    QCOMPARE(core.logged({"flush"}), QStringList{"flush: FIFO write is empty (0)"});
}

void MessageWritingTest::theMessagesOfOnePortAreRemovedInOrder()
{
    MessageCore core;
    QVERIFY(core.start({1, 2, 3}));
    const QList<int> ports{1, 2, 1, 2, 3};
    for (int i = 0; i < ports.size(); ++i)
        QCOMPARE(core.write(ports[i], QByteArray::number(i)), 1);
    const auto clear = [&core](int port) {
        return core.locked([&](QMutexLocker &) { return core._clearWriteFifoForPort(port); });
    };
    QCOMPARE(clear(2), 2);
    const QList<QByteArray> left{dataMessage(1, "0"), dataMessage(1, "2"), dataMessage(3, "4")};
    QCOMPARE(core.fifo(), left);
    QCOMPARE(clear(2), 0);
    QCOMPARE(clear(99), 0);
    QCOMPARE(core.fifo(), left);
    QCOMPARE(clear(1), 2);
    QCOMPARE(clear(3), 1);
    QVERIFY(core.fifo().isEmpty());
}

void MessageWritingTest::onlyWholeMessagesOfThePortAreRemoved()
{
    MessageCore core;
    const QList<QByteArray> others{
        "",
        "FAD",
        "DEVICE_NODATA",
        "FADA",
        "FADAabcde0002x",  // length not decimal
        "FADA000050002xy", // longer than its length
        "FADA000050002",   // shorter than its length
        "FADA00005ab02x",  // id not decimal
        "FADA0000510000x", // id of five digits
        "FADA000050003x",  // another port
    };
    core.locked([&](QMutexLocker &) {
        core._writeFifo = others;
        core._writeFifo.insert(3, "FADA000050002x");
        core._writeFifo.append("FADA000040002");
    });
    const int removed = core.locked([&](QMutexLocker &) { return core._clearWriteFifoForPort(2); });
    QCOMPARE(removed, 2);
    QCOMPARE(core.fifo(), others);
    core.locked([&](QMutexLocker &) { core._clearWriteFifoForPort(10000); });
    QCOMPARE(core.fifo(), others);
}

void MessageWritingTest::clearingEmptiesTheFifo()
{
    MessageCore core;
    QVERIFY(core.start({1, 2}));
    QCOMPARE(core.write(1, "abc"), 3);
    QCOMPARE(core.write(2, "abc"), 3);
    core.locked([&](QMutexLocker &) { core._clearWriteFifo(); });
    QCOMPARE(core.bytesToWrite(), 0);
}

QTEST_GUILESS_MAIN(MessageWritingTest)
#include "tst_message_writing.moc"
