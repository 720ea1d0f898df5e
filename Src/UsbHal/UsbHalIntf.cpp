// SPDX-License-Identifier: MIT
#include "UsbHalIntf.h"

#include "GadgetDriver.h"
#include "UsbHal.h"

#include <cstddef>
#include <new>
#include <unistd.h>

namespace {

// ParamHal's layout, which programs were built against, with words of 64 bits and of 32.
constexpr bool wideWords = sizeof(void *) == 8;
static_assert(wideWords || sizeof(void *) == 4);
static_assert(offsetof(ParamHal, maxReadSize) == 0);
static_assert(offsetof(ParamHal, maxWriteSize) == 4);
static_assert(offsetof(ParamHal, drvOption) == 8);
static_assert(offsetof(ParamHal, rdTimeout) == 12);
static_assert(offsetof(ParamHal, wrTimeout) == 16);
static_assert(offsetof(ParamHal, maxWatchdogErrors) == 20);
static_assert(offsetof(ParamHal, threadStopTimeout) == 24);
static_assert(offsetof(ParamHal, maxWriteFifoSize) == 28);
static_assert(offsetof(ParamHal, nbRetry) == 32);
static_assert(offsetof(ParamHal, maxClients) == 36);
static_assert(offsetof(ParamHal, mainLoopPeriod) == 40);
static_assert(offsetof(ParamHal, spareParam1) == 44);
static_assert(offsetof(ParamHal, spareParam2) == 48);
static_assert(offsetof(ParamHal, spareParam3) == 52);
static_assert(offsetof(ParamHal, logDir) == 56);
static_assert(offsetof(ParamHal, spareFlag) == (wideWords ? 64 : 60));
static_assert(offsetof(ParamHal, spareName) == (wideWords ? 72 : 64));
static_assert(offsetof(ParamHal, maxLogLines) == (wideWords ? 80 : 68));
static_assert(sizeof(ParamHal) == (wideWords ? 88 : 72));
static_assert(alignof(ParamHal) == alignof(void *));

QSharedPointer<AbstractDriver> createDriver()
{
    return QSharedPointer<GadgetDriver>(new GadgetDriver).staticCast<AbstractDriver>();
}

} // namespace

UsbHALIntf *UsbHALIntf::getInstance()
{
    // Never destroyed: client threads may be in a call, or make one, until the process is gone.
    union Storage {
        Storage() { new (&facade) UsbHALIntf; }
        ~Storage() { facade._endProcess(); }
        UsbHALIntf facade;
    };
    static Storage storage;
    return &storage.facade;
}

UsbHALIntf::UsbHALIntf() : _process(::getpid())
{
    QList<QSharedPointer<AbstractDriver>> drivers;
    drivers.append(createDriver());
    drivers.append(createDriver());
    _hal = new UsbHAL(drivers);
    _relaySignals();
}

UsbHALIntf::~UsbHALIntf() = default;

// A forked child has the core's locks as they were at the fork, but neither its thread nor the
// right to its device and log.
void UsbHALIntf::_endProcess()
{
    if (!_freed && (_process == ::getpid() || _hal->hasStartedHere()))
        _hal->retire();
}

void UsbHALIntf::freeMem()
{
    if (_freed)
        return;
    if (!_hal->isDestroyable()) {
        if (_hal->isRunning())
            _hal->stop();
    } else if (_hal->retire()) {
        _freed = true;
        delete _hal;
    }
}

void UsbHALIntf::_relaySignals()
{
    const auto relay = [this](auto from, auto to) {
        connect(_hal, from, this, to, Qt::DirectConnection);
    };
    relay(QOverload<>::of(&UsbHAL::connected), QOverload<>::of(&UsbHALIntf::connected));
    relay(QOverload<>::of(&UsbHAL::disconnected), QOverload<>::of(&UsbHALIntf::disconnected));
    relay(QOverload<int>::of(&UsbHAL::connected), QOverload<int>::of(&UsbHALIntf::connected));
    relay(QOverload<int>::of(&UsbHAL::disconnected), QOverload<int>::of(&UsbHALIntf::disconnected));
    relay(QOverload<int>::of(&UsbHAL::readyRead), QOverload<int>::of(&UsbHALIntf::readyRead));
    relay(QOverload<>::of(&UsbHAL::readyRead), QOverload<>::of(&UsbHALIntf::readyRead));
    relay(&UsbHAL::error, &UsbHALIntf::error);
    relay(&UsbHAL::stateChanged, &UsbHALIntf::stateChanged);
    relay(&UsbHAL::socketStateChanged, &UsbHALIntf::socketStateChanged);
}

bool UsbHALIntf::isHost() const
{
    return _hal->isHost();
}

bool UsbHALIntf::setupConfig(const ParamHal &param)
{
    return _hal->setupConfig(param);
}

void UsbHALIntf::getDefaultSetup(ParamHal &param) const
{
    _hal->getDefaultSetup(param);
}

bool UsbHALIntf::openConnection(int port)
{
    return _hal->openConnection(port);
}

DriverState UsbHALIntf::status() const
{
    return _hal->status();
}

SocketState UsbHALIntf::socketStatus(int port) const
{
    return _hal->socketStatus(port);
}

bool UsbHALIntf::closeConnection(int port)
{
    return _hal->closeConnection(port);
}

QString UsbHALIntf::driverName() const
{
    return _hal->driverName();
}

quint32 UsbHALIntf::nbClients() const
{
    return _hal->nbClients();
}

const char *UsbHALIntf::getErrorStr(int code) const
{
    return _hal->getErrorStr(code);
}

QString UsbHALIntf::getSocketStateStr(SocketState state) const
{
    return _hal->getSocketStateStr(state);
}

int UsbHALIntf::write(int port, QByteArray data)
{
    return _hal->write(port, data);
}

int UsbHALIntf::nbBytesReceived(int port) const
{
    return _hal->nbBytesReceived(port);
}

int UsbHALIntf::bytesToWrite() const
{
    return _hal->bytesToWrite();
}

QByteArray UsbHALIntf::peek(int port, unsigned int maxSize) const
{
    return _hal->peek(port, maxSize);
}

QByteArray UsbHALIntf::read(int port, unsigned int maxSize)
{
    return _hal->read(port, maxSize);
}

QByteArray UsbHALIntf::readAll(int port)
{
    return _hal->readAll(port);
}

void UsbHALIntf::flush(int msecs)
{
    _hal->flush(msecs);
}

bool UsbHALIntf::waitForConnected(int msecs) const
{
    return _hal->waitForConnected(msecs);
}

bool UsbHALIntf::waitForDisconnected(int msecs) const
{
    return _hal->waitForDisconnected(msecs);
}

bool UsbHALIntf::waitForReadyRead(int port, int msecs) const
{
    return _hal->waitForReadyRead(port, msecs);
}

void UsbHALIntf::disconnectFromHost(int port)
{
    _hal->disconnectFromHost(port);
}

void UsbHALIntf::watchdog(bool enable)
{
    _hal->watchdog(enable);
}

void UsbHALIntf::peerDisconnected(int port)
{
    _hal->peerDisconnected(port);
}

void UsbHALIntf::stop()
{
    _hal->stop();
}

bool UsbHALIntf::isRunning() const
{
    return _hal->isRunning();
}

int UsbHALIntf::getMaxWriteSize() const
{
    return _hal->getMaxWriteSize();
}
