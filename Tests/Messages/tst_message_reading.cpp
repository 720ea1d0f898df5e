// SPDX-License-Identifier: MIT
#include "MessageCore.h"

#include <QTest>

#include <atomic>
#include <limits>
#include <thread>

namespace {

constexpr unsigned int everything = std::numeric_limits<unsigned int>::max();

} // namespace

class MessageReadingTest : public QObject
{
    Q_OBJECT

private slots:
    void messagesAreReadOneByOne();
    void aPartOfAMessageLeavesTheRestAtTheHead();
    void theBytesBeforeAPartReadAreGone();
    void aPartReadCopiesNothingButThePart();
    void whatAReadOrAPeekReturnedOutlivesTheMessage();
    void zeroBytesCountLikeAnyOther();
    void aReadOfTheWholeHeadRemovesIt_data();
    void aReadOfTheWholeHeadRemovesIt();
    void aReadOfNoBytesRemovesNothing();
    void anEmptyMessageTakesOneRead();
    void aPortWithoutMessagesReadsEmpty();
    void aWholeMessageIsHandedOutWithoutACopy();
    void onlyMiddleSizedReadsAreLogged_data();
    void onlyMiddleSizedReadsAreLogged();

    void peekLeavesTheMessage_data();
    void peekLeavesTheMessage();
    void peekAtAnEmptyMessageIsEmpty();
    void readAllIsAlwaysEmptyAndTakesNoLock();
    void theByteCountIsThatOfTheHead();
    void theByteCountLooksAtNoState();

    void aPortThatIsNotUsableGivesNothing_data();
    void aPortThatIsNotUsableGivesNothing();

    void aWaitWithoutTimeOnlyLooks_data();
    void aWaitWithoutTimeOnlyLooks();
    void aWaitEndsWithItsTime();
    void aWaitEndsWithTheMessage();
    void aWaitGoesOnWhileAnEmptyMessageIsAtTheHead();
    void aWaitGoesOnAfterAMessageForAnotherPort();
    void aReaderInItsOwnThreadGetsEveryByteInOrder();
};

void MessageReadingTest::messagesAreReadOneByOne()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "abc") + dataMessage(1, "de")));
    QCOMPARE(core.nbBytesReceived(1), 3);
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
    QCOMPARE(core.nbBytesReceived(1), 2);
    QCOMPARE(core.bytesWaiting(), 2U);
}

void MessageReadingTest::aPartOfAMessageLeavesTheRestAtTheHead()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "abcd")));
    QCOMPARE(core.bytesWaiting(), 4U);
    QCOMPARE(core.read(1, 2), QByteArray("ab"));
    QCOMPARE(core.bytesWaiting(), 2U);
    QCOMPARE(core.peek(1, 100), QByteArray("cd"));
    QCOMPARE(core.read(1, 2), QByteArray("cd"));
    QCOMPARE(core.bytesWaiting(), 0U);
}

void MessageReadingTest::theBytesBeforeAPartReadAreGone()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "abcd") + dataMessage(1, "ef")));
    const QByteArray part = core.read(1, 3);
    QCOMPARE(core.read(1, 3), QByteArray("d"));
    QCOMPARE(core.read(1, 3), QByteArray("ef"));
    QCOMPARE(part, QByteArray("abc"));
}

void MessageReadingTest::aPartReadCopiesNothingButThePart()
{
    MessageCore core;
    QVERIFY(core.start());
    const QByteArray payload(100000 - 13, 'x');
    QVERIFY(core.receive(dataMessage(1, payload)));
    const auto head = [&] {
        return core.locked([&](QMutexLocker &) {
            return static_cast<const void *>(core._readQueues.value(1)->constFirst().constData());
        });
    };
    const auto *const first = static_cast<const char *>(head());
    for (int i = 1; i <= 1000; ++i) {
        QCOMPARE(core.read(1, 1), QByteArray("x"));
        QCOMPARE(head(), static_cast<const void *>(first + i));
    }
    QCOMPARE(core.read(1, everything), payload.mid(1000));
    QCOMPARE(core.bytesWaiting(), 0U);
}

