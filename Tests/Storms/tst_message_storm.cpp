// SPDX-License-Identifier: MIT
#include "FlatResources.h"
#include "StormHost.h"

#include <LogCapture.h>
#include <VirtualTime.h>

#include <UsbHal.h>

#include <QTest>

#include <algorithm>
#include <array>
#include <memory>
#include <thread>
#include <vector>

namespace {

// Over all ports, both ways together; a sanitizer makes each last longer.
constexpr quint64 fullMessages = Campaign::isSanitized ? 4000000 : 10000000;
constexpr int rows = 10;
constexpr quint32 blockSize = 1000;
constexpr quint32 delayFrom =
    30 * blockSize;               // unread bytes above which the device asks for a delay
constexpr int fifoRoom = 90;      // messages, below the FIFO's limit
constexpr qint64 timeout = 60000; // ms

template <typename Condition>
bool waitFor(Condition condition)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeout)
            return false;
        QThread::yieldCurrentThread();
    }
    return true;
}

/** A core that exchanges numbered messages with the host of a storm. */
class StormCore : public UsbHAL
{
public:
    explicit StormCore(const QSharedPointer<StormHost> &host)
        : UsbHAL({host.staticCast<AbstractDriver>()}), _host(host)
    {
    }
    ~StormCore() override { stop(); }

    bool start()
    {
        ParamHal param;
        getDefaultSetup(param);
        param.maxReadSize = blockSize;
        param.maxWriteSize = blockSize;
        param.maxWatchdogErrors = 1000000;
        param.logDir = _log.folder();
        param.maxLogLines = 20000;
        setupConfig(param);
        for (int port = 1; port <= StormHost::portCount; ++port) {
            if (!openConnection(port))
                return false;
        }
        return waitForConnected(5000);
    }

