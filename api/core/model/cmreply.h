#ifndef VELA_CMREPLY_H
#define VELA_CMREPLY_H

#include "cmerror.h"
#include "vela_api_export.h"
#include "velaassert.h"

#include <QAtomicInt>
#include <QList>
#include <QMetaType>
#include <QMutex>
#include <QMutexLocker>
#include <QObject>
#include <QPointer>
#include <QVariant>
#include <QWaitCondition>

#include <climits>
#include <functional>
#include <type_traits>
#include <utility>

/**
 * \class CMVoidReply
 * Asynchronous replies: the untyped handle, and the rules of every reply.
 *
 * A reply is a handle (CMVoidReply, CMReply<T>) on shared, reference-counted
 * reply data. Whoever holds a handle can attach continuations, read the
 * outcome or finish the reply. A reply is finished once: the first value or
 * error wins, later ones are dropped without a trace.
 *
 * Delivery of continuations ("watchers"):
 *  - Each watcher runs exactly once, in the order in which the watchers of a
 *    reply were added, outside the reply's lock: it may attach further
 *    continuations or finish other replies.
 *  - A watcher belongs to a thread: the thread of its context object, or,
 *    without context, the thread that added it.
 *  - Qt::AutoConnection: when the reply finishes on the watcher's thread the
 *    watcher runs at once on that thread; otherwise it is posted to that
 *    thread's event loop. Qt::QueuedConnection (and BlockingQueuedConnection,
 *    which is treated as queued) always posts. Qt::DirectConnection runs on
 *    whatever thread finishes the reply.
 *  - A watcher added to a reply that has finished already is delivered at
 *    once by the same rules, as if the reply finished at that moment.
 *  - "At once" goes through a per-thread drain loop: the first completion on
 *    a thread runs the due watchers in order, and completions caused by them
 *    only queue their watchers behind, to be run by that same loop. A chain
 *    of continuations that finish each other synchronously therefore runs in
 *    constant stack depth, however long it is. When a continuation is
 *    attached or a reply finished from inside a running watcher, its own
 *    watchers run after the current watcher returns, not in the middle of it.
 *  - A watcher whose context object is destroyed before it runs is dropped,
 *    as are posted watchers whose thread has ended. A continuation must not
 *    spin a nested event loop waiting for a reply that is finished by a
 *    direct call on the same thread: that completion waits for the running
 *    watcher to return.
 *  - A context object may be destroyed at any time on its own thread, but
 *    not while another thread is finishing a reply that it watches: the
 *    finishing thread reads the context to choose where the watcher runs.
 *
 * A reply may be finished from any thread; the mutex guards the finished
 * flag, the value, the error and the watcher list, and waitForFinished()
 * blocks on the wait condition. Once the flag is set, the value and the
 * error never change again, and readers that see it set read them without
 * the lock.
 */

class CMVoidReply;
template <typename T>
class CMReply;

namespace vela {
/**
 * Where the wrong-type assertion of a typed continuation reports itself.
 * These are part of the log contract: consumers key assertion records on
 * file and line, so the values are fixed here and must not follow edits of
 * this header.
 */
struct CMReplyWrongTypeAssertion {
    /// The context the assertion names.
    static constexpr const char* where = "CMReply";
    /// The assertion text.
    static constexpr const char* text = "Wrong type passed to CMReply::onFinished()!";
    /// The file the assertion names.
    static constexpr const char* file = "api/core/model/cmreply";
    /// The line the assertion names.
    static constexpr int line = 689;
};
} // namespace vela

/// One continuation of a reply. The reply owns it until it has been run.
class VELA_API_EXPORT CMReplyWatcher
{
public:
    /// A continuation that belongs to `context`'s thread (without context:
    /// the calling thread's) and is delivered by `type`.
    CMReplyWatcher(QObject* context, Qt::ConnectionType type);
    virtual ~CMReplyWatcher();
    CMReplyWatcher(const CMReplyWatcher&) = delete;
    CMReplyWatcher& operator=(const CMReplyWatcher&) = delete;

