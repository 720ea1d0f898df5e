// SPDX-License-Identifier: MIT
#include "SoakLink.h"

#include "NodeTime.h"

#include <EventPolling.h>
#include <VirtualTime.h>

namespace {

constexpr int timeout = 60000; // ms, real, for a link that has to come up
constexpr int barrierSize = 16;
constexpr int barrierAttempts = 5;
constexpr unsigned pauseDivisor = 1000;
constexpr unsigned nodeDivisor = 50;
constexpr quint32 blockSize = 2000;
constexpr int allMessages = 1000000;

} // namespace

SoakLink::SoakLink(bool isVirtual)
    : facade(UsbHALIntf::getInstance()), _node(SimNodeControl::directoryFromEnvironment())
{
    if (isVirtual) {
        VirtualTime::setPauseDivisor(pauseDivisor);
        setNodeTimeDivisor(nodeDivisor);
    }
    configure(isVirtual);
    QObject::connect(
        facade, &UsbHALIntf::stateChanged, facade,
        [this](DriverState state) { ++(state == DriverState::CONNECTED ? _connections : _losses); },
        Qt::DirectConnection);
}

SoakLink::~SoakLink()
{
    facade->stop();
    facade->disconnect();
}

const QList<int> &SoakLink::ports()
{
    static const QList<int> all = {1, 2, 3, 4, 5};
    return all;
}

void SoakLink::configure(bool isVirtual)
{
    ParamHal param;
    facade->getDefaultSetup(param);
    param.maxReadSize = blockSize;
    param.maxWriteSize = blockSize;
    param.rdTimeout = 200;
    param.nbRetry = 2;
    param.threadStopTimeout = 4000; // more than a silent read takes
    param.mainLoopPeriod = 100;
    param.maxWatchdogErrors = 40;
    if (isVirtual)
        adaptToVirtualTime(param);
    param.logDir = _logFolder.path();
    param.maxLogLines = 20000;
    facade->setupConfig(param);
}

// The watchdog's timer and the wait for the thread stay real. A host that the machine keeps waiting
// must not pass for one that is gone, nor a thread for one that is stuck: both have half a second.
void SoakLink::adaptToVirtualTime(ParamHal &param)
{
    param.nbRetry = 100;
    param.threadStopTimeout = 1000;
    param.mainLoopPeriod = 20;
    param.maxWatchdogErrors = 25;
}

void SoakLink::setInOrder(QRandomGenerator &random)
{
    for (const char *end : {"read ok", "write ok", "node present", "open ok", "cable in"})
        command(end);
    openPorts();
    plugNewHostIn();
    for (int attempt = 0; attempt < barrierAttempts; ++attempt) {
        if (!happens([this] { return isUp(); }, timeout))
            throw SoakFailure("the link did not come back");
        if (passBarriers(random)) {
            toHost.clear();
            toDevice.clear();
            return;
        }
    }
    throw SoakFailure("the link did not stay up");
}

// Ports that were open at a stop are still open, and must be closed before they start anything.
void SoakLink::openPorts()
{
    for (const int port : ports()) {
        if (!facade->isRunning() && facade->socketStatus(port) != SocketState::CLOSED)
            facade->closeConnection(port);
    }
    for (const int port : ports()) {
        if (facade->socketStatus(port) == SocketState::CLOSED && !facade->openConnection(port))
            throw SoakFailure(QString("port %1 could not be opened").arg(port));
    }
}

// The old one goes with all that it had still to send.
void SoakLink::plugNewHostIn()
{
    _host.reset();
    _taken.clear();
    _host = std::make_unique<HostEnd>(SimNodeControl::directoryFromEnvironment());
    _host->plugIn();
}

bool SoakLink::isUp() const
{
    for (const int port : ports()) {
        if (facade->socketStatus(port) != SocketState::OPENED)
            return false;
    }
    return facade->status() == DriverState::CONNECTED && _host->isEstablished();
}

// Whether last bytes each way arrived before the link went down again.
bool SoakLink::passBarriers(QRandomGenerator &random)
{
    _lossesInOrder = _losses;
    QHash<int, QByteArray> barriers;
    for (const int port : ports()) {
        barriers[port] = Traffic::makeBytes(port, barrierSize, random);
        if (facade->write(port, barriers[port]) != barrierSize)
            return false;
        _host->send(port, barriers[port]);
    }
    const auto passed = [&] {
        receive(allMessages);
        for (const int port : ports()) {
            if (!toHost.received(port).endsWith(barriers[port]) ||
                !toDevice.received(port).endsWith(barriers[port]))
                return false;
        }
        return true;
    };
    if (!happens([&] { return passed() || !isUndisturbed(); }, timeout))
        throw SoakFailure("a link that is up carried no bytes");
    return isUndisturbed();
}

void SoakLink::sendToHost(int port, const QByteArray &bytes)
{
    const int queued = facade->write(port, bytes);
    toHost.noteSent(port, bytes.left(queued));
}

void SoakLink::sendToDevice(int port, const QByteArray &bytes)
{
    _host->send(port, bytes);
    toDevice.noteSent(port, bytes);
}

void SoakLink::receive(int messages)
{
    for (const int port : ports()) {
        receiveFromQueue(port, messages);
        const QByteArray all = _host->received(port);
        toHost.noteReceived(port, all.mid(_taken.value(port)));
        _taken[port] = all.size();
    }
}

void SoakLink::receiveFromQueue(int port, int messages)
{
    for (int i = 0; i < messages; ++i) {
        const QByteArray bytes = facade->read(port, blockSize);
        if (bytes.isEmpty() || !isUndisturbed())
            return;
        toDevice.noteReceived(port, bytes);
    }
}

void SoakLink::command(const char *text)
{
    const std::string answer = _node.command(text);
    if (answer != "ok")
        throw SoakFailure("the node answered to \"" + QString(text) +
                          "\": " + QString::fromStdString(answer));
}

int SoakLink::nodeOpens()
{
    return std::stoi(_node.statusValue("opens"));
}
