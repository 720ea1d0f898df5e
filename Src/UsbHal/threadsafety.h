// SPDX-License-Identifier: MIT
#ifndef THREADSAFETY_H
#define THREADSAFETY_H

#include <QMutex>
#include <QMutexLocker>

#include <mutex>

// What clang's -Wthread-safety checks; other compilers, and moc, read over it.
#if defined(__clang__) && !defined(Q_MOC_RUN)
#define THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define THREAD_ANNOTATION(attribute)
#endif

#define CAPABILITY(name) THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY THREAD_ANNOTATION(scoped_lockable)
/** Data that may be touched only with the mutex held. */
#define GUARDED_BY(mutex) THREAD_ANNOTATION(guarded_by(mutex))
/** A function whose caller holds the mutexes, before and after. */
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS THREAD_ANNOTATION(no_thread_safety_analysis)

/** QMutex with what the analysis has to know of it. */
class CAPABILITY("mutex") CheckedMutex : public QMutex
{
public:
    using QMutex::QMutex;

    void lock() ACQUIRE() NO_THREAD_SAFETY_ANALYSIS { QMutex::lock(); }
    bool tryLock(int timeout) TRY_ACQUIRE(true) NO_THREAD_SAFETY_ANALYSIS
    {
        return QMutex::tryLock(timeout);
    }
    void unlock() RELEASE() NO_THREAD_SAFETY_ANALYSIS { QMutex::unlock(); }
};

/**
 * QMutexLocker with what the analysis has to know of it: the mutex counts as held while the object
 * lives. Only a function that takes it as a plain QMutexLocker can release it, which passes unseen.
 */
class SCOPED_CAPABILITY CheckedLocker : public QMutexLocker
{
public:
    explicit CheckedLocker(CheckedMutex *mutex) ACQUIRE(mutex) : QMutexLocker(mutex) {}
    ~CheckedLocker() RELEASE() = default;
    void unlock() = delete;
    void relock() = delete;
};

/** Unlocks, at the end of its life or before, a mutex that its maker has locked. */
class SCOPED_CAPABILITY AdoptingLocker : private std::unique_lock<QMutex>
{
public:
    explicit AdoptingLocker(CheckedMutex *mutex) REQUIRES(mutex)
        : std::unique_lock<QMutex>(*mutex, std::adopt_lock)
    {
    }
    ~AdoptingLocker() RELEASE() = default;

    void unlock() RELEASE() { std::unique_lock<QMutex>::unlock(); }
};

#endif
