// SPDX-License-Identifier: MIT
#ifndef LINKPROBE_H
#define LINKPROBE_H

#include <CoreProbe.h>
#include <WireMessages.h>

#include <QTest>

#include <functional>
#include <utility>

/** Runs a function in a destructor of the calling thread, when that ends. */
inline void deleteWithThread(std::function<void()> destructor)
{
    struct Object : QObject
    {
        ~Object() override { destructor(); }
        std::function<void()> destructor;
    };
    auto *const object = new Object;
    object->destructor = std::move(destructor);
    object->deleteLater();
}

/** A scripted driver that keeps the order of the core's transfers, and when each began. */
class RecordingDriver : public ScriptedDriver
{
public:
    using ScriptedDriver::ScriptedDriver;

    int read(QByteArray *data) override
    {
        _note('r');
        return ScriptedDriver::read(data);
    }
    int write(QByteArray data) override
    {
        _note('w');
        return ScriptedDriver::write(data);
    }

    /** 'r' for each read and 'w' for each write, in their order. */
    QByteArray calls() const
    {
        const QMutexLocker locker(&_callsMutex);
        return QByteArray(_calls.constData(), _calls.size()); // shares nothing with the recorder
    }
    void clearCalls()
    {
        const QMutexLocker locker(&_callsMutex);
        _calls.clear();
        _times.clear();
    }
    /** Smallest time between the beginnings of two transfers, ns. */
    qint64 smallestGap() const
    {
        const QMutexLocker locker(&_callsMutex);
        qint64 smallest = std::numeric_limits<qint64>::max();
        for (int i = 1; i < _times.size(); ++i)
            smallest = qMin(smallest, _times[i] - _times[i - 1]);
        return smallest;
    }
    bool waitForCalls(int count, int msecs = 5000) const
    {
        return QTest::qWaitFor([&] { return calls().size() >= count; }, msecs);
    }

private:
    void _note(char call)
    {
        const QMutexLocker locker(&_callsMutex);
        if (!_clock.isValid())
            _clock.start();
        _calls.append(call);
        _times.append(_clock.nsecsElapsed());
    }

    mutable QMutex _callsMutex;
    QElapsedTimer _clock;
    QByteArray _calls;
    QList<qint64> _times;
};

/**
 * A core whose link is driven step by step. The watchdog stays quiet unless a test asks for it, so
 * that a thread which waits for the test's next step is not taken for a stuck one.
 */
class LinkProbe : public CoreProbe
{
public:
    explicit LinkProbe(const QSharedPointer<RecordingDriver> &recording =
                           QSharedPointer<RecordingDriver>::create())
        : CoreProbe(recording), transfers(recording)
    {
    }
    ~LinkProbe() override { shutDown(); }

    using UsbHAL::_configured;
    using UsbHAL::_delayRequested;
    using UsbHAL::_lastLoopCounter;
    using UsbHAL::_lastMaxReadSize;
    using UsbHAL::_maxReadSizeMessage;
    using UsbHAL::_open;
    using UsbHAL::_readErrors;
    using UsbHAL::_reopenAfterLoss;
    using UsbHAL::_setupDone;
    using UsbHAL::_watchdogErrors;
    using UsbHAL::_writeErrors;
    using UsbHAL::Session;

    ParamHal quietSetup() const
    {
        ParamHal param = testSetup();
        param.maxWatchdogErrors = 1000000;
        return param;
    }

    /**
     * Configures (unless the test did), opens a port and plays the host's first turn. From then on
     * the core waits in a read for the next turn.
     */
    bool connectStepwise(int port = 1)
    {
        setupConfig(quietSetup());
        driver->setReadWait(600000);
        return openConnection(port) && driver->waitForReads(1) && turn() &&
               status() == DriverState::CONNECTED;
    }

    /** One turn: the core reads the block, answers, and waits in its next read. */
    bool turn(const QByteArray &block = "DEVICE_NODATA")
    {
        const int reads = driver->reads();
        driver->feed(block);
        return driver->waitForReads(reads + 1);
    }

    /** A device that goes on reading and writing by itself, its link up. */
    bool connectIdle(int port = 1)
    {
        setupConfig(quietSetup());
        driver->setIdleHost(true);
        return openConnection(port) && waitForConnected(5000);
    }

    /** Waits until a condition holds with the core's mutex held; handles events meanwhile. */
    template <typename Condition>
    bool eventually(Condition condition, int msecs = 5000)
    {
        return QTest::qWaitFor(
            [&] { return locked([&](QMutexLocker &) { return bool(condition()); }); }, msecs);
    }
    bool waitForEndOfThread(int msecs = 5000)
    {
        return QTest::qWaitFor([this] { return !isRunning(); }, msecs);
    }

    /** Lets every blocked call of the driver go on. */
    void release()
    {
        driver->setReadWait(5);
        driver->releaseReads();
        driver->releaseWrites();
        driver->releaseOpens();
    }

    /** What one function of the core logged, in its order. */
    QStringList logged(const QString &function) const
    {
        QStringList messages;
        const QList<LogEntry> entries = log.entries();
        for (const LogEntry &entry : entries) {
            if (entry.function == function)
                messages.append(entry.message);
        }
        return messages;
    }

    const QSharedPointer<RecordingDriver> transfers;

protected:
    /** Ends the thread wherever it waits: for the destructor of each class that a test makes. */
    void shutDown()
    {
        release();
        stop();
    }
};

#endif
