// SPDX-License-Identifier: MIT
#include "ConnectionManager.h"

#include "FileService.h"
#include "Output.h"

#include <algorithm>
#include <limits>

namespace {

// The library sends one message in about 20 ms. Twenty of them bridge 400 ms in which this process
// may get no processor, and are few enough for a port's answer not to wait long behind the others.
constexpr int queuedMessages = 20;
constexpr int pumpPeriod = 10; // ms

// What the library delivers as a message of its own when the host has reopened a port.
constexpr char reopenedMarker[] = "DEVICE_CONN";
constexpr auto wholeMessage = std::numeric_limits<unsigned int>::max();

} // namespace

ConnectionManager::ConnectionManager(const Options &options, QObject *parent)
    : QObject(parent), _options(options), _hal(UsbHALIntf::getInstance())
{
    for (auto entry = options.services.begin(); entry != options.services.end(); ++entry)
        _ports[entry.key()].service = _makeService(entry.key(), entry.value());
    _pumpTimer.setInterval(pumpPeriod);
    _pumpTimer.setTimerType(Qt::PreciseTimer);
    connect(&_pumpTimer, &QTimer::timeout, this, &ConnectionManager::_pump);
    _connectSignals();
}

std::unique_ptr<Service> ConnectionManager::_makeService(int port,
                                                         const ServiceOptions &options) const
{
    switch (options.kind) {
    case ServiceKind::Sink:
        return std::make_unique<SinkService>();
    case ServiceKind::Source:
        return std::make_unique<SourceService>();
    case ServiceKind::File:
        return std::make_unique<FileService>(
            options.sendPath, options.receivePath, _options.largestFile,
            [port](const QString &text) { say(QString("port %1: %2").arg(port).arg(text)); });
    case ServiceKind::Echo:
        break;
    }
    return std::make_unique<EchoService>();
}

void ConnectionManager::_connectSignals()
{
    connect(_hal, &UsbHALIntf::stateChanged, this, &ConnectionManager::_onStateChanged,
            Qt::QueuedConnection);
    connect(_hal, &UsbHALIntf::socketStateChanged, this, &ConnectionManager::_onSocketStateChanged,
            Qt::QueuedConnection);
    connect(this, &ConnectionManager::messageArrived, this, &ConnectionManager::_onReadyRead,
            Qt::QueuedConnection);
    connect(
        this, &ConnectionManager::oldMessagesDiscarded, this,
        [](int port, int messages) {
            say(QString("port %1: %2 messages of the old link discarded").arg(port).arg(messages));
        },
        Qt::QueuedConnection);
    connect(_hal, &UsbHALIntf::error, this, &ConnectionManager::_onError, Qt::QueuedConnection);
    // A queued signal may arrive when the link is long back, and bytes of the new link would join
    // those of the lost one. So the loss itself is noted at once, in the thread that finds it.
    connect(
        _hal, &UsbHALIntf::stateChanged, this,
        [this](DriverState state) {
            if (state == DriverState::DISCONNECTED)
                ++_losses;
        },
        Qt::DirectConnection);
    connect(
        _hal, QOverload<int>::of(&UsbHALIntf::readyRead), this,
        [this](int port) {
            const auto entry = _ports.find(port);
            if (entry == _ports.end())
                return;
            ++entry->second.kept;
            emit messageArrived(port, _losses);
        },
        Qt::DirectConnection);
    connect(_hal, QOverload<int>::of(&UsbHALIntf::connected), this,
            &ConnectionManager::_discardKept, Qt::DirectConnection);
}

bool ConnectionManager::start()
{
    return std::all_of(_ports.begin(), _ports.end(), [this](const auto &entry) {
        const bool isOpen = _hal->openConnection(entry.first);
        if (!isOpen)
            say(QString("port %1 did not open").arg(entry.first));
        return isOpen;
    });
}

void ConnectionManager::stop()
{
    say("stopping");
    _pumpTimer.stop();
    _hal->stop();
    // The ports stay open in a stopped library, and an open port cannot be opened.
    for (const auto &entry : _ports) {
        if (_hal->socketStatus(entry.first) != SocketState::CLOSED)
            _hal->closeConnection(entry.first);
    }
    say("stopped");
}

qint64 ConnectionManager::silence() const
{
    return isConnected() && _lastActivity.isValid() ? _lastActivity.elapsed() : 0;
}

