// SPDX-License-Identifier: MIT
#include "UsbHal.h"

#include "UsbHalLog.h"
#include "workerthread.h"

#include <iostream>
#include <new>

using namespace usbhal_errors;

namespace {

constexpr quint32 largestMaxClients = 5;
constexpr quint32 defaultMainLoopPeriod = 100; // ms
constexpr int destructionTimeout = 10000;      // ms

// What the log has behind an error's text; a close of a port that is not open is too common to log.
enum class Detail { NotLogged, None, Parameter, Port };

struct ErrorRow
{
    int code;
    Detail detail;
    const char *text;
};

constexpr ErrorRow errors[] = {
    {NoError, Detail::NotLogged, "No error"},
    {WrongSize, Detail::Parameter, "Peer received message with wrong size !"},
    {WrongId, Detail::Parameter, "Peer received message with wrong ID !"},
    {NoMemory, Detail::Parameter, "Could not allocate memory !"},
    {PortAlreadyOpen, Detail::Parameter, "Tried to open a port already opened !"},
    {TooManyClients, Detail::Parameter, "Too many clients connected !"},
    {PortNotOpen, Detail::NotLogged, "Tried to close a not opened port !"},
    {NotInitialized, Detail::None, "Driver not initialized !"},
    {CloseFailed, Detail::Parameter, "Failed to close driver !"},
    {NotOpenedPort, Detail::Port, "Peer received message for a not opened port !"},
    {BufferOverflow, Detail::Port, "Buffer overflow !"},
};

constexpr bool areInOrder()
{
    for (int code = NoError; code <= BufferOverflow; ++code) {
        if (errors[code].code != code)
            return false;
    }
    return true;
}
static_assert(sizeof errors / sizeof errors[0] == BufferOverflow + 1 && areInOrder());

// The error's row, null for a code that is none.
const ErrorRow *findError(int code)
{
    return code >= NoError && code <= BufferOverflow ? &errors[code] : nullptr;
}

// Of the thread object, which is never destroyed: Qt aborts the process when the object of a
// running thread is, the process may end in that thread, and other threads may still call the core.
alignas(WorkerThread) unsigned char threadStorage[sizeof(WorkerThread)];

} // namespace

thread_local int UsbHAL::_emissionDepth = 0;
WorkerThread &UsbHAL::_connectedThread = *new (threadStorage) WorkerThread;

UsbHAL::UsbHAL(const QList<QSharedPointer<AbstractDriver>> &drivers) : _drivers(drivers)
{
    UsbHalLog::getInstance();
    qRegisterMetaType<DriverState>("DriverState");
    qRegisterMetaType<SocketState>("SocketState");
    qRegisterMetaType<TargetType>("TargetType");
    qRegisterMetaType<UsbConnID>("UsbConnID");
    connect(this, &UsbHAL::error, this, &UsbHAL::_onError);
}

UsbHAL::~UsbHAL()
{
    retire();
    waitForDisconnected(destructionTimeout);
}

void UsbHAL::getDefaultSetup(ParamHal &param) const
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

bool UsbHAL::setupConfig(const ParamHal &param)
{
    const CheckedLocker locker(&_mutex);
    if (_configured)
        return true;
    _param = param;
    if (!UsbHalLog::getInstance()->open(_param.logDir, QStringLiteral("UsbHal"))) {
        const QByteArray folder = _param.logDir.toUtf8();
        std::cout << "couldn't open log file in " << folder.constData() << std::endl;
    }
    if (_param.maxClients == 0 || _param.maxClients > largestMaxClients)
        _param.maxClients = largestMaxClients;
    if (_param.mainLoopPeriod == 0)
        _param.mainLoopPeriod = defaultMainLoopPeriod;
    UsbHalLog::getInstance()->setupConfig(_param);
    _configured = true;
    if (_hwDriver)
        _hwDriver->setupConfig(_param);
    _setupDone = true;
    logLine("setupConfig", {"configuration is now set"});
    return true;
}

DriverState UsbHAL::status() const
{
    const CheckedLocker locker(&_mutex);
    return _driverState;
}

bool UsbHAL::isHost() const
{
    return false;
}

QString UsbHAL::driverName() const
{
    const CheckedLocker locker(&_mutex);
    return _hwDriver ? _hwDriver->getDriverName() : QString();
}

quint32 UsbHAL::nbClients() const
{
    const CheckedLocker locker(&_mutex);
    return _nbClients();
}

const char *UsbHAL::getErrorStr(int code) const
{
    const ErrorRow *const row = findError(code);
    return row ? row->text : "";
}

QString UsbHAL::getSocketStateStr(SocketState state) const
{
    const int index = static_cast<int>(state);
    constexpr int count = sizeof SocketStateStr / sizeof SocketStateStr[0];
    return index >= 0 && index < count ? SocketStateStr[index] : QString();
}

bool UsbHAL::waitForConnected(int msecs) const
{
    const CheckedLocker locker(&_mutex);
    return _waitUntil(_connectedCond, msecs,
                      [this]() REQUIRES(_mutex) { return _driverState == DriverState::CONNECTED; });
}

bool UsbHAL::waitForDisconnected(int msecs) const
{
    const CheckedLocker locker(&_mutex);
    return _waitUntil(_disconnectedCond, msecs, [this]() REQUIRES(_mutex) {
        return _driverState == DriverState::DISCONNECTED;
    });
}

bool UsbHAL::_updateStatus(DriverState state, QMutexLocker &locker)
{
    if (state == _driverState)
        return false;
    _driverState = state;
    _emitUnlocked(locker, [&] { emit stateChanged(state); });
    logLine("_updateStatus",
            {"UsbHal switched to ", DriverStateStr[static_cast<int>(state)], " state"});
    return true;
}

void UsbHAL::_onConnected(QMutexLocker &locker)
{
    _emitUnlocked(locker, [this] { emit connected(); });
    _changeAllSocketsState(SocketState::OPENED, locker);
    _connectedCond.wakeOne();
}

void UsbHAL::_onDisconnected(QMutexLocker &locker)
{
    _emitUnlocked(locker, [this] { emit disconnected(); });
    _changeAllSocketsState(SocketState::DISCONNECTED, locker);
    _disconnectedCond.wakeOne();
}

void UsbHAL::_emitError(int code, void *data, QMutexLocker &locker)
{
    _emitUnlocked(locker, [&] { emit error(code, data); });
}

void UsbHAL::_onError(int num, void *data)
{
    const ErrorRow *const row = findError(num);
    if (!row || row->detail == Detail::NotLogged)
        return;
    const int value = static_cast<int>(reinterpret_cast<qintptr>(data));
    if (row->detail == Detail::None)
        logLine("_onError", {row->text});
    else
        logLine("_onError",
                {row->text, row->detail == Detail::Port ? " on port #" : " Param = ", value});
}
