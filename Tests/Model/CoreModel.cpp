// SPDX-License-Identifier: MIT
#include "CoreModel.h"

namespace {

const char *const errorTexts[] = {"No error",
                                  "Peer received message with wrong size !",
                                  "Peer received message with wrong ID !",
                                  "Could not allocate memory !",
                                  "Tried to open a port already opened !",
                                  "Too many clients connected !",
                                  "Tried to close a not opened port !",
                                  "Driver not initialized !",
                                  "Failed to close driver !",
                                  "Peer received message for a not opened port !",
                                  "Buffer overflow !"};

// The writer pads, and cuts nothing off.
QByteArray padded(qint64 value, int width)
{
    QByteArray digits = QByteArray::number(value);
    while (digits.size() < width)
        digits.prepend('0');
    return digits;
}

bool isDigits(const QByteArray &field)
{
    for (const char c : field) {
        if (c < '0' || c > '9')
            return false;
    }
    return !field.isEmpty();
}

quint32 sizeAsText(const QByteArray &payload)
{
    const int zero = payload.indexOf('\0');
    return static_cast<quint32>(zero < 0 ? payload.size() : zero);
}

} // namespace

CoreModel::CoreModel(const Setup &setup, Trace &trace, ClientHandlers &handlers)
    : _setup(setup), _trace(trace), _handlers(handlers)
{
}

void CoreModel::log(const char *function, const QString &message)
{
    _trace.add(QString("log %1: ").arg(function) + message);
}

void CoreModel::drive(const QString &what)
{
    _trace.add("driver " + what);
}

// Outside the thread a handler finds the thread at rest, where it waits for the next turn.
void CoreModel::emitSignal(const QString &signal)
{
    if (!_inThread)
        settle();
    _handlers.onSignal(*this, signal, _trace);
}

void CoreModel::emitError(int code, int value)
{
    if (_inThread)
        _queuedErrors.append({code, value});
    else
        logError(code, value);
    emitSignal(QString("error(%1,%2)").arg(code).arg(value));
}

void CoreModel::logError(int code, int value)
{
    const QString text = errorTexts[code];
    if (code == 7)
        log("_onError", text);
    else if (code == 9 || code == 10)
        log("_onError", text + " on port #" + QString::number(value));
    else if (code != 6)
        log("_onError", text + " Param = " + QString::number(value));
}

void CoreModel::handleEvents()
{
    while (!_queuedErrors.isEmpty()) {
        const QPair<int, int> error = _queuedErrors.takeFirst();
        logError(error.first, error.second);
    }
}

// ---- configuration, start and stop ----

void CoreModel::getDefaultSetup(ParamHal &param) const
{
    param.maxReadSize = 10000;
    param.maxWriteSize = 10000;
    param.rdTimeout = 2000;
    param.wrTimeout = 2000;
    param.maxWatchdogErrors = 40;
    param.threadStopTimeout = 2500;
    param.maxWriteFifoSize = 10;
    param.nbRetry = 4;
}

bool CoreModel::setupConfig(const ParamHal &param)
{
    if (_configured)
        return true;
    _param = param;
    if (_param.maxClients == 0 || _param.maxClients > 5)
        _param.maxClients = 5;
    _configured = true;
    _trace.add("log opened in " + param.logDir + " as UsbHal");
    log("setupConfig", "configuration is now set");
    return true;
}

bool CoreModel::start()
{
    _fifo.clear();
    clearQueues();
    if (!_configured)
        return false;
    log("openConnection", "start communication thread");
    if (_inThread) {
        _startPending = true; // the thread, on its way out, begins anew
    } else {
        alive = true;
        _rest = Rest::NotBegun;
        nextHalf = 1;
        running = true;
        forceDisconnection = false;
    }
    passes = 0;
    passesSeen = 0;
    watchdogErrors = 0;
    _timerRuns = true;
    return true;
}

void CoreModel::stop()
{
    _timerRuns = false;
    if (_inThread) {
        askThreadToEnd();
    } else {
        _stopping = true;
        askThreadToEnd();
        waitForEnd();
        log("stop", "communication thread stopped");
        _stopping = false;
    }
    changeLink(DriverState::DISCONNECTED);
}

void CoreModel::askThreadToEnd()
{
    log("stop", "watchdog stopped");
    if (_driver >= 0)
        drive("cancel " + driverName());
    running = false;
    _startPending = false;
}

void CoreModel::destroy()
{
    log("~UsbHAL", "UsbHAL::~UsbHAL");
    stop();
}

QString CoreModel::getErrorStr(int code) const
{
    return code >= 0 && code <= 10 ? errorTexts[code] : "";
}