// A restart by the library's watchdog, other than a lost link, keeps what was not read. It would
// come before the new link's bytes, and hold the host up with a delay for as long as it lies there.
// To close the port would discard it as well, but count it out only up to its first zero byte. When
// a port comes back, in the thread that brings it, nothing but such bytes can be in it.
void ConnectionManager::_discardKept(int number)
{
    const auto entry = _ports.find(number);
    if (entry == _ports.end())
        return;
    int messages = 0;
    // A message may be empty, so that the bytes alone do not tell the end.
    for (int left = entry->second.kept.exchange(0); left > 0 || _hal->nbBytesReceived(number) > 0;
         --left)
        messages += _hal->read(number, wholeMessage).isEmpty() ? 0 : 1;
    if (messages == 0)
        return;
    // Not printed here: the watchdog may kill this thread.
    emit oldMessagesDiscarded(number, messages);
}

void ConnectionManager::_onStateChanged(DriverState state)
{
    _lastActivity.restart();
    say("link " + DriverStateStr[static_cast<int>(state)]);
    _restartAfterLoss();
}

void ConnectionManager::_onSocketStateChanged(UsbConnID port, SocketState state)
{
    say(QString("port %1 %2").arg(port).arg(_hal->getSocketStateStr(state)));
    const auto entry = _ports.find(port);
    if (entry != _ports.end())
        entry->second.state = state;
}

// A message that was announced before a loss is gone, or will be discarded.
void ConnectionManager::_onReadyRead(int number, unsigned losses)
{
    _restartAfterLoss();
    if (losses != _lossesSeen)
        return;
    _lastActivity.restart();
    Port &port = _ports.at(number);
    ++port.unread;
    _readWaiting(number, port);
    if (!_pumpTimer.isActive())
        _pumpTimer.start();
}

void ConnectionManager::_onError(int code, void *data)
{
    const auto port = static_cast<int>(reinterpret_cast<qintptr>(data));
    say(QString("error %1 (%2): %3").arg(code).arg(port).arg(_hal->getErrorStr(code)));
}

// The library signals each message once and read() never joins two, so counting the signals tells
// how many reads are due; the bytes that wait would not, as a message may be empty.
void ConnectionManager::_readWaiting(int number, Port &port)
{
    while (port.unread > 0 && port.service->takesBytes()) {
        const QByteArray message = _hal->read(number, wholeMessage);
        --port.unread;
        --port.kept;
        // After a loss seen only now, it is unknown which link the message came from; the host
        // cannot have sent anything but its first, empty message on a new one.
        if (_restartAfterLoss())
            return;
        _deliver(number, port, message);
    }
}

void ConnectionManager::_deliver(int number, Port &port, const QByteArray &message)
{
    sayDetail(QString("port %1: %2 bytes from the host").arg(number).arg(message.size()));
    if (message == reopenedMarker && port.state != SocketState::OPENED) {
        say(QString("port %1 reopened by the host").arg(number));
        port.state = SocketState::OPENED;
        port.service->restart();
    } else if (!message.isEmpty()) {
        port.service->receive(message);
    }
}

void ConnectionManager::_pump()
{
    _restartAfterLoss();
    for (auto &entry : _ports)
        _readWaiting(entry.first, entry.second);
    const int limit = _hal->getMaxWriteSize();
    while (_hal->bytesToWrite() < queuedMessages) {
        if (!_sendNext(limit)) {
            _pumpTimer.stop();
            return;
        }
    }
}

// Queues one message of the next port in turn that has one. A message that the library refuses
// stays with its service; there is nothing to pump until a signal tells that the port or the link
// is back.
bool ConnectionManager::_sendNext(int limit)
{
    const auto first = _ports.upper_bound(_lastServed);
    for (auto entry = first; entry != _ports.end(); ++entry) {
        if (_send(entry->first, *entry->second.service, limit))
            return true;
    }
    for (auto entry = _ports.begin(); entry != first; ++entry) {
        if (_send(entry->first, *entry->second.service, limit))
            return true;
    }
    return false;
}

bool ConnectionManager::_send(int number, Service &service, int limit)
{
    const QByteArray bytes = service.nextBytes(limit);
    if (bytes.isEmpty())
        return false;
    const int count = _hal->write(number, bytes);
    service.bytesSent(count);
    if (count == 0)
        return false;
    sayDetail(QString("port %1: %2 bytes to the host").arg(number).arg(count));
    _lastActivity.restart();
    _lastServed = number;
    return true;
}

bool ConnectionManager::_restartAfterLoss()
{
    const unsigned losses = _losses;
    if (losses == _lossesSeen)
        return false;
    _lossesSeen = losses;
    for (auto &entry : _ports) {
        entry.second.unread = 0;
        entry.second.service->restart();
    }
    return true;
}