    /// Called once, on the thread chosen by the delivery rules above.
    virtual void finished(const CMVoidReply& reply) = 0;

    /// Delivery bookkeeping, used by the reply data: the context object, null
    /// once destroyed.
    QObject* receiver() const { return m_receiver.data(); }
    /// Whether the watcher was given a context object (and is dropped with it).
    bool hasReceiver() const { return m_needsReceiver; }
    /// How the watcher is delivered.
    Qt::ConnectionType connectionType() const { return m_type; }

private:
    QPointer<QObject> m_receiver;
    bool m_needsReceiver;
    Qt::ConnectionType m_type;
};

/// The shared state of a reply: reference count, finished flag, error and
/// continuations, guarded by one mutex, so any thread may finish or read it.
class VELA_API_EXPORT CMReplyAbstractData
{
public:
    CMReplyAbstractData();
    virtual ~CMReplyAbstractData();
    CMReplyAbstractData(const CMReplyAbstractData&) = delete;
    CMReplyAbstractData& operator=(const CMReplyAbstractData&) = delete;

    /// Blocks until the reply has finished or `time` milliseconds have passed;
    /// ULONG_MAX waits without limit. Returns whether the reply has finished.
    bool waitForFinished(unsigned long time = ULONG_MAX);

    /// Whether the reply has finished; never blocks.
    bool isFinished() const;
    /// The error stored at the finish; a success before it.
    CMError error() const;
    /// Stores the error and finishes; ignored when finished already.
    void finishWithError(const CMError& error);
    /// Finishes without value (CMReply<void>); ignored when finished already.
    void finishWithoutValue();
    /// Takes ownership of the watcher.
    void addWatcher(CMReplyWatcher* watcher);

    /**
     * Whether the reply has finished, read without the lock. The flag is set
     * once, under the lock, by a release store after the value and the error
     * have been stored, and neither changes afterwards: a reader that sees it
     * set may read them without the lock. Most replies are read after their
     * finish, and a locked read costs two atomic operations every time.
     */
    bool finishedFlag() const { return __atomic_load_n(&m_finished, __ATOMIC_ACQUIRE); }

    QAtomicInt m_ref;
    mutable QMutex m_mutex;
    /*
     * The wait condition is made by the first waiter (placement new, with
     * m_mutex held): most replies are never waited for, and making one costs
     * an allocation and the set-up of a pthread condition. m_conditionMade
     * shares its storage and reads null until then; afterwards it reads the
     * condition's own private pointer, which is never null.
     */
    union {
        QWaitCondition m_condition;
        void* m_conditionMade = nullptr;
    };
    bool m_finished;
    CMError m_error;
    QList<CMReplyWatcher*> m_watchers;

protected:
    /// With m_mutex held and the reply not finished: sets the flag, wakes the
    /// waiters and hands out the watchers to deliver once the lock is gone.
    QList<CMReplyWatcher*> finishLocked();
    /// Outside the lock: delivers each watcher by the rules above.
    void deliver(const QList<CMReplyWatcher*>& watchers);
};

/// The shared state of a reply with a value of type T.
template <typename T>
class VELA_API_EXPORT CMReplyData : public CMReplyAbstractData
{
public:
    CMReplyData() : m_value() {}
    ~CMReplyData() override = default;

    /// Blocks without limit until the reply has finished, then copies the value.
    virtual T value()
    {
        // Once finished, the value is never written again (see finishedFlag()).
        if (!finishedFlag())
            waitForFinished(ULONG_MAX);
        return m_value;
    }

    /// Finishes with a value carried in a QVariant.
    virtual void setVariant(const QVariant& value) { finishWithValue(value.value<T>()); }

    /// Stores the value and finishes; ignored when finished already.
    void finishWithValue(const T& value)
    {
        QList<CMReplyWatcher*> watchers;
        {
            QMutexLocker locker(&m_mutex);
            if (m_finished)
                return;
            m_value = value;
            watchers = finishLocked();
        }
        deliver(watchers);
    }

