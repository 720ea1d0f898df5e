// SPDX-License-Identifier: MIT
//
// ThreadSanitizer cannot see how Qt's locks and events order memory: they are built on futexes
// inside a library that is not instrumented. The definitions of Qt's functions here stand before
// Qt's own in every program they are linked into, tell ThreadSanitizer what happens, and call the
// originals.

#include <QMutex>
#include <QWaitCondition>
#include <Qt>

#include <cstdlib>
#include <dlfcn.h>
#include <new>
#include <sanitizer/tsan_interface.h>

namespace {

template <typename Function>
Function *original(const char *symbol)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, symbol));
}

unsigned mutexFlags(const QMutex *mutex)
{
    return mutex->isRecursive() ? __tsan_mutex_write_reentrant : 0;
}

} // namespace

QMutex::~QMutex()
{
    static const auto destroy = original<void(QMutex *)>("_ZN6QMutexD1Ev");
    __tsan_mutex_destroy(this, 0);
    destroy(this);
}

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto lock = original<void(QMutex *)>("_ZN6QMutex4lockEv");
    const unsigned flags = mutexFlags(this);
    __tsan_mutex_pre_lock(this, flags);
    lock(this);
    __tsan_mutex_post_lock(this, flags, 0);
}

bool QMutex::tryLock(int timeout) QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto tryLock = original<bool(QMutex *, int)>("_ZN6QMutex7tryLockEi");
    const unsigned flags = mutexFlags(this) | __tsan_mutex_try_lock;
    __tsan_mutex_pre_lock(this, flags);
    const bool locked = tryLock(this, timeout);
    __tsan_mutex_post_lock(this, locked ? flags : flags | __tsan_mutex_try_lock_failed, 0);
    return locked;
}

void QMutex::unlock() noexcept
{
    static const auto unlock = original<void(QMutex *)>("_ZN6QMutex6unlockEv");
    __tsan_mutex_pre_unlock(this, 0);
    unlock(this);
    __tsan_mutex_post_unlock(this, 0);
}

bool QWaitCondition::wait(QMutex *mutex, unsigned long time)
{
    static const auto wait = original<bool(QWaitCondition *, QMutex *, unsigned long)>(
        "_ZN14QWaitCondition4waitEP6QMutexm");
    const unsigned flags = mutexFlags(mutex);
    __tsan_mutex_pre_unlock(mutex, 0);
    __tsan_mutex_post_unlock(mutex, 0);
    const bool woken = wait(this, mutex, time);
    __tsan_mutex_pre_lock(mutex, flags);
    __tsan_mutex_post_lock(mutex, flags, 0);
    return woken;
}

// Qt hands an event to another thread under a lock of its own. All that can be seen of that is
// where the event lies: the thread that it is delivered to comes after the one that allocated it,
// though not after what that one wrote into it then.
void *operator new(std::size_t size)
{
    void *const memory = std::malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    __tsan_release(memory);
    return memory;
}

void operator delete(void *memory) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace {

bool acquireEvent(void **receiverAndEvent)
{
    __tsan_acquire(receiverAndEvent[1]);
    return false;
}

const bool eventsAreAcquired =
    QInternal::registerCallback(QInternal::EventNotifyCallback, acquireEvent);

} // namespace

// QtTest watches each test function from a thread of its own and meets it over a condition that
// lives inside libQt5Test, where nothing can be annotated. A text's assignment lets go of the old
// one inside libQt5Core, which hides that another thread had let go of it before.
// What an event carries is created after the event, and destroyed, inside libQt5Core, where the
// list of events grows, too; the price of the latter is that an array's header that is read without
// a lock does not show. The time zone is read under a lock of the C library. When the driver of a
// killed thread is closed, Qt's wait for that thread hides that its last read was before.
// An event of the library's own class is posted under a lock of Qt's, too, and destroyed by its
// receiver's thread.
//
// Exported: ThreadSanitizer looks it up by name.
extern "C" Q_DECL_EXPORT const char *__tsan_default_suppressions();
const char *__tsan_default_suppressions()
{
    return "race:QWaitCondition::~QWaitCondition\n"
           "race:QTest::qRun\n"
           "race:QString::operator=(QString const&)\n"
           "race:GadgetDriver::close\n"
           "race:QMetaType::create\n"
           "race:QMetaType::destroy\n"
           "race:QArrayData::allocate\n"
           "race:tzset_internal\n"
           "race:MainLoopTimer::Change::\n"
           "race:MainLoopTimer::event\n";
}
