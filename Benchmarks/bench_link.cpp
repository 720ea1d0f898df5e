// SPDX-License-Identifier: MIT
// The facade over the simulated node, against the bare loop on the same node: cycle, processor
// time, payload rate, and the way of a write to the wire. To be run under simnode.

#include "BareLoop.h"
#include "ClientThreads.h"
#include "HostProcess.h"
#include "Phase.h"
#include "Require.h"

#include <Campaign.h>
#include <SimNodeControl.h>
#include <UsbHalIntf.h>
#include <WireMessages.h>

#include <QCoreApplication>
#include <QMutex>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>

#include <memory>

namespace {

constexpr int ports = HostProcess::ports;
constexpr int clientThreads = 4;
constexpr int transferSize = 10000; // bytes, the default of the library
constexpr int maxPayload = transferSize - 13;
constexpr double pauses = 2 * 10e6; // ns in each cycle
constexpr int fillTime = 500;       // ms until the queues are full

QByteArray fill(int port, int size)
{
    return QByteArray(size, fillOf(port));
}

// ---- the bare loop ----

void measureIdleLoop(HostProcess &host, int cycles)
{
    const BareLoop loop(QByteArray("DEVICE_NODATA") + QByteArray::number(transferSize));
    spin(fillTime);
    const Phase idle(host, cycles);
    idle.printCycles("idle.bare");
    idle.printUsage("idle.bare");
    const ClientThreads busy(clientThreads, [](int port) {
        QMutex mutex;
        const QMutexLocker locker(&mutex);
        require(fill(port, 16).size() == 16, "a busy thread has something to do");
    });
    Phase(host, cycles).printCycles("loaded.bare");
}

// The most that a link could carry, were it not for the pauses' late ends.
void measureFullLoop(HostProcess &host, int cycles)
{
    BareLoop loop(dataMessage(1, fill(1, maxPayload)));
    host.setFeeding(true);
    spin(fillTime);
    const Phase full(host, cycles);
    host.setFeeding(false);
    spinUntil("the loop takes all that waits", [&] { return host.pending() == 0; });
    loop.stop();
    const double cycle = pauses + static_cast<double>(loop.readTime() + loop.writeTime());
    Campaign::printFigure("link.rate.ceiling", 1e9 * maxPayload / cycle);
    Campaign::printFigure("link.rate.bare.todevice", full.rateToDevice());
    Campaign::printFigure("link.rate.bare.tohost", full.rateToHost());
}

// ---- the facade ----

// Takes what comes for the ports, in the communication thread.
class Reader
{
public:
    explicit Reader(UsbHALIntf *hal) : _hal(hal)
    {
        QObject::connect(
            hal, QOverload<int>::of(&UsbHALIntf::readyRead), hal, [this](int port) { take(port); },
            Qt::DirectConnection);
    }

    qint64 bytes() const { return _bytes; }

private:
    void take(int port)
    {
        const QByteArray bytes = _hal->read(port, transferSize);
        require(bytes == fill(port, bytes.size()), "a port gets its own bytes");
        _bytes += bytes.size();
    }