    /// Value and error together, in one finish (used by whenAllFinished).
    void finishWithValueAndError(const T& value, const CMError& error)
    {
        QList<CMReplyWatcher*> watchers;
        {
            QMutexLocker locker(&m_mutex);
            if (m_finished)
                return;
            m_value = value;
            m_error = error;
            watchers = finishLocked();
        }
        deliver(watchers);
    }

protected:
    T m_value;
};

/// A QVariant that itself holds a QVariant stores the inner one.
template <>
inline void CMReplyData<QVariant>::setVariant(const QVariant& value)
{
    if (value.userType() == QMetaType::QVariant)
        finishWithValue(*static_cast<const QVariant*>(value.constData()));
    else
        finishWithValue(value);
}

/// Runs a std::function with the untyped handle.
class VELA_API_EXPORT CMFunctionWatcher : public CMReplyWatcher
{
public:
    /// A continuation that calls `function`; see CMReplyWatcher for the rest.
    CMFunctionWatcher(QObject* context, std::function<void(const CMVoidReply&)> function,
                      Qt::ConnectionType type);
    void finished(const CMVoidReply& reply) override;

private:
    std::function<void(const CMVoidReply&)> m_function;
};

/**
 * Runs a callable kept in the watcher itself. A std::function keeps a
 * capturing lambda of more than two pointers on the heap, so storing the
 * callable here saves an allocation per continuation; the header templates
 * below attach lambdas this way. `Call` adapts the untyped handle to the
 * callable's argument.
 */
template <typename Callable, typename Call>
class CMCallableWatcher final : public CMReplyWatcher
{
public:
    /// A continuation that runs `callable`; see CMReplyWatcher for the rest.
    CMCallableWatcher(QObject* context, Callable callable, Qt::ConnectionType type)
        : CMReplyWatcher(context, type)
        , m_callable(std::move(callable))
    {
    }
    void finished(const CMVoidReply& reply) override { Call::run(m_callable, reply); }

private:
    Callable m_callable;
};

class VELA_API_EXPORT CMVoidReply
{
protected:
    /// Enables the callable overloads for a callable, other than `Function`
    /// itself, that takes a `Handle`: a std::function goes to the exported
    /// overloads as it is.
    template <typename Handle, typename Function, typename Callable>
    using IfContinuation = std::enable_if_t<!std::is_same<std::decay_t<Callable>, Function>::value &&
                                            std::is_invocable<std::decay_t<Callable>&, const Handle&>::value>;

public:
    /// A handle without data.
    CMVoidReply() : m_d(nullptr) {}
    /// A handle on `data`, which it shares from now on.
    explicit CMVoidReply(CMReplyAbstractData* data);
    /// Another handle on the same data.
    CMVoidReply(const CMVoidReply& other);
    /// Takes over the data of `other`, which is left without data.
    CMVoidReply(CMVoidReply&& other) noexcept : m_d(other.m_d) { other.m_d = nullptr; }
    /// Shares the data of `other`; the data held before is released.
    CMVoidReply& operator=(const CMVoidReply& other);
    /// Takes over the data of `other`; the data held before is released.
    CMVoidReply& operator=(CMVoidReply&& other) noexcept;
    /// Releases the data; the last handle frees it. Continuations not yet
    /// delivered are freed with it unrun.
    ~CMVoidReply();

    /// True for a handle without data.
    bool operator!() const { return m_d == nullptr; }
    /// Same data.
    bool operator==(const CMVoidReply& other) const { return m_d == other.m_d; }
    /// Different data.
    bool operator!=(const CMVoidReply& other) const { return m_d != other.m_d; }

