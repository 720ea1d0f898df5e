// SPDX-License-Identifier: MIT
// The port as a QIODevice against the facade that it stands on, over the simulated node: processor
// time for the same bytes, payload rates, what an idle port costs, and memory. To be run under
// simnode.

#include "HostProcess.h"
#include "Memory.h"
#include "Phase.h"
#include "Require.h"

#include <Campaign.h>
#include <SimNodeControl.h>
#include <UsbHalPort.h>

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTimer>

#include <memory>
#include <vector>

namespace {

constexpr int ports = HostProcess::ports;
constexpr int maxPayload = 10000 - 13; // bytes, with the defaults of the library
constexpr int fillTime = 500;          // ms until the queues are full
constexpr int queued = 50;             // messages that the facade's client keeps queued
constexpr int lookPause = 10;          // ms between its looks

QByteArray fill(int port, int size)
{
    return QByteArray(size, fillOf(port));
}

ParamHal setup(const QString &logFolder)
{
    ParamHal param = UsbHalPort::configuration();
    param.logDir = logFolder;
    param.maxLogLines = 20000;
    return param;
}

/** A client of the facade that does as little as one can: all in one thread, reading in the signal.
 */
class FacadeClient
{
public:
    explicit FacadeClient(UsbHALIntf *hal) : _hal(hal)
    {
        QObject::connect(
            hal, QOverload<int>::of(&UsbHALIntf::readyRead), &_timer,
            [this](int port) { _hal->read(port, 10000); }, Qt::DirectConnection);
        for (int port = 1; port <= ports; ++port)
            require(hal->openConnection(port), "a port of the facade opens");
        require(hal->waitForConnected(20000), "the link comes up");
        QObject::connect(&_timer, &QTimer::timeout, [this] { fillQueue(); });
    }
    ~FacadeClient()
    {
        for (int port = 1; port <= ports; ++port)
            _hal->closeConnection(port);
    }
    Q_DISABLE_COPY(FacadeClient)

    void startWriting(int size)
    {
        _size = size;
        _timer.start(lookPause);
    }
    void stopWriting()
    {
        _timer.stop();
        spinUntil("the queue of writes runs dry", [this] { return _hal->bytesToWrite() == 0; });
    }

private:
    void fillQueue()
    {
        while (_hal->bytesToWrite() < queued) {
            _port = _port % ports + 1;
            require(_hal->write(_port, fill(_port, _size)) == _size, "a write is taken");
        }
    }

    UsbHALIntf *const _hal;
    QTimer _timer;
    int _size = 0;
    int _port = 0;
};

/** The same with ports as devices. */
class PortClient
{
public:
    PortClient()
    {
        for (int number = 1; number <= ports; ++number) {
            _ports.push_back(std::make_unique<UsbHalPort>(number));
            UsbHalPort *const port = _ports.back().get();
            QObject::connect(port, &UsbHalPort::readyRead, [port] {
                const QByteArray bytes = port->readAll();
                require(bytes == fill(port->portNumber(), bytes.size()),
                        "a port gets its own bytes");
            });
            QObject::connect(port, &UsbHalPort::bytesWritten, [this, port] { fillBuffer(port); });
            require(port->open(QIODevice::ReadWrite), "a port opens");
            require(port->waitForConnected(20000), "the host is there");
        }
    }

    void startWriting(int size)
    {
        _size = size;
        for (const auto &port : _ports)
            fillBuffer(port.get());
    }
    void stopWriting()
    {
        _size = 0;
        for (const auto &port : _ports)
            spinUntil("a port is written empty", [&] { return port->bytesToWrite() == 0; });
    }

    /** Fills the write buffers; returns the bytes that wait. */
    qint64 writeFull()
    {
        qint64 waiting = 0;
        for (const auto &port : _ports) {
            const QByteArray bytes = fill(port->portNumber(), maxPayload);
            while (port->write(bytes) == bytes.size()) {
            }
            waiting += port->bytesToWrite();
        }
        return waiting;
    }

private:
    void fillBuffer(UsbHalPort *port)
    {
        const QByteArray bytes = fill(port->portNumber(), _size);
        while (_size > 0 && port->bytesToWrite() < queued / ports * maxPayload)
            require(port->write(bytes) == _size, "a write is taken");
    }

    std::vector<std::unique_ptr<UsbHalPort>> _ports;
    int _size = 0;
};

double processTime(const Usage &before, const Usage &after)
{
    return after.processTime - before.processTime;
}

// Both directions at once; the time is that of as many bytes as the writes have.
template <typename Client>
void measureBytes(Client &client, const char *name, HostProcess &host, int cycles, int size)
{
    const bool feeding = size == maxPayload;
    host.setFeeding(feeding);
    client.startWriting(size);
    spin(fillTime);
    const Usage before = Usage::soFar();
    const quint32 first = host.exchanges();
    const Phase phase(host, cycles);
    const Usage after = Usage::soFar();
    const auto bytesSoFar = [&](quint32 index) {
        const HostProcess::Exchange exchange = host.exchange(index);
        return exchange.bytesToHost + exchange.bytesToDevice;
    };
    const qint64 bytes = bytesSoFar(host.exchanges() - 1) - bytesSoFar(first - 1);
    const std::string figure = "port." + std::string(name) + '.' + std::to_string(size);
    Campaign::printFigure(figure + ".time",
                          processTime(before, after) * size / static_cast<double>(bytes));
    if (feeding) {
        Campaign::printFigure(figure + ".todevice", phase.rateToDevice());
        Campaign::printFigure(figure + ".tohost", phase.rateToHost());
    }
    host.setFeeding(false);
    client.stopWriting();
    spinUntil("the host sends all that waits", [&] { return host.pending() == 0; });
}

void measureMemory(PortClient &client)
{
    const double before = heldMemory();
    const auto waiting = static_cast<double>(client.writeFull());
    Campaign::printFigure("port.ours.held", (heldMemory() - before) / waiting);
}

template <typename Client>
void measure(Client &client, const char *name, HostProcess &host, int cycles)
{
    spin(fillTime);
    Phase(host, cycles).printUsage(std::string("port.") + name);
    const double before = heldMemory();
    for (const int size : {16, maxPayload})
        measureBytes(client, name, host, cycles, size);
    Campaign::printFigure(std::string("port.") + name + ".grown", heldMemory() - before);
}

} // namespace

int main(int argc, char *argv[])
{
    HostProcess host(SimNodeControl::directoryFromEnvironment());
    const QCoreApplication application(argc, argv);
    const int cycles = application.arguments().value(1).toInt();
    if (cycles < 10) {
        std::fprintf(stderr,
                     "bench_port: it should be: simnode run -- bench_port CYCLES, at least 10\n");
        return 2;
    }
    const QTemporaryDir logFolder;
    UsbHalPort::setConfiguration(setup(logFolder.path()));
    UsbHALIntf *const hal = UsbHALIntf::getInstance();
    hal->setupConfig(setup(logFolder.path()));
    {
        FacadeClient facade(hal);
        measure(facade, "facade", host, cycles);
    }
    PortClient devices;
    measure(devices, "ours", host, cycles);
    measureMemory(devices);
    require(!host.sawWrongBytes(), "the host gets each port's own bytes");
    return 0;
}
