// SPDX-License-Identifier: MIT
#include "FlatResources.h"

#include <Background.h>
#include <CoreProbe.h>
#include <EventPolling.h>
#include <VirtualTime.h>
#include <WireMessages.h>

#include <QTest>

#include <atomic>
#include <functional>
#include <vector>

namespace {

constexpr quint64 fullCycles = 1000;
constexpr int timeout = 30000;       // ms, real, for what must happen
constexpr int clientLimit = 10000;   // ms, virtual, that a client waits
constexpr quint32 hostFifoSize = 2;  // messages from which on a host's write waits
constexpr int deviceFifoLimit = 100; // messages
const QByteArray stale = "stale";
const QList<int> ports = {1, 2, 3};
constexpr int restartingPort = 4;

enum class Clients { OfALink, WithoutALink, OfAHost };

/** A core that is stopped and started again and again, with clients in its blocking calls. */
class RestartedCore : public CoreProbe
{
public:
    explicit RestartedCore(Clients clients) : _kind(clients)
    {
        playsHost = clients == Clients::OfAHost;
        // The waits are the clients' alone: a stop's own is for a thread that really ends.
        VirtualTime::keepReal(&_communicationCond);
        // A thread that blocks in the driver ends by itself when it is stopped.
        driver->setHonoursCancel(true);
    }
    ~RestartedCore() override
    {
        VirtualTime::holdWaits(false);
        VirtualTime::setInstantWaits(false);
        driver->releaseWrites();
        stop();
    }

    void start()
    {
        ParamHal param = testSetup();
        param.maxWatchdogErrors = 1000000;
        param.threadStopTimeout = timeout;
        param.maxWriteFifoSize = hostFifoSize;
        setupConfig(param);
        driver->setIdleHost(true);
        openAll();
        expectFreshLink();
    }

    /** From a working link over a stop with clients inside to the next working link. */
    void stopAmidClients(bool byOtherThread, bool restartFirst)
    {
        bringClientsIn();
        stopFrom(byOtherThread);
        if (restartFirst)
            restartBesideClients();
        expectClientsReturn();
        stop();
        QVERIFY(!driver->writtenData().contains(dataMessage(1, stale)));
        closeAll();
        driver->clearWritten();
        driver->setIdleHost(true);
        openAll();
        expectFreshLink();
    }

private:
    // Makes one blocking call, and returns whether that returned what it should.
    using Client = std::function<bool()>;

    std::vector<Client> clientsOfKind()
    {
        const Client connected = [this] {
            const bool up = waitForConnected(clientLimit);
            return up == _restarted;
        };
        const Client disconnected = [this] {
            const bool down = waitForDisconnected(clientLimit);
            return down != _restarted;
        };
        const Client reader = [this] { return !waitForReadyRead(1, clientLimit); };
        const Client flusher = [this] {
            flush(clientLimit);
            return true;
        };
        const Client closer = [this] { return closeConnection(2); };
        const Client writer = [this] { return write(1, "late") == 4; };
        switch (_kind) {
        case Clients::OfALink:
            return {disconnected, reader, flusher, closer};
        case Clients::WithoutALink:
            return {connected, connected};
        case Clients::OfAHost:
            return {writer, writer, flusher, closer};
        }
        return {};
    }

    // When this returns every client waits inside its call.
    void bringClientsIn()
    {
        if (_kind == Clients::WithoutALink)
            loseLink();
        else
            fillFifo(_kind == Clients::OfAHost ? int(hostFifoSize) : deviceFifoLimit);
        VirtualTime::holdWaits(true);
        const std::vector<Client> clients = clientsOfKind();
        for (const Client &client : clients)
            _calls.push_back(inBackground(client));
        const int inside = static_cast<int>(clients.size());
        QVERIFY(happens([inside] { return VirtualTime::heldWaits() == inside; }));
    }

    void loseLink()
    {
        driver->setIdleHost(false);
        QVERIFY(happens([this] { return status() == DriverState::DISCONNECTED; }));
    }

