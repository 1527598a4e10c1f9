/*
 * ThreadSanitizer support for a Qt that was not built with it.
 *
 * The distribution's libQt5Core is not instrumented, so the race detector
 * cannot see the synchronisation that happens inside it: QMutex locks through
 * futexes, QWaitCondition::wait() releases and re-takes a QMutex internally,
 * and a posted call crosses threads through Qt's event queue. Every access
 * that the reply model makes under its QMutex would then look like a race.
 *
 * In a ThreadSanitizer build this file interposes the few Qt entry points
 * that the reply model and the tests call from instrumented code (QMutex
 * lock/tryLock/unlock, QWaitCondition::wait with a QMutex, and the queued
 * QMetaObject::invokeMethod) and reports their hand-offs to the detector as
 * acquire/release pairs. Each interposer forwards to Qt's own function, so
 * behaviour is unchanged; nothing about the accesses is hidden.
 *
 * Two suppressions remain, both for Qt-internal state, not ours:
 *  - a QThread's own exit hand-shake (a wait condition inside Qt, woken by
 *    the ending thread) is invisible when QThread::wait() finds the thread
 *    already finished, and its destruction is then reported against the
 *    wake-up;
 *  - a queued call's event is allocated inside Qt's invokeMethodImpl, after
 *    the interposer's release, and the receiving thread may run and free it
 *    before invokeMethodImpl returns: its allocation is then reported against
 *    its deletion. Nothing of ours is touched inside that function when the
 *    call is queued, the only way the reply model uses it.
 *
 * In every other build this file is empty.
 */

#if defined(__SANITIZE_THREAD__)

#include <QDeadlineTimer>
#include <QMetaObject>
#include <QMutex>
#include <QObject>
#include <QWaitCondition>

#include <sanitizer/tsan_interface.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace {

// Qt's own definition of an interposed function.
template <typename Function>
Function nextDefinition(const char* mangledName)
{
    void* symbol = dlsym(RTLD_NEXT, mangledName);
    if (!symbol) {
        std::fprintf(stderr, "tsan_qt_sync: %s not found in Qt\n", mangledName);
        std::abort();
    }
    return reinterpret_cast<Function>(symbol);
}

using LockFunction = void (*)(QMutex*);
using TryLockFunction = bool (*)(QMutex*, int);
using UnlockFunction = void (*)(QMutex*);
using WaitMillisecondsFunction = bool (*)(QWaitCondition*, QMutex*, unsigned long);
using WaitDeadlineFunction = bool (*)(QWaitCondition*, QMutex*, QDeadlineTimer);
using InvokeFunction = bool (*)(QObject*, QtPrivate::QSlotObjectBase*, Qt::ConnectionType, void*);

// A posted call, wrapped so that running it acquires what posting released.
class SynchronisedSlot : public QtPrivate::QSlotObjectBase
{
public:
    explicit SynchronisedSlot(QtPrivate::QSlotObjectBase* inner)
        : QSlotObjectBase(&impl)
        , m_inner(inner)
    {
    }

private:
    static void impl(int which, QSlotObjectBase* base, QObject* receiver, void** args, bool* result)
    {
        auto* self = static_cast<SynchronisedSlot*>(base);
        switch (which) {
        case Destroy:
            // The last reference may be dropped on the posting thread after
            // the call ran on the receiver's: the call happens before this.
            __tsan_acquire(self);
            self->m_inner->destroyIfLastRef();
            delete self;
            break;
        case Call:
            __tsan_acquire(self);
            self->m_inner->call(receiver, args);
            __tsan_release(self);
            break;
        case Compare:
            *result = self->m_inner->compare(args);
            break;
        default:
            break;
        }
    }

    QtPrivate::QSlotObjectBase* m_inner;
};

} // namespace

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static const LockFunction qtLock = nextDefinition<LockFunction>("_ZN6QMutex4lockEv");
    qtLock(this);
    __tsan_acquire(this);
}

bool QMutex::tryLock(int timeout) QT_MUTEX_LOCK_NOEXCEPT
{
    static const TryLockFunction qtTryLock = nextDefinition<TryLockFunction>("_ZN6QMutex7tryLockEi");
    const bool locked = qtTryLock(this, timeout);
    if (locked)
        __tsan_acquire(this);
    return locked;
}

void QMutex::unlock() noexcept
{
    static const UnlockFunction qtUnlock = nextDefinition<UnlockFunction>("_ZN6QMutex6unlockEv");
    __tsan_release(this);
    qtUnlock(this);
}

bool QWaitCondition::wait(QMutex* lockedMutex, unsigned long time)
{
    static const WaitMillisecondsFunction qtWait =
        nextDefinition<WaitMillisecondsFunction>("_ZN14QWaitCondition4waitEP6QMutexm");
    __tsan_release(lockedMutex);
    const bool woken = qtWait(this, lockedMutex, time);
    __tsan_acquire(lockedMutex);
    return woken;
}

bool QWaitCondition::wait(QMutex* lockedMutex, QDeadlineTimer deadline)
{
    static const WaitDeadlineFunction qtWait =
        nextDefinition<WaitDeadlineFunction>("_ZN14QWaitCondition4waitEP6QMutex14QDeadlineTimer");
    __tsan_release(lockedMutex);
    const bool woken = qtWait(this, lockedMutex, deadline);
    __tsan_acquire(lockedMutex);
    return woken;
}

bool QMetaObject::invokeMethodImpl(QObject* object, QtPrivate::QSlotObjectBase* slot, Qt::ConnectionType type,
                                   void* ret)
{
    static const InvokeFunction qtInvoke = nextDefinition<InvokeFunction>(
        "_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv");
    auto* synchronised = new SynchronisedSlot(slot);
    __tsan_release(synchronised);
    return qtInvoke(object, synchronised, type, ret);
}

// Looked up by the sanitizer runtime, hence visible outside the program.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions()
{
    return "race:QWaitCondition::~QWaitCondition\n"
           "race:QMetaObject::invokeMethodImpl\n";
}

#endif
