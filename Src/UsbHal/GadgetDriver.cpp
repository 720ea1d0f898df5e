// SPDX-License-Identifier: MIT
#include "GadgetDriver.h"

#include "UsbHalLog.h"

#include <QElapsedTimer>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr unsigned long setWriteTimeout = 0x5301;
constexpr unsigned long setReadTimeout = 0x5302;

constexpr qint64 drainTime = 1000;             // ms
constexpr unsigned long drainErrorPause = 10;  // ms
constexpr unsigned long emptyReadPause = 1;    // s
constexpr unsigned long failedWritePause = 17; // ms

const QString rawDataIsNull = QStringLiteral("Error: raw data is null");

void closeAll(const QList<int> &fds)
{
    for (const int fd : fds)
        ::close(fd);
}

// Closes what an open has opened so far when the thread is killed in it: nobody else knows of it.
class OpenGuard
{
public:
    explicit OpenGuard(const QList<int> &fds) : _fds(fds) {}
    ~OpenGuard()
    {
        if (!_returns)
            closeAll(_fds);
    }
    Q_DISABLE_COPY(OpenGuard)

    bool returning(bool result)
    {
        _returns = true;
        return result;
    }

private:
    const QList<int> &_fds;
    bool _returns = false;
};

} // namespace

GadgetDriver::GadgetDriver()
{
    setObjectName(QStringLiteral("GadgetDriver"));
    _instancePaths.append(QStringLiteral("/dev/brn7200"));
    _selectedInstance = 0;
}

GadgetDriver::~GadgetDriver() = default;

bool GadgetDriver::open()
{
    _openedFds.clear();
    OpenGuard guard(_openedFds);
    for (int index = 0; index < _instancePaths.size(); ++index) {
        if (!_openDrvInstance(_instancePaths.at(index), index))
            return guard.returning(false);
    }
    _selectedInstance = 0;
    _currentFd = 0;
    logLine("open", {"all drivers opened successfully: ", _instancePaths.size()});
    return guard.returning(true);
}

bool GadgetDriver::close()
{
    closeAll(_openedFds);
    return true;
}

int GadgetDriver::write(QByteArray data)
{
    const size_t length = std::min(size_t(data.size()), size_t(getMaxWriteSize()));
    const ssize_t result = ::write(_currentFd, data.constData(), length);
    const int count = static_cast<int>(result);
    if (result >= 0 && size_t(result) >= length)
        return count;
    const QString detail = getDrvDetailedError(count);
    if (count > 0) {
        logLine("write", {"_write() size = ", count, " (partial -> failed)"});
        return 0;
    }
    logLine("write", {"Gadget, error code = ", count});
    logLine("write", {"Write error: ", detail});
    logLine("write", {"_write() failed (no byte sent)"});
    QThread::msleep(failedWritePause);
    return 0;
}

int GadgetDriver::read(QByteArray *data)
{
    if (_currentFd != 0)
        return _read(data);
    _currentFd = _selectDriver(data);
    return data->size();
}

void GadgetDriver::cancelPendingIo()
{
    logLine("cancelPendingIo", {"Cancel pending io not yet implemented on linux drivers"});
}

QString GadgetDriver::getDrvDetailedError(int code) const
{
    const int error = errno;
    if (code >= 0)
        return QStringLiteral("ok");
    return QString::number(error) + ": " + QString::fromUtf8(std::strerror(error));
}

bool GadgetDriver::_openDrvInstance(QString path, int /*index*/)
{
    if (!_readBuffer) {
        logLine("_openDrvInstance", {rawDataIsNull});
        return false;
    }
    const QByteArray node = path.toUtf8();
    _currentFd = ::open(node.constData(), O_RDWR | O_CLOEXEC);
    if (_currentFd < 0) {
        const QString detail = getDrvDetailedError(_currentFd);
        logLine("_openDrvInstance",
                {"Error: unable to open driver instance: ", path, "( ", detail, " )"});
        return false;
    }
    _openedFds.append(_currentFd);
    _flushReadBuffer();
    ::ioctl(_currentFd, setWriteTimeout, getWrTimeout());
    ::ioctl(_currentFd, setReadTimeout, getRdTimeout());
    logLine("_openDrvInstance", {path, " successfully opened"});
    return true;
}

void GadgetDriver::_flushReadBuffer()
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < drainTime) {
        const qint64 left = std::max<qint64>(drainTime - timer.elapsed(), 0);
        ::ioctl(_currentFd, setReadTimeout, static_cast<unsigned int>(left));
        const ssize_t count = ::read(_currentFd, _readBuffer.get(), _readLimit());
        if (count == 0)
            return;
        logLine("_flushReadBuffer", {"Discarded message : ", _bufferedText()});
        // An error that comes at once would fill the log within the second.
        if (count < 0)
            QThread::msleep(drainErrorPause);
    }
}

// The buffer's content up to its first zero byte: with a short block, also the end of an earlier
// one.
QString GadgetDriver::_bufferedText() const
{
    constexpr size_t longestText = std::numeric_limits<int>::max();
    const auto size = static_cast<uint>(std::min(_readBufferSize, longestText));
    const uint length = qstrnlen(_readBuffer.get(), size);
    return QString::fromLatin1(_readBuffer.get(), static_cast<int>(length));
}

int GadgetDriver::_read(QByteArray *data)
{
    const ssize_t result = ::read(_currentFd, _readBuffer.get(), _readLimit());
    const int count = static_cast<int>(result);
    if (count > 0) {
        if (data) {
            _readBuffer[static_cast<size_t>(count)] = '\0';
            data->setRawData(_readBuffer.get(), static_cast<uint>(count));
        }
        return count;
    }
    // A configured size that could not be allocated leaves no buffer, and reads no bytes for ever.
    const QString detail = _readBuffer ? getDrvDetailedError(count) : rawDataIsNull;
    if (detail != QLatin1String("ok"))
        logLine("_read", {detail});
    QThread::sleep(emptyReadPause);
    return 0;
}

int GadgetDriver::_selectDriver(QByteArray *data)
{
    const int count = std::min(_instancePaths.size(), _openedFds.size());
    for (int i = 0; i < count; ++i) {
        _currentFd = _openedFds.at(i);
        if (_read(data) == 0)
            continue;
        logLine("_selectDriver", {"selected driver ", _instancePaths.at(i)});
        _selectedInstance = i + 1;
        _setDriverName(_instancePaths.at(i));
        return _currentFd;
    }
    return 0;
}