QString CoreModel::getSocketStateStr(SocketState state) const
{
    switch (state) {
    case SocketState::CLOSED:
        return "CLOSED";
    case SocketState::OPENED:
        return "OPENED";
    case SocketState::DISCONNECTED:
        return "DISCONNECTED";
    }
    return QString();
}

// ---- the link ----

bool CoreModel::waitForConnected(int /*msecs*/) const
{
    return link == DriverState::CONNECTED;
}

bool CoreModel::waitForDisconnected(int /*msecs*/) const
{
    return link == DriverState::DISCONNECTED;
}

bool CoreModel::changeLink(DriverState state)
{
    if (link == state)
        return false;
    link = state;
    const QString name = state == DriverState::CONNECTED ? "CONNECTED" : "DISCONNECTED";
    emitSignal("stateChanged(" + name + ')');
    log("_updateStatus", "UsbHal switched to " + name + " state");
    return true;
}

void CoreModel::linkUp()
{
    emitSignal("connected");
    changePorts(SocketState::OPENED);
}

void CoreModel::linkDown()
{
    emitSignal("disconnected");
    changePorts(SocketState::DISCONNECTED);
}

void CoreModel::changePorts(SocketState state)
{
    const QList<int> ports = _states.keys();
    for (const int port : ports) {
        if (_states[port] == state || _states[port] == SocketState::CLOSED)
            continue;
        _states[port] = state;
        if (state == SocketState::OPENED) {
            portUp(port);
        } else {
            log("_changeAllSocketsState", "emit disconnected");
            portDown(port);
        }
    }
}

// ---- the ports ----

bool CoreModel::openConnection(int port)
{
    log("openConnection", "opening driver");
    const bool ready = waitForEnding();
    if (isOpen(port)) {
        emitError(4, port);
        return false;
    }
    if (_configured && clients >= _param.maxClients) {
        emitError(5, port);
        return false;
    }
    if (!ready || !(isCommunicating() || start())) {
        emitError(7, port);
        return false;
    }
    if (_queues.contains(port)) {
        discardQueue(port);
        log("openConnection",
            ">>>> openConnection _totalBytesWaitingRead = " + QString::number(bytesWaiting));
    } else {
        _queues.insert(port, Queue());
    }
    _states[port] = SocketState::OPENED;
    ++clients;
    portUp(port);
    return true;
}

// In the thread nothing can be waited for, and what is opened amid a stop would end with it.
bool CoreModel::waitForEnding()
{
    if (_inThread)
        return !_stopping;
    if (isEnding())
        waitForEnd();
    return !isEnding();
}

bool CoreModel::closeConnection(int port)
{
    log("closeConnection", "closeConnection on port " + QString::number(port));
    return close(port);
}

void CoreModel::disconnectFromHost(int port)
{
    if (!_states.contains(port))
        return;
    log("disconnectFromHost", "Disconnect " + QString::number(port) + " from host");
    close(port);
    log("disconnectFromHost", QString::number(port) + " is now closed");
}

void CoreModel::peerDisconnected(int port)
{
    if (socketStatus(port) != SocketState::OPENED)
        return;
    _states[port] = SocketState::DISCONNECTED;
    portDown(port);
}

bool CoreModel::close(int port)
{
    if (!canClose(port)) {
        emitError(6, port);
        return false;
    }
    discardQueue(port);
    log("_closeConnection",
        ">>>> _closeConnection _totalBytesWaitingRead = " + QString::number(bytesWaiting));
    --clients;
    const SocketState before = _states[port];
    _states[port] = SocketState::CLOSED;
    if (before == SocketState::OPENED)
        portDown(port);
    log("_closeConnection", "port #" + QString::number(port) + " has been CLOSED");
    return true;
}

void CoreModel::portUp(int port)
{
    const QString number = QString::number(port);
    emitSignal("connected(" + number + ')');
    log("_onConnected", "socket #" + number + "CONNECTED");
    emitSignal("socketStateChanged(" + number + ",OPENED)");
}

void CoreModel::portDown(int port)
{
    const QString number = QString::number(port);
    emitSignal("disconnected(" + number + ')');
    log("_onDisconnected", "socket #" + number + "DISCONNECTED");
    emitSignal("socketStateChanged(" + number + ",DISCONNECTED)");
    maxSizeExchanged = false;
    log("_onDisconnected", QString::number(removeMessagesOf(port)) +
                               " messages removed from Write FIFO for port " + number);
    if (_driver >= 0 && _setup.avoidClosingDuringHandshake && !anyPortOpen() &&
        !forceDisconnection) {
        forceDisconnection = true;
        log("_onDisconnected", "[USBHAL] force low-level disconnection");
    }
}

