// SPDX-License-Identifier: MIT
#ifndef WORKERTHREAD_H
#define WORKERTHREAD_H

#include <QSemaphore>
#include <QThread>

#include <atomic>

class UsbHAL;

/** Thread that runs the communication function of a core, one core's at a time. */
class WorkerThread : public QThread
{
    Q_OBJECT

public:
    explicit WorkerThread(QObject *parent = nullptr);
    ~WorkerThread() override;

    /**
     * Starts the thread for a core, from any thread. Returns false while it belongs to a core and
     * when the system has no thread to give.
     */
    bool startFor(UsbHAL *owner);

    /** Gives the thread free for the next start; for the core that it belongs to, at its end. */
    void release() { _owner = nullptr; }

    /** The core whose thread the caller runs in, from the thread's first step to its last. */
    static UsbHAL *currentOwner();

signals:
    /** Never emitted. */
    void resultReady(void *result);

protected:
    void run() override;

private:
    struct LastAct;

    std::atomic<UsbHAL *> _owner{nullptr};
    void *_arg = nullptr;
    QSemaphore _entered;
};

#endif
