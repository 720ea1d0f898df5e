// SPDX-License-Identifier: MIT
#ifndef WORKERTHREAD_H
#define WORKERTHREAD_H

#include <QThread>

#include <atomic>
#include <pthread.h>

class UsbHAL;

/**
 * While it lives, a kill of the thread that made it waits. For code that must not be left halfway;
 * every thread may use it, and one within another.
 */
class CancellationBlocker
{
public:
    CancellationBlocker() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &_formerState); }
    ~CancellationBlocker() { pthread_setcancelstate(_formerState, nullptr); }
    Q_DISABLE_COPY(CancellationBlocker)

    /** Lets a kill that waits happen here, unless an outer blocker holds it off. */
    void testCancel() const { _testCancelIn(_formerState); }
    /** Lets a kill that waits happen here, whatever holds it off. */
    static void letCancel() { _testCancelIn(PTHREAD_CANCEL_ENABLE); }

private:
    static void _testCancelIn(int state)
    {
        pthread_setcancelstate(state, nullptr);
        pthread_testcancel();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }

    int _formerState = PTHREAD_CANCEL_ENABLE;
};

/** Thread that runs the communication function of a core. */
class WorkerThread : public QThread
{
    Q_OBJECT

public:
    explicit WorkerThread(QObject *parent = nullptr);
    ~WorkerThread() override;

    /**
     * Starts the thread for a core, from any thread. Returns false while it runs already and when
     * the system has no thread to give.
     */
    bool startFor(UsbHAL *owner);

    /** Whether the thread runs, or last ran, for this core. May be called from any thread. */
    bool belongsTo(const UsbHAL *core) const { return _owner == core; }

signals:
    /** Never emitted. */
    void resultReady(void *result);

protected:
    void run() override;

private:
    std::atomic<UsbHAL *> _owner{nullptr};
    void *_arg = nullptr;
};

#endif