void MessageReadingTest::whatAReadOrAPeekReturnedOutlivesTheMessage()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "abcdef") + dataMessage(1, "next")));
    const QByteArray part = core.read(1, 2);
    const QByteArray seen = core.peek(1, everything);
    const QByteArray rest = core.read(1, everything);
    QCOMPARE(core.read(1, 1), QByteArray("n"));
    QVERIFY(core.closeConnection(1));
    QVERIFY(core.openConnection(1));
    QVERIFY(core.receive(dataMessage(1, "after")));
    QCOMPARE(core.read(1, 2), QByteArray("af"));
    QCOMPARE(part, QByteArray("ab"));
    QCOMPARE(seen, QByteArray("cdef"));
    QCOMPARE(rest, QByteArray("cdef"));
}

void MessageReadingTest::zeroBytesCountLikeAnyOther()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, QByteArray(5, '\0'))));
    QCOMPARE(core.bytesWaiting(), 5U);
    QCOMPARE(core.read(1, 2), QByteArray(2, '\0'));
    QCOMPARE(core.bytesWaiting(), 3U);
    QCOMPARE(core.read(1, 100), QByteArray(3, '\0'));
    QCOMPARE(core.bytesWaiting(), 0U);
}

void MessageReadingTest::aReadOfTheWholeHeadRemovesIt_data()
{
    QTest::addColumn<unsigned int>("maxSize");
    QTest::newRow("exactly") << 4U;
    QTest::newRow("more") << 5U;
    QTest::newRow("largest int") << 0x7fffffffU;
    QTest::newRow("above the largest int") << 0x80000000U;
    QTest::newRow("largest") << everything;
}

void MessageReadingTest::aReadOfTheWholeHeadRemovesIt()
{
    QFETCH(unsigned int, maxSize);
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "abcd")));
    QCOMPARE(core.read(1, maxSize), QByteArray("abcd"));
    QCOMPARE(core.queuedMessages(1), 0);
    QCOMPARE(core.bytesWaiting(), 0U);
}

void MessageReadingTest::aReadOfNoBytesRemovesNothing()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "abcd")));
    QCOMPARE(core.read(1, 0), QByteArray());
    QCOMPARE(core.bytesWaiting(), 4U);
    QCOMPARE(core.read(1, 100), QByteArray("abcd"));
}

void MessageReadingTest::anEmptyMessageTakesOneRead()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "") + dataMessage(1, "") + dataMessage(1, "abc")));
    QCOMPARE(core.nbBytesReceived(1), 0);
    QCOMPARE(core.read(1, 100), QByteArray());
    QCOMPARE(core.queuedMessages(1), 2);
    QCOMPARE(core.read(1, 0), QByteArray());
    QCOMPARE(core.queuedMessages(1), 1);
    QCOMPARE(core.bytesWaiting(), 3U);
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
}

void MessageReadingTest::aPortWithoutMessagesReadsEmpty()
{
    MessageCore core;
    QVERIFY(core.start());
    QCOMPARE(core.read(1, 100), QByteArray());
    QCOMPARE(core.peek(1, 100), QByteArray());
    QCOMPARE(core.nbBytesReceived(1), 0);
    core.locked([&](QMutexLocker &) { core._readQueues.remove(1); });
    QCOMPARE(core.read(1, 100), QByteArray());
    QCOMPARE(core.peek(1, 100), QByteArray());
    QCOMPARE(core.nbBytesReceived(1), 0);
    QVERIFY(!core.waitForReadyRead(1, 0));
}

void MessageReadingTest::aWholeMessageIsHandedOutWithoutACopy()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, QByteArray(5000, 'p'))));
    const auto address = [](const QByteArray &bytes) {
        return static_cast<const void *>(bytes.constData());
    };
    const void *const queued = core.locked(
        [&](QMutexLocker &) { return address(core._readQueues.value(1)->constFirst()); });
    const QByteArray peeked = core.peek(1, everything);
    QCOMPARE(address(peeked), queued);
    const QByteArray taken = core.read(1, everything);
    QCOMPARE(taken.size(), 5000);
    QCOMPARE(address(taken), queued);
}

void MessageReadingTest::onlyMiddleSizedReadsAreLogged_data()
{
    QTest::addColumn<unsigned int>("size");
    QTest::addColumn<bool>("logged");
    QTest::newRow("5 bytes") << 5U << false;
    QTest::newRow("6 bytes") << 6U << true;
    QTest::newRow("499 bytes") << 499U << true;
    QTest::newRow("500 bytes") << 500U << false;
}

