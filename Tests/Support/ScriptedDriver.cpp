// SPDX-License-Identifier: MIT
#include "ScriptedDriver.h"

#include <QMutexLocker>
#include <QThread>

ScriptedDriver::ScriptedDriver(const QString &name)
{
    setObjectName(QStringLiteral("ScriptedDriver"));
    _setDriverName(name);
}

void ScriptedDriver::feed(const QByteArray &block)
{
    const QMutexLocker locker(&_scriptMutex);
    // A copy that shares nothing: ThreadSanitizer does not see who, within Qt, lets go of shared
    // bytes.
    _blocks.append(QByteArray(block.constData(), block.size()));
    _changed.wakeAll();
}

void ScriptedDriver::setReadWait(int msecs)
{
    const QMutexLocker locker(&_scriptMutex);
    _readWait = msecs;
}

void ScriptedDriver::setIdleHost(bool idle)
{
    const QMutexLocker locker(&_scriptMutex);
    _idleHost = idle;
}

int ScriptedDriver::unreadBlocks() const
{
    const QMutexLocker locker(&_scriptMutex);
    return _blocks.size();
}

void ScriptedDriver::failReads(int count)
{
    const QMutexLocker locker(&_scriptMutex);
    _failingReads = count;
}

void ScriptedDriver::failWrites(int count)
{
    const QMutexLocker locker(&_scriptMutex);
    _failingWrites = count;
}

void ScriptedDriver::failOpens(int count)
{
    const QMutexLocker locker(&_scriptMutex);
    _failingOpens = count;
}

void ScriptedDriver::failCloses(int count)
{
    const QMutexLocker locker(&_scriptMutex);
    _failingCloses = count;
}

void ScriptedDriver::blockReads()
{
    const QMutexLocker locker(&_scriptMutex);
    _readsBlocked = true;
}

void ScriptedDriver::releaseReads()
{
    const QMutexLocker locker(&_scriptMutex);
    _readsBlocked = false;
    _changed.wakeAll();
}

void ScriptedDriver::blockWrites()
{
    const QMutexLocker locker(&_scriptMutex);
    _writesBlocked = true;
}

void ScriptedDriver::releaseWrites()
{
    const QMutexLocker locker(&_scriptMutex);
    _writesBlocked = false;
    _changed.wakeAll();
}

void ScriptedDriver::blockOpens()
{
    const QMutexLocker locker(&_scriptMutex);
    _opensBlocked = true;
}

void ScriptedDriver::releaseOpens()
{
    const QMutexLocker locker(&_scriptMutex);
    _opensBlocked = false;
    _changed.wakeAll();
}

void ScriptedDriver::setHonoursCancel(bool honours)
{
    const QMutexLocker locker(&_scriptMutex);
    _honoursCancel = honours;
}

QList<QByteArray> ScriptedDriver::written() const
{
    const QMutexLocker locker(&_scriptMutex);
    // Detached while the mutex is held: of a list that is shared, ThreadSanitizer does not see that
    // it was given back before the driver goes on with its own.
    QList<QByteArray> blocks = _written;
    blocks.detach();
    return blocks;
}

QList<QByteArray> ScriptedDriver::writtenData() const
{
    QList<QByteArray> data;
    const QList<QByteArray> blocks = written();
    for (const QByteArray &block : blocks) {
        if (!block.startsWith("DEVICE_"))
            data.append(block);
    }
    return data;
}

void ScriptedDriver::clearWritten()
{
    const QMutexLocker locker(&_scriptMutex);
    _written.clear();
}

bool ScriptedDriver::waitForWritten(int count, int msecs) const
{
    return _waitFor([&] { return _written.size() >= count; }, msecs);
}

bool ScriptedDriver::waitForWrite(const QByteArray &block, int msecs) const
{
    return _waitFor([&] { return _written.contains(block); }, msecs);
}

bool ScriptedDriver::waitForBlockedCall(int msecs) const
{
    return _waitFor([&] { return _blockedCalls > 0; }, msecs);
}

