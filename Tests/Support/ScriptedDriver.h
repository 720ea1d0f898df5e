// SPDX-License-Identifier: MIT
#ifndef SCRIPTEDDRIVER_H
#define SCRIPTEDDRIVER_H

#include <AbstractDriver.h>

#include <QElapsedTimer>
#include <QList>
#include <QMutex>
#include <QMutexLocker>
#include <QWaitCondition>

#include <functional>

/**
 * A driver that a test plays: it delivers the blocks that the test feeds, records what the core
 * writes and fails on demand. Every function may be called from any thread at any time.
 */
class ScriptedDriver : public AbstractDriver
{
    Q_OBJECT

public:
    explicit ScriptedDriver(const QString &name = QStringLiteral("scripted"));

    // ---- the script ----

    /** Queues a block for the next read; a read without a block waits for one. */
    void feed(const QByteArray &block);
    /** How long a read waits for a block before it fails; 5 ms unless told. */
    void setReadWait(int msecs);
    /**
     * Plays a host with nothing to say: a read that finds no block delivers "DEVICE_NODATA" at
     * once. Off unless told: then the device, which writes only after a good read, stays silent
     * too.
     */
    void setIdleHost(bool idle);
    /** Blocks still to be read. */
    int unreadBlocks() const;

    /** The next count reads fail at once (-1: all). */
    void failReads(int count);
    /** The next count writes fail at once (-1: all). */
    void failWrites(int count);
    /** The next count opens fail (-1: all); a failed open takes a millisecond. */
    void failOpens(int count);
    /** The next count closes fail (-1: all). */
    void failCloses(int count);
    /** From now on reads block until releaseReads(), or the thread is cancelled. */
    void blockReads();
    void releaseReads();
    /** From now on writes block until releaseWrites(), or the thread is cancelled. */
    void blockWrites();
    void releaseWrites();
    /** From now on opens block until releaseOpens(), or the thread is cancelled. */
    void blockOpens();
    void releaseOpens();
    /** Whether cancelPendingIo() releases blocked calls; off unless told. */
    void setHonoursCancel(bool honours);

    void setAvoidClosingDuringHandshake(bool avoid) { _avoidClosingDuringHandshake = avoid; }
    void setCloseDriverAfterConnectionError(bool close)
    {
        _closeDriverAfterConnectionError = close;
    }

    // ---- what the core did ----

    /** Every block written so far, failed writes left out. */
    QList<QByteArray> written() const;
    /** Blocks written so far that are not control messages. */
    QList<QByteArray> writtenData() const;
    void clearWritten();
    /** Waits until count blocks in all were written. */
    bool waitForWritten(int count, int msecs = 5000) const;
    /** Waits until that block was written (anywhere in the record). */
    bool waitForWrite(const QByteArray &block, int msecs = 5000) const;
    /** Waits until a call of that kind has begun to block. */
    bool waitForBlockedCall(int msecs = 5000) const;

    int opens() const;
    int closes() const;
    int reads() const;
    int writes() const;
    int cancels() const;
    /** Waits until as many reads were begun in all. */
    bool waitForReads(int count, int msecs = 5000) const;

    // ---- AbstractDriver ----

    bool open() override;
    bool close() override;
    int write(QByteArray data) override;
    int read(QByteArray *data) override;
    void cancelPendingIo() override;
    QString getDrvDetailedError(int code) const override;

private:
    bool _takeFailure(int &count) const;
    void _block(const bool &blocked, QMutexLocker &locker);
    static void _pause(QMutexLocker &locker);
    bool _waitFor(const std::function<bool()> &reached, int msecs) const;

    mutable QMutex _scriptMutex;
    mutable QWaitCondition _changed;
    QList<QByteArray> _blocks;
    QByteArray _currentBlock;
    QList<QByteArray> _written;
    int _readWait = 5;
    bool _idleHost = false;
    int _failingReads = 0;
    int _failingWrites = 0;
    int _failingOpens = 0;
    int _failingCloses = 0;
    bool _readsBlocked = false;
    bool _writesBlocked = false;
    bool _opensBlocked = false;
    bool _honoursCancel = false;
    int _blockedCalls = 0;
    int _opens = 0;
    int _closes = 0;
    int _reads = 0;
    int _writes = 0;
    int _cancels = 0;
};

#endif