    /// Whether the reply has finished; never blocks. Any thread.
    bool isFinished() const;
    /// The error stored at the finish; a success while unfinished. Any thread.
    CMError error() const;
    /// Stores the error and finishes the reply; ignored once finished.
    void setError(const CMError& error) const;
    /// Blocks until the reply has finished or `time` milliseconds have passed;
    /// answers whether it has finished. Never call it on the thread that is to
    /// finish the reply.
    bool waitForFinished(unsigned long time = ULONG_MAX) const;
    /// Attaches a continuation, run once by the delivery rules above.
    void addWatcher(QObject* context, std::function<void(const CMVoidReply&)> function,
                    Qt::ConnectionType type = Qt::AutoConnection) const;
    /// The same for any other callable, kept in the watcher itself.
    template <typename Callable,
              typename = IfContinuation<CMVoidReply, std::function<void(const CMVoidReply&)>, Callable>>
    void addWatcher(QObject* context, Callable&& callable, Qt::ConnectionType type = Qt::AutoConnection) const
    {
        attach<UntypedCall>(context, std::forward<Callable>(callable), type);
    }

    /// The shared data; null for a handle without data.
    CMReplyAbstractData* data() const { return m_d; }

    /**
     * Finishes once every listed reply has finished; at once for an empty
     * list and for handles without data. The value is the list itself, so
     * that each joined reply can be inspected. When some replies failed the
     * join carries the error of the first failed reply in list order,
     * unchanged: its name, message and title; the others are in the value.
     */
    static CMReply<QList<CMVoidReply>> whenAllFinished(const QList<CMVoidReply>& replies);
    /// The message of an action that was given up after its time limit.
    static QString ErrorTimeout();

protected:
    /// Passes the untyped handle on as it is.
    struct UntypedCall {
        /// Calls `callable` with `reply`.
        template <typename Callable>
        static void run(Callable& callable, const CMVoidReply& reply)
        {
            callable(reply);
        }
    };

    /**
     * A typed handle that borrows its reference: it neither adds to the count
     * nor drops it. Continuations are called with one, on data that the
     * delivering code keeps alive for the call; a counted handle would cost
     * two atomic operations per continuation. A continuation that keeps the
     * handle copies it, and the copy counts as usual.
     */
    template <typename Handle>
    class Borrowed : public Handle
    {
    public:
        /// A handle on `data`, which the caller keeps alive meanwhile.
        explicit Borrowed(CMReplyAbstractData* data)
            : Handle(CMVoidReply())
        {
            this->m_d = data;
        }
        ~Borrowed() { this->m_d = nullptr; }
        Borrowed(const Borrowed&) = delete;
        Borrowed& operator=(const Borrowed&) = delete;
    };

    /// Attaches `callable`, run through `Call`, in a watcher of its own type.
    template <typename Call, typename Callable>
    void attach(QObject* context, Callable&& callable, Qt::ConnectionType type) const
    {
        VELA_ASSERT_TEXT(m_d, "m_d");
        using Stored = std::decay_t<Callable>;
        m_d->addWatcher(new CMCallableWatcher<Stored, Call>(context, std::forward<Callable>(callable), type));
    }

    CMReplyAbstractData* m_d;
};

/// A handle is one pointer that may be moved in memory: Qt containers keep
/// lists of replies in one array instead of one allocation per element.
Q_DECLARE_TYPEINFO(CMVoidReply, Q_MOVABLE_TYPE);
Q_DECLARE_METATYPE(CMVoidReply)

/// A reply with a value of type T: the typed handle on CMReplyData<T>.
template <typename T>
class CMReply : public CMVoidReply
{
public:
    /// A continuation of the reply.
    using Function = std::function<void(const CMReply<T>&)>;

    /// A new handle on fresh, unfinished data.
    CMReply() : CMVoidReply(new CMReplyData<T>()) {}
    /// A handle on existing typed data.
    explicit CMReply(CMReplyData<T>* data) : CMVoidReply(data) {}
    /// Views untyped data as CMReplyData<T>; typed access checks the type.
    explicit CMReply(const CMVoidReply& untyped) : CMVoidReply(untyped) {}

    /// Blocking value getter: waits without limit for the finish.
    T value() const { return typedData()->value(); }
    /// Finishes with `value`; ignored once finished. Any thread.
    void setValue(const T& value) const { typedData()->finishWithValue(value); }