int ScriptedDriver::opens() const
{
    const QMutexLocker locker(&_scriptMutex);
    return _opens;
}

int ScriptedDriver::closes() const
{
    const QMutexLocker locker(&_scriptMutex);
    return _closes;
}

int ScriptedDriver::reads() const
{
    const QMutexLocker locker(&_scriptMutex);
    return _reads;
}

int ScriptedDriver::writes() const
{
    const QMutexLocker locker(&_scriptMutex);
    return _writes;
}

int ScriptedDriver::cancels() const
{
    const QMutexLocker locker(&_scriptMutex);
    return _cancels;
}

bool ScriptedDriver::waitForReads(int count, int msecs) const
{
    return _waitFor([&] { return _reads >= count; }, msecs);
}

bool ScriptedDriver::open()
{
    QMutexLocker locker(&_scriptMutex);
    ++_opens;
    _changed.wakeAll();
    _block(_opensBlocked, locker);
    if (!_takeFailure(_failingOpens))
        return true;
    _pause(locker);
    return false;
}

bool ScriptedDriver::close()
{
    const QMutexLocker locker(&_scriptMutex);
    ++_closes;
    _changed.wakeAll();
    return !_takeFailure(_failingCloses);
}

int ScriptedDriver::write(QByteArray data)
{
    QMutexLocker locker(&_scriptMutex);
    ++_writes;
    _changed.wakeAll();
    _block(_writesBlocked, locker);
    if (_takeFailure(_failingWrites))
        return 0;
    // A copy of the bytes: the core recognises a message by its address.
    _written.append(QByteArray(data.constData(), data.size()));
    _changed.wakeAll();
    return data.size();
}

int ScriptedDriver::read(QByteArray *data)
{
    QMutexLocker locker(&_scriptMutex);
    ++_reads;
    _changed.wakeAll();
    _block(_readsBlocked, locker);
    if (_takeFailure(_failingReads))
        return 0;
    if (_blocks.isEmpty() && _idleHost)
        _blocks.append("DEVICE_NODATA");
    QElapsedTimer timer;
    timer.start();
    while (_blocks.isEmpty() && timer.elapsed() < _readWait)
        _pause(locker);
    if (_blocks.isEmpty())
        return 0;
    // Like a real driver it hands out a buffer of its own, which the next read changes.
    _currentBlock.fill('#');
    _currentBlock = _blocks.takeFirst();
    _currentBlock.detach();
    data->setRawData(_currentBlock.constData(), static_cast<uint>(_currentBlock.size()));
    return _currentBlock.size();
}

void ScriptedDriver::cancelPendingIo()
{
    const QMutexLocker locker(&_scriptMutex);
    ++_cancels;
    if (_honoursCancel) {
        _readsBlocked = false;
        _writesBlocked = false;
        _opensBlocked = false;
    }
    _changed.wakeAll();
}

QString ScriptedDriver::getDrvDetailedError(int code) const
{
    return code < 0 ? QStringLiteral("scripted failure") : QStringLiteral("ok");
}

bool ScriptedDriver::_takeFailure(int &count) const
{
    if (count == 0)
        return false;
    if (count > 0)
        --count;
    return true;
}

// Blocks in a cancellable call, with the script's mutex free so that a killed thread holds nothing.
void ScriptedDriver::_block(const bool &blocked, QMutexLocker &locker)
{
    if (!blocked)
        return;
    ++_blockedCalls;
    _changed.wakeAll();
    while (blocked)
        _pause(locker);
    --_blockedCalls;
}

void ScriptedDriver::_pause(QMutexLocker &locker)
{
    locker.unlock();
    QThread::msleep(1);
    locker.relock();
}

bool ScriptedDriver::_waitFor(const std::function<bool()> &reached, int msecs) const
{
    const QMutexLocker locker(&_scriptMutex);
    QElapsedTimer timer;
    timer.start();
    while (!reached()) {
        const qint64 left = msecs - timer.elapsed();
        if (left <= 0)
            return false;
        _changed.wait(&_scriptMutex, static_cast<unsigned long>(left));
    }
    return true;
}
