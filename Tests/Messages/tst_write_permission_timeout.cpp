// SPDX-License-Identifier: MIT
//
// The wait of a host's write ends after half a minute. This program has QElapsedTimer run on a
// clock that the test sets forward, so that the half minute passes at once.

#include "MessageCore.h"

#include <QTest>

#include <atomic>
#include <thread>
#include <time.h>

namespace {

std::atomic<qint64> clockAdvance{0}; // ms

} // namespace

qint64 QElapsedTimer::elapsed() const noexcept
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const qint64 msecs = qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    return msecs - msecsSinceReference() + clockAdvance;
}

class WritePermissionTimeoutTest : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { clockAdvance = 0; }

    void theTimersRunOnTheClockOfThisTest();
    void aWriteThatIsNotPermittedQueuesAfterHalfAMinute_data();
    void aWriteThatIsNotPermittedQueuesAfterHalfAMinute();
};

void WritePermissionTimeoutTest::theTimersRunOnTheClockOfThisTest()
{
    QElapsedTimer timer;
    timer.start();
    const qint64 before = timer.elapsed();
    QVERIFY(before >= 0 && before < 5000);
    clockAdvance = 20000;
    QVERIFY(timer.elapsed() >= 20000);
}

void WritePermissionTimeoutTest::aWriteThatIsNotPermittedQueuesAfterHalfAMinute_data()
{
    QTest::addColumn<int>("messages");
    QTest::addColumn<QByteArray>("received");
    QTest::addColumn<QString>("line");
    QTest::newRow("full FIFO") << 10 << QByteArray("DEVICE_NODATA")
                               << QString("write: wait for FIFO to empty (10)...");
    QTest::newRow("busy device") << 0 << QByteArray("DEVICE_WTSEND")
                                 << QString("write: wait for device to finish reading...");
}

void WritePermissionTimeoutTest::aWriteThatIsNotPermittedQueuesAfterHalfAMinute()
{
    QFETCH(int, messages);
    QFETCH(QByteArray, received);
    QFETCH(QString, line);
    MessageCore core;
    core.playsHost = true;
    core.setupConfig(core.setup);
    core.setPort(1, SocketState::OPENED);
    QVERIFY(core.receive(received));
    core.locked([&](QMutexLocker &) {
        for (int i = 0; i < messages; ++i)
            core._writeFifo.append(dataMessage(1, "x"));
    });
    const auto wakeWriterAt = [&core](qint64 advance) {
        core.locked([&](QMutexLocker &) {
            clockAdvance = advance;
            core._writeAllowedCond.wakeAll();
        });
    };

    std::atomic<int> queued{-1};
    std::thread client([&] { queued = core.write(1, "abc"); });
    const bool waited = core.log.waitFor(line, 1);
    wakeWriterAt(20000);
    const bool waitedAgain = core.log.waitFor(line, 2);
    const int queuedEarly = queued;
    wakeWriterAt(30000);
    client.join();

    QVERIFY(waited && waitedAgain);
    QCOMPARE(queuedEarly, -1);
    QCOMPARE(queued.load(), 3);
    QCOMPARE(core.bytesToWrite(), messages + 1);
    QCOMPARE(core.fifo().last(), dataMessage(1, "abc"));
    QVERIFY(!core._writerWaiting);
    QCOMPARE(core.log.count(line), 2);
    QVERIFY(core.log.lines().filter("write permission granted").isEmpty());
}

QTEST_GUILESS_MAIN(WritePermissionTimeoutTest)
#include "tst_write_permission_timeout.moc"