    /// Attaches `function`, run once with this reply by the delivery rules
    /// above, on `context`'s thread; dropped if `context` is destroyed first.
    void onFinished(QObject* context, Function function, Qt::ConnectionType type = Qt::AutoConnection) const
    {
        attach<TypedCall>(context, std::move(function), type);
    }
    /// Attaches `function` for the calling thread.
    void onFinished(Function function, Qt::ConnectionType type = Qt::AutoConnection) const
    {
        onFinished(nullptr, std::move(function), type);
    }
    /// The same for any other callable (a lambda), kept in the watcher itself.
    template <typename Callable, typename = IfContinuation<CMReply<T>, Function, Callable>>
    void onFinished(QObject* context, Callable&& callable, Qt::ConnectionType type = Qt::AutoConnection) const
    {
        attach<TypedCall>(context, std::forward<Callable>(callable), type);
    }
    /// The same for the calling thread.
    template <typename Callable, typename = IfContinuation<CMReply<T>, Function, Callable>>
    void onFinished(Callable&& callable, Qt::ConnectionType type = Qt::AutoConnection) const
    {
        attach<TypedCall>(nullptr, std::forward<Callable>(callable), type);
    }

private:
    /// Checks, when the reply finishes, that its data really is of type T,
    /// and calls the continuation with the typed handle.
    struct TypedCall {
        template <typename Callable>
        static void run(Callable& callable, const CMVoidReply& reply)
        {
            using Assertion = vela::CMReplyWrongTypeAssertion;
            auto* typed = dynamic_cast<CMReplyData<T>*>(reply.data());
            VELA_ASSERT_X_AT(typed, Assertion::where, Assertion::text, Assertion::file, Assertion::line);
            const Borrowed<CMReply<T>> handle(typed);
            callable(handle);
        }
    };

    CMReplyData<T>* typedData() const
    {
        VELA_ASSERT_TEXT(m_d, "m_d");
        auto* typed = dynamic_cast<CMReplyData<T>*>(m_d);
        VELA_ASSERT_TEXT(typed, "Wrong type passed to CMReply::onFinished()!");
        return typed;
    }
};

/// A reply without value: it only succeeds or fails.
template <>
class VELA_API_EXPORT CMReply<void> : public CMVoidReply
{
public:
    /// A continuation of the reply.
    using Function = std::function<void(const CMReply<void>&)>;

    /// A handle on fresh, unfinished data.
    CMReply();
    /// Another handle on untyped data.
    explicit CMReply(const CMVoidReply& untyped) : CMVoidReply(untyped) {}

    /// Finishes with success.
    void setValue() const;
    /// Attaches `function` for the calling thread, run once by the delivery rules.
    void onFinished(Function function, Qt::ConnectionType type = Qt::AutoConnection) const;
    /// Attaches `function` for `context`'s thread; dropped with `context`.
    void onFinished(QObject* context, Function function, Qt::ConnectionType type = Qt::AutoConnection) const;
    /// The same for any other callable (a lambda), kept in the watcher itself.
    template <typename Callable, typename = IfContinuation<CMReply<void>, Function, Callable>>
    void onFinished(QObject* context, Callable&& callable, Qt::ConnectionType type = Qt::AutoConnection) const
    {
        attach<VoidCall>(context, std::forward<Callable>(callable), type);
    }
    /// The same for the calling thread.
    template <typename Callable, typename = IfContinuation<CMReply<void>, Function, Callable>>
    void onFinished(Callable&& callable, Qt::ConnectionType type = Qt::AutoConnection) const
    {
        attach<VoidCall>(nullptr, std::forward<Callable>(callable), type);
    }

private:
    /// Calls the continuation with the void handle.
    struct VoidCall {
        template <typename Callable>
        static void run(Callable& callable, const CMVoidReply& reply)
        {
            const Borrowed<CMReply<void>> handle(reply.data());
            callable(handle);
        }
    };
};

using CMVoidReplyList = QList<CMVoidReply>;
Q_DECLARE_METATYPE(CMReply<QVariant>)

#endif
