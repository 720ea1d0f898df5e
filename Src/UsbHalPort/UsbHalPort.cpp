// SPDX-License-Identifier: MIT
#include "UsbHalPort.h"

#include "UsbHalPortStream.h"

bool UsbHalPort::setConfiguration(const ParamHal &param)
{
    return PortHub::instance().setConfiguration(param);
}

ParamHal UsbHalPort::configuration()
{
    return PortHub::instance().configuration();
}

UsbHalPort::UsbHalPort(int port, QObject *parent)
    : QIODevice(parent), _stream(std::make_unique<Stream>(this, port))
{
    qRegisterMetaType<Error>();
    qRegisterMetaType<State>();
}

UsbHalPort::~UsbHalPort()
{
    UsbHalPort::close();
}

int UsbHalPort::portNumber() const
{
    return _stream->portNumber;
}

UsbHalPort::State UsbHalPort::state() const
{
    return _stream->state;
}

UsbHalPort::Error UsbHalPort::error() const
{
    return _stream->error;
}

void UsbHalPort::clearError()
{
    _stream->clearError();
}

bool UsbHalPort::open(OpenMode mode)
{
    if (!_stream->open(mode))
        return false;
    QIODevice::open(mode | Unbuffered);
    _stream->begin();
    return true;
}

void UsbHalPort::close()
{
    if (!isOpen() || _stream->isClosing)
        return;
    _stream->isClosing = true; // QIODevice would tell its handlers so again and again
    QIODevice::close();
    _stream->isClosing = false;
    _stream->close();
}

void UsbHalPort::setReopen(bool reopen)
{
    _stream->reopen = reopen;
}

bool UsbHalPort::reopen() const
{
    return _stream->reopen;
}

void UsbHalPort::setReadBufferSize(qint64 bytes)
{
    _stream->setReadLimit(qMax<qint64>(bytes, 1));
}

qint64 UsbHalPort::readBufferSize() const
{
    return _stream->readLimit;
}

void UsbHalPort::setWriteBufferSize(qint64 bytes)
{
    _stream->writeLimit = qMax<qint64>(bytes, 1);
}

qint64 UsbHalPort::writeBufferSize() const
{
    return _stream->writeLimit;
}

qint64 UsbHalPort::droppedBytes() const
{
    return _stream->dropped;
}

bool UsbHalPort::isSequential() const
{
    return true;
}

qint64 UsbHalPort::bytesAvailable() const
{
    return QIODevice::bytesAvailable() + _stream->incoming.size();
}

qint64 UsbHalPort::bytesToWrite() const
{
    return _stream->unwritten();
}

bool UsbHalPort::canReadLine() const
{
    return QIODevice::canReadLine() || _stream->incoming.lineSize(_stream->incoming.size()) > 0;
}

bool UsbHalPort::flush()
{
    return _stream->flush();
}

bool UsbHalPort::waitForConnected(int msecs)
{
    return _stream->waitForConnected(msecs);
}

bool UsbHalPort::waitForDisconnected(int msecs)
{
    return _stream->waitForDisconnected(msecs);
}

bool UsbHalPort::waitForReadyRead(int msecs)
{
    return _stream->waitForReadyRead(msecs);
}

bool UsbHalPort::waitForBytesWritten(int msecs)
{
    return _stream->waitForBytesWritten(msecs);
}

qint64 UsbHalPort::readData(char *data, qint64 maxSize)
{
    return _stream->read(data, maxSize);
}

qint64 UsbHalPort::readLineData(char *data, qint64 maxSize)
{
    return _stream->readLine(data, maxSize);
}

qint64 UsbHalPort::writeData(const char *data, qint64 size)
{
    return _stream->write(data, size);
}