// A message whose id took more than its four digits belongs to no port.
int CoreModel::removeMessagesOf(int port)
{
    const int before = _fifo.size();
    for (int i = before - 1; i >= 0; --i) {
        const QByteArray &bytes = _fifo[i].bytes;
        const QByteArray id = bytes.mid(9, 4);
        if (bytes.size() == bytes.mid(4, 5).toInt() + 9 && isDigits(id) && id.toInt() == port)
            _fifo.removeAt(i);
    }
    return before - _fifo.size();
}

bool CoreModel::anyPortOpen() const
{
    return _states.values().contains(SocketState::OPENED);
}

bool CoreModel::isOpen(int port) const
{
    return _queues.contains(port) && socketStatus(port) == SocketState::OPENED;
}

bool CoreModel::isUsable(int port) const
{
    return socketStatus(port) == SocketState::OPENED && link == DriverState::CONNECTED;
}

bool CoreModel::canClose(int port) const
{
    return _queues.contains(port) && clients != 0 && socketStatus(port) != SocketState::CLOSED;
}

void CoreModel::discardQueue(int port)
{
    for (const QByteArray &payload : _queues[port])
        bytesWaiting -= sizeAsText(payload);
    _queues[port].clear();
}

void CoreModel::clearQueues()
{
    for (Queue &queue : _queues)
        queue.clear();
    bytesWaiting = 0;
}

// ---- reading ----

QByteArray CoreModel::read(int port, unsigned int maxSize)
{
    const QByteArray bytes = peek(port, maxSize);
    if (!isUsable(port) || _queues.value(port).isEmpty())
        return bytes;
    QByteArray &head = _queues[port].first();
    if (bytes.size() == head.size())
        _queues[port].removeFirst();
    else
        head = head.mid(bytes.size());
    bytesWaiting -= static_cast<quint32>(bytes.size());
    if (bytes.size() > 5 && bytes.size() < 500)
        log("read", "Message read for client #" + QString::number(port) + "of size " +
                        QString::number(bytes.size()));
    return bytes;
}

QByteArray CoreModel::peek(int port, unsigned int maxSize) const
{
    if (!isUsable(port) || _queues.value(port).isEmpty())
        return QByteArray();
    const QByteArray head = _queues.value(port).first();
    return maxSize < quint64(head.size()) ? head.left(static_cast<int>(maxSize)) : head;
}

QByteArray CoreModel::readAll(int /*port*/) const
{
    return QByteArray();
}

int CoreModel::nbBytesReceived(int port) const
{
    const Queue queue = _queues.value(port);
    return queue.isEmpty() ? 0 : queue.first().size();
}

bool CoreModel::waitForReadyRead(int port, int /*msecs*/) const
{
    return isUsable(port) && nbBytesReceived(port) != 0;
}

// ---- writing ----

int CoreModel::write(int port, const QByteArray &data)
{
    if (!isUsable(port))
        return 0;
    if (isHost())
        waitForWritePermission();
    const int limit = _driver < 0 ? 487 : qMin(getMaxWriteSize(), 99995);
    if (limit < 1) {
        log("write", "Maximum write size leaves no room for a payload");
        return 0;
    }
    return queueMessages(port, data, limit);
}

// The wait passes without a permission, and the write goes on.
void CoreModel::waitForWritePermission()
{
    QStringList reasons;
    if (quint32(_fifo.size()) >= _param.maxWriteFifoSize)
        reasons += "FIFO to empty (" + QString::number(_fifo.size()) + ')';
    if (peerBusy)
        reasons += "device to finish reading";
    if (!reasons.isEmpty())
        log("write", "wait for " + reasons.join(" and ") + "...");
}

int CoreModel::queueMessages(int port, const QByteArray &data, int limit)
{
    QByteArray rest = data;
    while (!rest.isEmpty()) {
        if (_fifo.size() > 99) {
            log("write", "Write buffer storage limit reached, rest of the data dropped");
            break;
        }
        const QByteArray chunk = rest.left(limit);
        rest = rest.mid(limit);
        const QByteArray bytes = "FADA" + padded(chunk.size() + 4, 5) + padded(port, 4) + chunk;
        _fifo.append({bytes, ++_framed});
        log("write", "Add to write queue message of size: " + QString::number(bytes.size()));
        log("write", "Remaining frame size = " + QString::number(rest.size()) +
                         " is empty = " + (rest.isEmpty() ? "true" : "false"));
        if (!rest.isEmpty())
            log("write", "Continue...");
    }
    return data.size() - rest.size();
}

int CoreModel::getMaxWriteSize() const
{
    return _driver < 0 ? 0 : static_cast<int>(_drivers[_driver].maxWriteSize) - 13;
}

void CoreModel::flush(int /*msecs*/)
{
    const QString count = QString::number(_fifo.size());
    log("flush", _fifo.isEmpty() ? "FIFO write is empty (" + count + ')'
                                 : "FIFO is not empty (" + count + "), leaving in timeout");
}

void CoreModel::watchdog(bool /*enable*/) const {}
