// SPDX-License-Identifier: MIT
#ifndef LOCKSTEP_H
#define LOCKSTEP_H

#include "Setup.h"
#include "Trace.h"

#include <AbstractDriver.h>

#include <QThread>

#include <functional>
#include <semaphore.h>

/**
 * Lets either the test's thread or the communication thread run, never both: the communication
 * thread rests in a driver's call until the test tells how the call ends. There is one at a time;
 * the library's log, and its waits for the thread, come here (see LockStep.cpp).
 */
class LockStep
{
public:
    LockStep(const Setup &setup, Trace &trace);
    ~LockStep();
    Q_DISABLE_COPY(LockStep)

    static LockStep *current();

    /** Whether the core has not asked the thread to end; called in either thread. */
    std::function<bool()> isRunning;
    /** The thread, once it was started. */
    QThread *thread = nullptr;

    // ---- in the communication thread ----
    /** Rests until the test tells how the call ends. */
    Outcome await(Transfer transfer);

    // ---- in the test's thread ----
    /** Waits until the thread, if it runs, rests. */
    void settle();
    /** Ends the call in which the thread rests and waits until it rests again. */
    void turn(const Outcome &outcome);
    /** Lets a thread that was asked to end do so; returns whether it has ended. */
    bool waitForEnd();
    /** The next count closes of a driver fail. */
    void failCloses(int count) { _failingCloses = count; }

    // ---- in either ----
    bool takeFailingClose();
    void log(const QString &function, const QString &message);
    Trace &trace;

private:
    /** Lets one of the two threads run on in the other's stead. */
    class Baton
    {
    public:
        Baton() { sem_init(&_semaphore, 0, 0); }
        ~Baton() { sem_destroy(&_semaphore); }
        Q_DISABLE_COPY(Baton)

        void give() { sem_post(&_semaphore); }
        void take();

    private:
        sem_t _semaphore;
    };

    void _continue(const Outcome &outcome);
    void _waitForRest();

    const Setup _setup;
    Baton _toThread;
    Baton _toTest;
    bool _resting = false; // as the test's thread knows it
    bool _ended = false;   // the thread has logged its last line
    bool _ending = false;  // the core waits for the end of the thread
    std::size_t _answersAtTheEnd = 0;
    Transfer _transfer = Transfer::Open;
    Outcome _outcome;
    int _failingCloses = 0;
};

/** A driver whose calls end as the test says. */
class LockStepDriver : public AbstractDriver
{
    Q_OBJECT

public:
    LockStepDriver(const QString &name, const Setup &setup, LockStep &steps);

    bool open() override;
    bool close() override;
    int write(QByteArray data) override;
    int read(QByteArray *data) override;
    void cancelPendingIo() override;
    QString getDrvDetailedError(int code) const override;

private:
    void _note(const char *call, const QString &more = {});

    LockStep &_steps;
    QByteArray _block;
};

/** What the library's clock of the watchdog shows, ns. */
extern qint64 watchdogClock;

#endif
