// SPDX-License-Identifier: MIT
#include "PortsProbe.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QThread>

#include <atomic>
#include <thread>
#include <vector>

namespace {

constexpr int threadCount = 10;
constexpr int portCount = 8;
constexpr qint64 duration = 2000; // ms

// What all threads together did.
struct Tally
{
    std::atomic<int> opened{0};
    std::atomic<int> closed{0};
    std::atomic<int> written{0};
    std::atomic<int> read{0};
    std::atomic<int> foreignBytes{0};
    std::atomic<int> tooManyClients{0};

    bool isComplete() const { return opened > 0 && closed > 0 && written > 0 && read > 0; }
};

// Everything that is fed for a port consists of the port's own digit.
QByteArray blockFor(int port)
{
    const QByteArray payload(port, static_cast<char>('0' + port));
    return usb_messages::frameData(port, payload.constData(), payload.size());
}

void actOnce(PortsProbe &core, QRandomGenerator &random, Tally &tally)
{
    const int port = random.bounded(1, portCount + 1);
    switch (random.bounded(6)) {
    case 0:
        tally.opened += core.openConnection(port) ? 1 : 0;
        break;
    case 1:
        tally.closed += core.closeConnection(port) ? 1 : 0;
        break;
    case 2:
        tally.written += core.write(port, QByteArray(3, static_cast<char>('0' + port)));
        break;
    case 3: {
        const QByteArray bytes = core.read(port, 5);
        tally.read += bytes.size();
        tally.foreignBytes += bytes.size() - bytes.count(static_cast<char>('0' + port));
        break;
    }
    case 4:
        core.driver->feed(blockFor(port));
        core.waitForReadyRead(port, 5);
        break;
    default: // not peerDisconnected(): a port that is opened again after it counts twice for good
        core.peek(port, 3);
        core.flush(0);
        break;
    }
    tally.tooManyClients += core.nbClients() > 5 ? 1 : 0;
}

// Until the time is over and every kind of call has succeeded, or far too much time has passed.
void actFor(qint64 msecs, PortsProbe &core, quint32 seed, Tally &tally)
{
    QRandomGenerator random(seed);
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < msecs || (!tally.isComplete() && timer.elapsed() < 10 * msecs))
        actOnce(core, random, tally);
}

void loseAndRaiseLinkFor(qint64 msecs, PortsProbe &core)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < msecs) {
        core.driver->failReads(8);
        QThread::msleep(200);
    }
}

void joinAll(std::vector<std::thread> &threads)
{
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace

class PortThreadsTest : public QObject
{
    Q_OBJECT

private slots:
    void manyThreadsShareThePorts();
    void manyThreadsOpenPortsWhileAnotherStops();
    void manyThreadsCloseTheSamePorts();
};

void PortThreadsTest::manyThreadsShareThePorts()
{
    PortsProbe core;
    core.configure();
    core.driver->setIdleHost(true);
    Tally tally;
    std::vector<std::thread> threads;
    for (quint32 i = 0; i < threadCount - 1; ++i)
        threads.emplace_back([&, i] { actFor(duration, core, i + 1, tally); });
    threads.emplace_back([&] { loseAndRaiseLinkFor(duration, core); });
    joinAll(threads);

    QVERIFY(tally.opened > 0);
    QVERIFY(tally.closed > 0);
    QVERIFY(tally.written > 0);
    QVERIFY(tally.read > 0);
    QCOMPARE(tally.foreignBytes.load(), 0);
    QCOMPARE(tally.tooManyClients.load(), 0);
    QCOMPARE(core.nbClients(), static_cast<quint32>(tally.opened - tally.closed));
    core.stop();
    QCOMPARE(quint64(core.bytesWaiting()), core.queuedBytes());
    const QList<QByteArray> written = core.driver->writtenData();
    for (const QByteArray &block : written) {
        const usb_messages::DataMessage message = usb_messages::cutData(block);
        QCOMPARE(message.fault, usb_messages::Fault::None);
        QCOMPARE(block.mid(usb_messages::headerSize),
                 QByteArray(3, static_cast<char>('0' + message.port)));
    }
}

void PortThreadsTest::manyThreadsOpenPortsWhileAnotherStops()
{
    PortsProbe core;
    core.configure();
    core.driver->setIdleHost(true);
    Tally tally;
    std::vector<std::thread> threads;
    for (quint32 i = 0; i < 4; ++i)
        threads.emplace_back([&, i] { actFor(duration, core, i + 1, tally); });
    threads.emplace_back([&] {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < duration) {
            core.stop();
            QThread::msleep(30);
        }
    });
    joinAll(threads);
    QVERIFY(tally.opened > 0);
    QCOMPARE(tally.foreignBytes.load(), 0);
    QCOMPARE(tally.tooManyClients.load(), 0);
    QCOMPARE(core.nbClients(), static_cast<quint32>(tally.opened - tally.closed));

    // An open that succeeds is never dead, however the opens and stops fell together. Ports that
    // were cut and opened again count twice, which may leave no room for one more.
    core.locked([&](QMutexLocker &) { core._clientCount = 0; });
    core.peerDisconnected(1);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.waitForConnected(5000));
    QCOMPARE(core.write(1, "alive"), 5);
    QVERIFY(core.driver->waitForWrite("FADA000090001alive"));
}

void PortThreadsTest::manyThreadsCloseTheSamePorts()
{
    PortsProbe core;
    QVERIFY(core.connectPorts({1, 2, 3, 4, 5}));
    core.driver->blockWrites();
    QVERIFY(core.driver->waitForBlockedCall());
    QCOMPARE(core.write(1, "stuck"), 5);
    std::atomic<int> closed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&, i] {
            for (int port = 1; port <= 3; ++port)
                closed += core.closeConnection((i + port) % 3 + 1) ? 1 : 0;
        });
    }
    joinAll(threads);
    core.driver->releaseWrites();
    QCOMPARE(closed.load(), 3);
    QCOMPARE(core.nbClients(), 2u);
    for (const int port : {1, 2, 3})
        QCOMPARE(core.signalsSeen.count("disconnected(" + QString::number(port) + ')'), 1);
    QCOMPARE(core.signalsSeen.all().filter("error(6,").size(), 3 * threadCount - 3);
}

QTEST_GUILESS_MAIN(PortThreadsTest)
#include "tst_port_threads.moc"
