// SPDX-License-Identifier: MIT
#include "FlatResources.h"

#include <Background.h>
#include <CoreProbe.h>
#include <VirtualTime.h>

#include <QRandomGenerator>
#include <QTest>

#include <array>
#include <atomic>
#include <vector>

namespace {

constexpr quint64 fullCalls = 100000;
constexpr quint32 threadCount = 8;
constexpr quint32 maxClients = 3; // fewer than the ports, so that some opens come too late
constexpr int portCount = 5;
const QList<int> neverOpenedPorts = {0, 6, 9999, 10000, -1};

// The codes of error().
constexpr int portAlreadyOpen = 4;
constexpr int tooManyClients = 5;
constexpr int portNotOpen = 6;

struct SeenError
{
    int code;
    qintptr data;
};

// Errors arise in the thread of the call that fails.
thread_local QList<SeenError> errorsOfThread;

using PerPort = std::array<std::atomic<int>, portCount + 1>;

/** A core under eight threads, with what its calls returned and what it signalled. */
class ContestedPorts : public CoreProbe
{
public:
    ContestedPorts()
    {
        connect(this, &UsbHAL::error, this, &ContestedPorts::noteError, Qt::DirectConnection);
        connect(
            this, QOverload<int>::of(&UsbHAL::connected), this,
            [this](int port) { ++connectedSignals.at(static_cast<size_t>(port)); },
            Qt::DirectConnection);
        connect(
            this, QOverload<int>::of(&UsbHAL::disconnected), this,
            [this](int port) { ++disconnectedSignals.at(static_cast<size_t>(port)); },
            Qt::DirectConnection);
    }
    ~ContestedPorts() override { stop(); }

    bool start()
    {
        ParamHal param = testSetup();
        param.maxClients = maxClients;
        param.maxWatchdogErrors = 1000000;
        setupConfig(param);
        driver->setIdleHost(true);
        return openAndCheck(1) && waitForConnected(5000) && closeAndCheck(1);
    }

    /** One call by one of the threads. */
    void actOnce(QRandomGenerator &random)
    {
        const int port = random.bounded(1, portCount + 1);
        switch (random.bounded(16)) {
        case 0:
            closeNeverOpened(neverOpenedPorts[random.bounded(neverOpenedPorts.size())]);
            break;
        case 1:
            write(port, "in the way of a close");
            break;
        default:
            random.bounded(2) == 0 ? openAndCheck(port) : closeAndCheck(port);
            break;
        }
        faults += nbClients() > maxClients ? 1 : 0;
    }

    bool openAndCheck(int port)
    {
        errorsOfThread.clear();
        const bool opened = openConnection(port);
        openedPorts.at(static_cast<size_t>(port)) += opened ? 1 : 0;
        expectErrors(opened, {portAlreadyOpen, tooManyClients}, port);
        return opened;
    }

    bool closeAndCheck(int port)
    {
        errorsOfThread.clear();
        const bool closed = closeConnection(port);
        closedPorts.at(static_cast<size_t>(port)) += closed ? 1 : 0;
        expectErrors(closed, {portNotOpen}, port);
        return closed;
    }

    PerPort openedPorts = {};
    PerPort closedPorts = {};
    PerPort connectedSignals = {};
    PerPort disconnectedSignals = {};
    std::array<std::atomic<int>, portNotOpen + 1> errors = {};
    std::atomic<int> faults{0}; // calls that broke a rule

private:
    void noteError(int code, void *data)
    {
        errorsOfThread.append({code, reinterpret_cast<qintptr>(data)});
    }

    void closeNeverOpened(int port)
    {
        errorsOfThread.clear();
        const bool closed = closeConnection(port);
        faults += closed ? 1 : 0;
        expectErrors(closed, {portNotOpen}, port);
    }

    // A call that did what it was asked for tells no error, one that did not tells one.
    void expectErrors(bool succeeded, const QList<int> &codes, int port)
    {
        if (errorsOfThread.size() != (succeeded ? 0 : 1)) {
            ++faults;
            return;
        }
        for (const SeenError &each : qAsConst(errorsOfThread)) {
            if (codes.contains(each.code) && each.data == port)
                ++errors.at(static_cast<size_t>(each.code));
            else
                ++faults;
        }
    }
};

} // namespace

/** Eight threads open and close the same five ports. */
class PortStormTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { VirtualTime::setPauseDivisor(1000); }
    void everyOpenIsClosedOnceAndEveryRefusalHasItsError();

private:
    static void actInThreads(ContestedPorts &core, quint32 seed, quint64 calls);
    static void closeAll(ContestedPorts &core);
};

// The errors of other threads are also queued to this one, which takes them meanwhile.
void PortStormTest::actInThreads(ContestedPorts &core, quint32 seed, quint64 calls)
{
    std::vector<std::future<void>> threads;
    for (quint32 i = 0; i < threadCount; ++i) {
        threads.push_back(inBackground([&core, seed, calls, i] {
            QRandomGenerator random(seed + i);
            for (quint64 call = i; call < calls; call += threadCount)
                core.actOnce(random);
        }));
    }
    for (const std::future<void> &thread : threads) {
        while (!endsWithin(thread, 1))
            QCoreApplication::processEvents();
    }
    QCoreApplication::processEvents();
}

void PortStormTest::closeAll(ContestedPorts &core)
{
    for (int port = 1; port <= portCount; ++port) {
        const auto index = static_cast<size_t>(port);
        const int open = core.openedPorts[index] - core.closedPorts[index];
        QCOMPARE(core.socketStatus(port), open == 1 ? SocketState::OPENED : SocketState::CLOSED);
        QCOMPARE(core.closeAndCheck(port), open == 1);
        QCOMPARE(core.openedPorts[index].load(), core.closedPorts[index].load());
        QCOMPARE(core.connectedSignals[index].load(), core.openedPorts[index].load());
        QCOMPARE(core.disconnectedSignals[index].load(), core.closedPorts[index].load());
    }
}

void PortStormTest::everyOpenIsClosedOnceAndEveryRefusalHasItsError()
{
    const quint64 perTenth = (Campaign::scaled(fullCalls) + 9) / 10;
    const quint32 seed = Campaign::seed();
    FlatResources resources("port storm", 10);
    ContestedPorts core;
    VirtualTime::keepReal(&core._communicationCond);
    QVERIFY(core.start());
    // Else a close beside an unwritten message waits 300 ms for it.
    VirtualTime::setInstantWaits(true);
    for (quint32 tenth = 0; tenth < 10; ++tenth) {
        actInThreads(core, seed + threadCount * tenth, perTenth);
        closeAll(core);
        QCOMPARE(core.nbClients(), 0u);
        core.driver->clearWritten();
        resources.count();
    }
    QCOMPARE(core.faults.load(), 0);
    QCOMPARE(core.status(), DriverState::CONNECTED);
    for (const int code : {portAlreadyOpen, tooManyClients, portNotOpen}) {
        const int count = core.errors.at(static_cast<size_t>(code));
        Campaign::printFigure("port storm, errors " + std::to_string(code), count);
        QVERIFY(count > 0);
    }
    Campaign::printFigure("port storm, calls of 8 threads", 10 * perTenth);
    QVERIFY(resources.areFlat());
}

QTEST_GUILESS_MAIN(PortStormTest)
#include "tst_port_storm.moc"