    void fillFifo(int messages)
    {
        driver->blockWrites();
        QVERIFY(driver->waitForBlockedCall(timeout));
        for (int i = 0; i < messages; ++i)
            QCOMPARE(write(1, stale), stale.size());
        QCOMPARE(bytesToWrite(), messages);
    }

    void stopFrom(bool otherThread)
    {
        if (otherThread)
            inBackground([this] { stop(); }).get();
        else
            stop();
        QVERIFY(!isRunning());
        QCOMPARE(status(), DriverState::DISCONNECTED);
        driver->clearWritten();
    }

    // The open ports are still open after a stop, so only another one starts the communication.
    void restartBesideClients()
    {
        _restarted = true;
        driver->setIdleHost(true);
        QVERIFY(openConnection(restartingPort));
        QVERIFY(happens([this] { return driver->written().size() >= 3; }));
        QCOMPARE(status(), DriverState::CONNECTED);
    }

    void expectClientsReturn()
    {
        // From here on no wait takes time: neither a client's next one, nor that of a close for the
        // messages in the FIFO.
        VirtualTime::setInstantWaits(true);
        VirtualTime::holdWaits(false);
        for (std::future<bool> &call : _calls) {
            QVERIFY(endsWithin(call, timeout));
            QVERIFY(call.get());
        }
        _calls.clear();
        _restarted = false;
    }

    void closeAll()
    {
        for (const int port : ports)
            closeConnection(port);
        closeConnection(restartingPort);
        VirtualTime::setInstantWaits(false);
        QCOMPARE(nbClients(), 0u);
    }

    void openAll()
    {
        for (const int port : ports)
            QVERIFY(openConnection(port));
    }

    // The link comes up and carries bytes both ways, and none of before.
    void expectFreshLink()
    {
        const QByteArray fresh = "fresh";
        QVERIFY(happens([this] { return status() == DriverState::CONNECTED; }));
        for (const int port : ports) {
            QCOMPARE(write(port, fresh), fresh.size());
            QVERIFY(driver->waitForWrite(dataMessage(port, fresh), timeout));
            driver->feed(dataMessage(port, fresh));
            QVERIFY(waitForReadyRead(port, timeout));
            QCOMPARE(read(port, 1000), fresh);
        }
        QCOMPARE(driver->writtenData().size(), ports.size());
        QCOMPARE(bytesWaiting(), 0u);
    }

    const Clients _kind;
    std::vector<std::future<bool>> _calls;
    std::atomic<bool> _restarted{false};
};

} // namespace

/** Hundreds of stops, each with clients inside every call that may block. */
class StopStormTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { VirtualTime::setPauseDivisor(1000); }
    void everyClientReturnsAndEveryRestartWorks_data();
    void everyClientReturnsAndEveryRestartWorks();
};

void StopStormTest::everyClientReturnsAndEveryRestartWorks_data()
{
    QTest::addColumn<int>("clients");
    QTest::newRow("clients of a link") << static_cast<int>(Clients::OfALink);
    QTest::newRow("clients without a link") << static_cast<int>(Clients::WithoutALink);
    QTest::newRow("clients of a host") << static_cast<int>(Clients::OfAHost);
}

void StopStormTest::everyClientReturnsAndEveryRestartWorks()
{
    QFETCH(int, clients);
    const quint64 cycles = Campaign::scaled(fullCycles) / 3 + 1;
    FlatResources resources(std::string("stops, ") + QTest::currentDataTag(), cycles);
    RestartedCore core(static_cast<Clients>(clients));
    core.start();
    for (quint64 i = 0; i < cycles && !QTest::currentTestFailed(); ++i) {
        core.stopAmidClients(i % 2 == 1, i % 4 >= 2);
        resources.count();
    }
    Campaign::printFigure(std::string("stops and restarts, ") + QTest::currentDataTag(), cycles);
    QVERIFY(resources.areFlat());
}

QTEST_GUILESS_MAIN(StopStormTest)
#include "tst_stop_storm.moc"