void MessageReadingTest::onlyMiddleSizedReadsAreLogged()
{
    QFETCH(unsigned int, size);
    QFETCH(bool, logged);
    MessageCore core;
    QVERIFY(core.start({3}));
    QVERIFY(core.receive(dataMessage(3, QByteArray(600, 'p'))));
    QCOMPARE(core.read(3, size).size(), static_cast<int>(size));
    const QString line = "read: Message read for client #3of size " + QString::number(size);
    QCOMPARE(core.logged({"read"}), logged ? QStringList(line) : QStringList());
}

void MessageReadingTest::peekLeavesTheMessage_data()
{
    QTest::addColumn<unsigned int>("maxSize");
    QTest::addColumn<QByteArray>("peeked");
    QTest::newRow("nothing") << 0U << QByteArray();
    QTest::newRow("a part") << 2U << QByteArray("ab");
    QTest::newRow("exactly") << 3U << QByteArray("abc");
    QTest::newRow("more") << 10U << QByteArray("abc");
    QTest::newRow("above the largest int") << 0x80000001U << QByteArray("abc");
    QTest::newRow("largest") << everything << QByteArray("abc");
}

void MessageReadingTest::peekLeavesTheMessage()
{
    QFETCH(unsigned int, maxSize);
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "abc") + dataMessage(1, "de")));
    QTEST(core.peek(1, maxSize), "peeked");
    QTEST(core.peek(1, maxSize), "peeked");
    QCOMPARE(core.queuedMessages(1), 2);
    QCOMPARE(core.bytesWaiting(), 5U);
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
}

void MessageReadingTest::peekAtAnEmptyMessageIsEmpty()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "") + dataMessage(1, "abc")));
    QCOMPARE(core.peek(1, 100), QByteArray());
    QCOMPARE(core.queuedMessages(1), 2);
}

void MessageReadingTest::readAllIsAlwaysEmptyAndTakesNoLock()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "abc")));
    const QByteArray taken = core.locked([&](QMutexLocker &) { return core.readAll(1); });
    QCOMPARE(taken, QByteArray());
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
}

void MessageReadingTest::theByteCountIsThatOfTheHead()
{
    MessageCore core;
    QVERIFY(core.start());
    QCOMPARE(core.nbBytesReceived(1), 0);
    QCOMPARE(core.nbBytesReceived(99), 0);
    QVERIFY(core.receive(dataMessage(1, "") + dataMessage(1, "abcdef")));
    QCOMPARE(core.nbBytesReceived(1), 0);
    core.read(1, 100);
    QCOMPARE(core.nbBytesReceived(1), 6);
    core.read(1, 4);
    QCOMPARE(core.nbBytesReceived(1), 2);
}

void MessageReadingTest::theByteCountLooksAtNoState()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "abc")));
    core.peerDisconnected(1);
    QCOMPARE(core.nbBytesReceived(1), 3);
    core.locked(
        [&](QMutexLocker &locker) { core._updateStatus(DriverState::DISCONNECTED, locker); });
    QCOMPARE(core.nbBytesReceived(1), 3);
}

void MessageReadingTest::aPortThatIsNotUsableGivesNothing_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<bool>("linkUp");
    QTest::newRow("unknown port") << 99 << true;
    QTest::newRow("closed port") << 2 << true;
    QTest::newRow("disconnected port") << 3 << true;
    QTest::newRow("link down") << 1 << false;
}

void MessageReadingTest::aPortThatIsNotUsableGivesNothing()
{
    QFETCH(int, port);
    QFETCH(bool, linkUp);
    MessageCore core;
    QVERIFY(core.start({1, 2, 3}));
    QVERIFY(core.closeConnection(2));
    QVERIFY(core.receive(dataMessage(1, "abcdef") + dataMessage(2, "DEVICE_CONN") +
                         dataMessage(3, "abcdef")));
    core.peerDisconnected(3);
    if (!linkUp)
        core.locked(
            [&](QMutexLocker &locker) { core._updateStatus(DriverState::DISCONNECTED, locker); });
    const quint32 waiting = core.bytesWaiting();
    QVERIFY(waiting > 0);

    QCOMPARE(core.read(port, 100), QByteArray());
    QCOMPARE(core.peek(port, 100), QByteArray());
    QVERIFY(!core.waitForReadyRead(port, 60000));
    QCOMPARE(core.bytesWaiting(), waiting);
    QVERIFY(core.logged({"read", "peek", "waitForReadyRead"}).isEmpty());
}

