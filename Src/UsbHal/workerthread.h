// SPDX-License-Identifier: MIT
#ifndef WORKERTHREAD_H
#define WORKERTHREAD_H

#include <QThread>

#include <atomic>

class UsbHAL;

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
