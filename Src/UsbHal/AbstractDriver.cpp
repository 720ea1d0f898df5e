// SPDX-License-Identifier: MIT
#include "AbstractDriver.h"

#include <algorithm>
#include <limits>
#include <new>

AbstractDriver::AbstractDriver()
{
    setObjectName(QStringLiteral("AbstractDriver"));
    _allocateReadBuffer();
}

AbstractDriver::~AbstractDriver() = default;

void AbstractDriver::setupConfig(const ParamHal &param)
{
    const bool resize = param.maxReadSize != _maxReadSize;
    _maxWriteSize = param.maxWriteSize;
    _maxReadSize = param.maxReadSize;
    _rdTimeout = param.rdTimeout;
    _wrTimeout = param.wrTimeout;
    _nbRetry = param.nbRetry;
    _maxWatchdogErrors = param.maxWatchdogErrors;
    _drvOption = param.drvOption;
    if (resize)
        _allocateReadBuffer();
}

void AbstractDriver::setMaxWriteSize(unsigned int size)
{
    _maxWriteSize = std::min(size, largestMaxWriteSize);
}

QString AbstractDriver::getDriverName() const
{
    const CheckedLocker locker(&_driverNameMutex);
    return _driverName;
}

void AbstractDriver::_setDriverName(const QString &name)
{
    const CheckedLocker locker(&_driverNameMutex);
    _driverName = name;
}

size_t AbstractDriver::_readLimit() const
{
    if (_readBufferSize == 0)
        return 0;
    // A block travels in a QByteArray, whose size is an int.
    constexpr size_t largestBlock = std::numeric_limits<int>::max();
    return std::min({size_t(getMaxReadSize()), _readBufferSize - 1, largestBlock});
}

void AbstractDriver::_allocateReadBuffer()
{
    const quint64 size = quint64(getMaxReadSize()) + 1;
    _readBuffer.reset();
    if (size <= std::numeric_limits<size_t>::max())
        _readBuffer.reset(new (std::nothrow) char[static_cast<size_t>(size)]());
    _readBufferSize = _readBuffer ? static_cast<size_t>(size) : 0;
}