    UsbHALIntf *const _hal;
    std::atomic<qint64> _bytes{0};
};

void start(UsbHALIntf *hal, const QString &logFolder)
{
    ParamHal param;
    hal->getDefaultSetup(param);
    param.threadStopTimeout = 4000; // more than a silent read takes
    param.logDir = logFolder;
    param.maxLogLines = 20000;
    hal->setupConfig(param);
    for (int port = 1; port <= ports; ++port)
        require(hal->openConnection(port), "a port opens");
    require(hal->waitForConnected(20000), "the link comes up");
    spin(fillTime);
}

// Everything that a client may call again and again, without taking the link down.
void callEverything(UsbHALIntf *hal, int port)
{
    hal->write(port, fill(port, 16));
    hal->peek(port, 16);
    hal->read(port, 16);
    hal->readAll(port);
    hal->nbBytesReceived(port);
    hal->waitForReadyRead(port, 0);
    hal->bytesToWrite();
    hal->getMaxWriteSize();
    hal->flush(0);
    hal->status();
    hal->socketStatus(port);
    hal->waitForConnected(0);
    hal->waitForDisconnected(0);
    hal->driverName();
    hal->nbClients();
    hal->isRunning();
    hal->isHost();
    hal->openConnection(port);          // is open: an error
    hal->closeConnection(ports + port); // is not
    hal->peerDisconnected(ports + port);
    hal->disconnectFromHost(ports + port);
}

void waitUntilWritten(UsbHALIntf *hal)
{
    spinUntil("the queue of writes runs dry", [hal] { return hal->bytesToWrite() == 0; });
}

void measureCycles(UsbHALIntf *hal, HostProcess &host, int cycles)
{
    const Phase idle(host, cycles);
    idle.printCycles("idle.ours");
    idle.printUsage("idle.ours");
    {
        const ClientThreads clients(clientThreads, [hal](int port) { callEverything(hal, port); });
        Phase(host, cycles).printCycles("loaded.ours");
    }
    waitUntilWritten(hal);
}

// Keeps the FIFO, which takes 100 messages, from running dry.
std::unique_ptr<ClientThreads> startWriters(UsbHALIntf *hal)
{
    return std::make_unique<ClientThreads>(ports, [hal](int port) {
        if (hal->bytesToWrite() < 50)
            require(hal->write(port, fill(port, maxPayload)) == maxPayload, "a write is taken");
        else
            QThread::msleep(5);
    });
}

void measureRate(UsbHALIntf *hal, HostProcess &host, int cycles, bool toDevice, bool toHost)
{
    const std::string direction = toDevice && toHost ? "both." : "alone.";
    host.setFeeding(toDevice);
    std::unique_ptr<ClientThreads> writers;
    if (toHost)
        writers = startWriters(hal);
    spin(fillTime);
    const Phase phase(host, cycles);
    writers.reset();
    host.setFeeding(false);
    waitUntilWritten(hal);
    spinUntil("the host sends all that waits", [&] { return host.pending() == 0; });
    if (toDevice)
        Campaign::printFigure("link.rate." + direction + "todevice", phase.rateToDevice());
    if (toHost)
        Campaign::printFigure("link.rate." + direction + "tohost", phase.rateToHost());
}

void measureRates(UsbHALIntf *hal, HostProcess &host, int cycles)
{
    const qint64 before = host.exchange(host.exchanges() - 1).bytesToDevice;
    const Reader reader(hal);
    measureRate(hal, host, cycles, true, false);
    measureRate(hal, host, cycles, false, true);
    measureRate(hal, host, cycles, true, true);
    spinUntil("the clients get what the host sends", [&] {
        const qint64 delivered = host.exchange(host.exchanges() - 1).bytesToDevice - before;
        return delivered > 0 && reader.bytes() == delivered;
    });
}

// Writes at any moment of the cycle, each with nothing else to be written.
void measureWay(UsbHALIntf *hal, HostProcess &host, int writes)
{
    const Phase idle(host, writes);
    host.setStamping(true);
    for (int i = 0; i < writes; ++i) {
        hal->write(1, QByteArray::number(now()).rightJustified(stampSize, '0'));
        spin(QRandomGenerator::global()->bounded(45, 65));
    }
    spinUntil("every stamp arrives", [&] { return host.stamps() == static_cast<quint32>(writes); });
    Campaign::printFigure("link.way.ours", static_cast<double>(host.stampDelays()) / writes);
    Campaign::printFigure("link.way.halfcycle", idle.meanCycle() / 2);
}

} // namespace

int main(int argc, char *argv[])
{
    HostProcess host(SimNodeControl::directoryFromEnvironment());
    const QCoreApplication application(argc, argv);
    const int cycles = application.arguments().value(1).toInt();
    if (cycles < 10) {
        std::fprintf(stderr,
                     "bench_link: it should be: simnode run -- bench_link CYCLES, at least 10\n");
        return 2;
    }
    measureIdleLoop(host, cycles);
    measureFullLoop(host, cycles);
    const QTemporaryDir logFolder;
    UsbHALIntf *const hal = UsbHALIntf::getInstance();
    start(hal, logFolder.path());
    measureCycles(hal, host, cycles);
    measureRates(hal, host, cycles);
    measureWay(hal, host, cycles / 2);
    hal->stop();
    require(!host.sawWrongBytes(), "the host gets each port's own bytes");
    return 0;
}