    /** A thread for each port reads whatever has come, and writes as soon as there is room. */
    bool exchangeEagerly(quint64 messagesEachWay)
    {
        _host->sendToEachPort(messagesEachWay, false);
        std::array<bool, StormHost::portCount + 1> results = {true};
        std::vector<std::thread> threads;
        for (size_t port = 1; port < results.size(); ++port) {
            threads.emplace_back([this, port, messagesEachWay, &results] {
                results[port] = exchangeOn(static_cast<int>(port), messagesEachWay);
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        return std::count(results.begin(), results.end(), true) == int(results.size());
    }

    /** Reads only when the device has asked the host to delay, and all of it then. */
    bool exchangeLazily(quint64 messagesEachWay)
    {
        _host->sendToEachPort(messagesEachWay, true);
        quint64 unwritten = messagesEachWay;
        while (unwritten > 0 || !_host->isDone() || bytesWaiting() > 0) {
            if (unwritten > 0 && bytesWaiting() <= delayFrom) {
                writeBurst(unwritten);
            } else if (!waitFor([this] { return _host->isDelayed() || _host->isDone(); })) {
                return false;
            }
            if ((_host->isDelayed() || _host->isDone()) && !readAllPorts())
                return false;
            if (!waitFor([this] { return bytesToWrite() == 0; }))
                return false;
        }
        return waitFor([this] { return !_host->isDelayed(); });
    }

    quint32 bytesWaiting() const
    {
        const QMutexLocker locker(&_mutex);
        return _totalBytesWaitingRead;
    }

    /** Whether the host has got all that the ports have written. */
    bool isAllDelivered() const
    {
        return waitFor([this] {
            for (int port = 1; port <= StormHost::portCount; ++port) {
                if (_host->received(port) != _written[static_cast<size_t>(port)])
                    return false;
            }
            return true;
        });
    }

private:
    using Counters = std::array<quint64, StormHost::portCount + 1>;

    // Returns false when the port has read something else than the host has sent, or nothing at
    // all.
    bool exchangeOn(int port, quint64 messages)
    {
        const auto index = static_cast<size_t>(port);
        const quint64 writeEnd = _written[index] + messages;
        const quint64 readEnd = _read[index] + messages;
        QElapsedTimer sinceProgress;
        sinceProgress.start();
        while (_written[index] < writeEnd || _read[index] < readEnd) {
            const quint64 before = _written[index] + _read[index];
            if (_written[index] < writeEnd && bytesToWrite() < fifoRoom)
                writeNext(port);
            if (!readAllOf(port))
                return false;
            if (_written[index] + _read[index] != before)
                sinceProgress.start();
            else if (sinceProgress.elapsed() > timeout)
                return false;
            else
                waitForReadyRead(port, 1);
        }
        return true;
    }

    void writeBurst(quint64 &unwrittenOfEach)
    {
        for (int i = 0; i < fifoRoom / StormHost::portCount && unwrittenOfEach > 0; ++i) {
            for (int port = 1; port <= StormHost::portCount; ++port)
                writeNext(port);
            --unwrittenOfEach;
        }
    }

    // A full FIFO takes nothing; then the same message is tried again later.
    void writeNext(int port)
    {
        quint64 &number = _written[static_cast<size_t>(port)];
        if (write(port, payloadOf(Way::ToHost, port, number)) > 0)
            ++number;
    }

    bool readAllPorts()
    {
        for (int port = 1; port <= StormHost::portCount; ++port) {
            if (!readAllOf(port))
                return false;
        }
        return true;
    }

    bool readAllOf(int port)
    {
        quint64 &number = _read[static_cast<size_t>(port)];
        for (;;) {
            const QByteArray payload = read(port, blockSize);
            if (payload.isEmpty())
                return true;
            if (payload != payloadOf(Way::ToDevice, port, number))
                return false;
            ++number;
        }
    }

    const LogCapture _log;
    const QSharedPointer<StormHost> _host;
    Counters _written = {};
    Counters _read = {};
};

} // namespace

/** Millions of messages over five ports, both ways, each compared byte by byte. */
class MessageStormTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void everyMessageArrivesOnceAndInOrder_data();
    void everyMessageArrivesOnceAndInOrder();
    void theDelaysWereAskedForAndMemoryStayedFlat();
    void cleanupTestCase() { _core.reset(); }

private:
    const quint64 _messagesInRow = qMax<quint64>(Campaign::scaled(fullMessages) / rows, 100);
    QSharedPointer<StormHost> _host;
    std::unique_ptr<StormCore> _core; // one for all rows
    // The heaps of six threads that hand queues to each other take longer to settle; a loss of one
    // byte a message would be ten thousand kB.
    FlatResources _resources{"message storm", rows, 4 * FlatResources::defaultGrowth};
};

void MessageStormTest::initTestCase()
{
    VirtualTime::setPauseDivisor(0);
    _host = QSharedPointer<StormHost>::create();
    _core = std::make_unique<StormCore>(_host);
    QVERIFY(_core->start());
}

void MessageStormTest::everyMessageArrivesOnceAndInOrder_data()
{
    QTest::addColumn<int>("tenth");
    for (int tenth = 1; tenth <= rows; ++tenth)
        QTest::addRow("tenth %d", tenth) << tenth;
}

void MessageStormTest::everyMessageArrivesOnceAndInOrder()
{
    // Without flow control and with it: what a tenth leaves in the heap is that of both.
    const quint64 eachWay = _messagesInRow / 4 / StormHost::portCount;
    QVERIFY(_core->exchangeEagerly(eachWay));
    QVERIFY(_core->exchangeLazily(eachWay));
    QVERIFY(_core->isAllDelivered());
    QCOMPARE(_host->fault(), QString());
    QCOMPARE(_core->bytesWaiting(), 0u);
    QCOMPARE(_core->status(), DriverState::CONNECTED);
    _resources.count();
}

void MessageStormTest::theDelaysWereAskedForAndMemoryStayedFlat()
{
    quint64 toHost = 0;
    for (int port = 1; port <= StormHost::portCount; ++port)
        toHost += _host->received(port);
    Campaign::printFigure("message storm, messages both ways", 2 * toHost);
    Campaign::printFigure("message storm, delays asked for", _host->delays());
    QVERIFY(_host->delays() > 0);
    QVERIFY(_resources.areFlat());
}

QTEST_GUILESS_MAIN(MessageStormTest)
#include "tst_message_storm.moc"