void MessageReadingTest::aWaitWithoutTimeOnlyLooks_data()
{
    QTest::addColumn<int>("msecs");
    QTest::newRow("zero") << 0;
    QTest::newRow("negative") << -1;
    QTest::newRow("lowest") << std::numeric_limits<int>::min();
}

void MessageReadingTest::aWaitWithoutTimeOnlyLooks()
{
    QFETCH(int, msecs);
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(!core.waitForReadyRead(1, msecs));
    QVERIFY(core.receive(dataMessage(1, "abc")));
    QVERIFY(core.waitForReadyRead(1, msecs));
}

void MessageReadingTest::aWaitEndsWithItsTime()
{
    MessageCore core;
    QVERIFY(core.start());
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!core.waitForReadyRead(1, 50));
    QVERIFY(timer.elapsed() >= 49);
}

void MessageReadingTest::aWaitEndsWithTheMessage()
{
    MessageCore core;
    QVERIFY(core.start());
    std::atomic<bool> begun{false};
    bool ready = false;
    std::thread waiter([&] {
        begun = true;
        ready = core.waitForReadyRead(1, 60000);
    });
    const bool started = QTest::qWaitFor([&] { return begun.load(); });
    const bool accepted = core.receive(dataMessage(1, "abc"));
    waiter.join();
    QVERIFY(started && accepted);
    QVERIFY(ready);
    QCOMPARE(core.nbBytesReceived(1), 3);
}

void MessageReadingTest::aWaitGoesOnWhileAnEmptyMessageIsAtTheHead()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(dataMessage(1, "") + dataMessage(1, "abc")));
    QVERIFY(!core.waitForReadyRead(1, 30));
    std::atomic<bool> ended{false};
    std::thread waiter([&] { ended = core.waitForReadyRead(1, 60000); });
    const bool accepted = core.receive(dataMessage(1, "de"));
    const bool endedEarly = ended;
    core.read(1, 100);
    const bool woken = core.receive(dataMessage(1, "fg"));
    waiter.join();
    QVERIFY(accepted && woken);
    QVERIFY(!endedEarly);
    QVERIFY(ended);
    QCOMPARE(core.read(1, 100), QByteArray("abc"));
}

void MessageReadingTest::aWaitGoesOnAfterAMessageForAnotherPort()
{
    MessageCore core;
    QVERIFY(core.start({1, 2}));
    QVERIFY(core.receive(dataMessage(2, "abc")));
    QVERIFY(!core.waitForReadyRead(1, 30));
    std::atomic<bool> ended{false};
    std::thread waiter([&] { ended = core.waitForReadyRead(1, 60000); });
    const bool forOther = core.receive(dataMessage(2, "de"));
    const bool endedEarly = ended;
    const bool forWaiter = core.receive(dataMessage(1, "fg"));
    waiter.join();
    QVERIFY(forOther && forWaiter);
    QVERIFY(!endedEarly);
    QVERIFY(ended);
}

void MessageReadingTest::aReaderInItsOwnThreadGetsEveryByteInOrder()
{
    constexpr int messages = 500;
    MessageCore core;
    QVERIFY(core.start());
    QByteArray sent;
    QByteArray got;
    std::thread reader([&] {
        unsigned int part = 0;
        while (!got.endsWith("end") && core.waitForReadyRead(1, 60000))
            got += core.read(1, ++part % 7 + 1);
    });
    bool accepted = true;
    for (int i = 0; i < messages; ++i) {
        const QByteArray payload = i + 1 < messages ? QByteArray::number(i) + ' ' : "end";
        sent += payload;
        accepted = core.receive(dataMessage(1, payload)) && accepted;
    }
    reader.join();
    QVERIFY(accepted);
    QCOMPARE(got, sent);
    QCOMPARE(core.bytesWaiting(), 0U);
}

QTEST_GUILESS_MAIN(MessageReadingTest)
#include "tst_message_reading.moc"
