// Cost of the asynchronous reply model next to Qt's own means of running a
// continuation, measured in one run so that the figures are comparable.
//
//  - ReplyVariant_MakeWatchFinish: a CMReply<QVariant> is made, one watcher
//    that reads the value is attached, the reply is finished; the watcher
//    runs before setValue() returns.
//  - ReplyVoid_MakeWatchFinish: the same with CMReply<void>.
//  - ReplyVariant_Make, ReplyVariant_MakeFinish: parts of that path (making
//    and dropping a reply; finishing it without a watcher).
//  - ReplyVariant_QueuedWatcher: the same with a queued watcher, including
//    the event-loop pass that runs it.
//  - WhenAllFinished/N: joining N replies that have all finished already;
//    "per_reply" is the time per joined reply, so linearity shows directly.
//  - QFutureWatcher_Continuation: a QFutureInterface<void> reported finished
//    with a QFutureWatcher<void>::finished continuation; the event loop is
//    spun until the signal has arrived, which is the full cost of that path.
//  - QueuedInvokeMethod: posting a functor with QMetaObject::invokeMethod and
//    processing events until it ran.
//  - MinimalReply_MakeWatchFinish: the reference for the reply paths: a
//    minimal reply of the same shape (shared, reference-counted data with a
//    mutex, a wait condition, a finished flag, the value and a list of
//    watchers, each one std::function), made, watched once and finished.
//
// After the run the program prints how many times cheaper the reply paths
// are than the QFutureWatcher continuation (goal: at least 40 times), and
// how they compare with the minimal reply (goal: at most 1.5 times its cost).

#include "cmreply.h"

#include <QCoreApplication>
#include <QFutureInterface>
#include <QFutureWatcher>
#include <QAtomicInt>
#include <QList>
#include <QMutex>
#include <QMutexLocker>
#include <QObject>
#include <QVariant>
#include <QWaitCondition>

#include <benchmark/benchmark.h>

#include "recordingreporter.h"

#include <cstdio>
#include <functional>
#include <string>
#include <vector>


namespace {

// Make, watch once (the watcher reads the value) and finish, with our reply
// or with the reference below.
template <typename Reply>
void makeWatchFinish(benchmark::State& state)
{
    qint64 sum = 0;
    qint64 runs = 0;
    for (auto _ : state) {
        Reply reply;
        reply.onFinished([&](const Reply& finished) {
            sum += finished.value().toLongLong();
            ++runs;
        });
        reply.setValue(QVariant(1));
    }
    if (runs != state.iterations() || sum != runs)
        state.SkipWithError("the continuation did not run once per reply");
    state.SetItemsProcessed(state.iterations());
}

void ReplyVariant_MakeWatchFinish(benchmark::State& state)
{
    makeWatchFinish<CMReply<QVariant>>(state);
}
BENCHMARK(ReplyVariant_MakeWatchFinish);

void ReplyVoid_MakeWatchFinish(benchmark::State& state)
{
    qint64 runs = 0;
    for (auto _ : state) {
        CMReply<void> reply;
        reply.onFinished([&](const CMReply<void>&) { ++runs; });
        reply.setValue();
    }
    if (runs != state.iterations())
        state.SkipWithError("the continuation did not run once per reply");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ReplyVoid_MakeWatchFinish);

// Break-down of the path above: making and dropping a reply, and making and
// finishing one without any watcher.
void ReplyVariant_Make(benchmark::State& state)
{
    for (auto _ : state) {
        CMReply<QVariant> reply;
        benchmark::DoNotOptimize(reply.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ReplyVariant_Make);

void ReplyVariant_MakeFinish(benchmark::State& state)
{
    bool allFinished = true;
    for (auto _ : state) {
        CMReply<QVariant> reply;
        reply.setValue(QVariant(1));
        allFinished = allFinished && reply.isFinished();
    }
    if (!allFinished)
        state.SkipWithError("a reply did not finish");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ReplyVariant_MakeFinish);

void ReplyVariant_QueuedWatcher(benchmark::State& state)
{
    qint64 runs = 0;
    for (auto _ : state) {
        CMReply<QVariant> reply;
        bool ran = false;
        reply.onFinished(
            [&](const CMReply<QVariant>& finished) {
                benchmark::DoNotOptimize(finished.value());
                ran = true;
                ++runs;
            },
            Qt::QueuedConnection);
        reply.setValue(QVariant(1));
        while (!ran)
            QCoreApplication::processEvents();
    }
    if (runs != state.iterations())
        state.SkipWithError("the continuation did not run once per reply");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ReplyVariant_QueuedWatcher);

void WhenAllFinished(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    QList<CMVoidReply> replies;
    for (int i = 0; i < count; ++i) {
        CMReply<void> reply;
        reply.setValue();
        replies << reply;
    }
    bool allJoined = true;
    for (auto _ : state) {
        const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished(replies);
        allJoined = allJoined && all.isFinished();
        benchmark::DoNotOptimize(all.data());
    }
    if (!allJoined)
        state.SkipWithError("a join of finished replies did not finish at once");
    const double joined = static_cast<double>(state.iterations()) * count;
    state.SetItemsProcessed(static_cast<int64_t>(joined));
    state.counters["per_reply"] = benchmark::Counter(joined, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(WhenAllFinished)->Arg(1)->Arg(10)->Arg(1000);

// The reference: nothing but what a reply of this shape needs.
class MinimalReply
{
public:
    using Watcher = std::function<void(const MinimalReply&)>;

    MinimalReply() : m_d(new Data) { m_d->ref.ref(); }
    MinimalReply(const MinimalReply& other) : m_d(other.m_d) { m_d->ref.ref(); }
    MinimalReply& operator=(const MinimalReply&) = delete;
    ~MinimalReply()
    {
        if (!m_d->ref.deref())
            delete m_d;
    }

    void onFinished(Watcher watcher) const
    {
        {
            QMutexLocker locker(&m_d->mutex);
            if (!m_d->finished) {
                m_d->watchers.append(new Watcher(std::move(watcher)));
                return;
            }
        }
        watcher(*this);
    }

    void setValue(const QVariant& value) const
    {
        QList<Watcher*> watchers;
        {
            QMutexLocker locker(&m_d->mutex);
            if (m_d->finished)
                return;
            m_d->finished = true;
            m_d->value = value;
            watchers.swap(m_d->watchers);
            m_d->condition.wakeAll();
        }
        for (Watcher* watcher : watchers) {
            (*watcher)(*this);
            delete watcher;
        }
    }

    QVariant value() const
    {
        QMutexLocker locker(&m_d->mutex);
        while (!m_d->finished)
            m_d->condition.wait(&m_d->mutex);
        return m_d->value;
    }

private:
    struct Data {
        QAtomicInt ref;
        QMutex mutex;
        QWaitCondition condition;
        bool finished = false;
        QVariant value;
        QList<Watcher*> watchers;
        ~Data() { qDeleteAll(watchers); }
    };
    Data* m_d;
};

void MinimalReply_MakeWatchFinish(benchmark::State& state)
{
    makeWatchFinish<MinimalReply>(state);
}
BENCHMARK(MinimalReply_MakeWatchFinish);

void QFutureWatcher_Continuation(benchmark::State& state)
{
    qint64 runs = 0;
    for (auto _ : state) {
        QFutureInterface<void> promise;
        promise.reportStarted();
        QFutureWatcher<void> watcher;
        bool ran = false;
        QObject::connect(&watcher, &QFutureWatcher<void>::finished, [&] {
            ran = true;
            ++runs;
        });
        watcher.setFuture(promise.future());
        promise.reportFinished();
        while (!ran)
            QCoreApplication::processEvents();
    }
    if (runs != state.iterations())
        state.SkipWithError("the finished signal did not arrive once per future");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(QFutureWatcher_Continuation);

void QueuedInvokeMethod(benchmark::State& state)
{
    QObject target;
    qint64 runs = 0;
    for (auto _ : state) {
        bool ran = false;
        QMetaObject::invokeMethod(
            &target,
            [&] {
                ran = true;
                ++runs;
            },
            Qt::QueuedConnection);
        while (!ran)
            QCoreApplication::processEvents();
    }
    if (runs != state.iterations())
        state.SkipWithError("the posted call did not run once per post");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(QueuedInvokeMethod);

// Ours against the minimal reply, measured in the same run, in real and in
// CPU time.
void printAgainstMinimalReply(const benchsupport::RecordingReporter& reporter)
{
    const double minimal = reporter.nanoseconds("MinimalReply_MakeWatchFinish");
    const double minimalCpu = reporter.cpuNanoseconds("MinimalReply_MakeWatchFinish");
    if (minimal <= 0 || minimalCpu <= 0)
        return;
    std::printf("\nAgainst the minimal reply of the same shape (make + watch + finish: %.1f ns real, %.1f ns CPU):\n",
                minimal, minimalCpu);
    for (const char* name : {"ReplyVariant_MakeWatchFinish", "ReplyVoid_MakeWatchFinish"}) {
        const double ours = reporter.nanoseconds(name);
        const double oursCpu = reporter.cpuNanoseconds(name);
        if (ours <= 0 || oursCpu <= 0)
            continue;
        const double ratio = ours / minimal;
        const double cpuRatio = oursCpu / minimalCpu;
        std::printf("  %-30s real %7.1f ns = %5.2fx, CPU %7.1f ns = %5.2fx  (goal at most 1.5x: %s)\n", name, ours,
                    ratio, oursCpu, cpuRatio, ratio <= 1.5 && cpuRatio <= 1.5 ? "met" : "not met");
    }
}

void printComparison(const benchsupport::RecordingReporter& reporter)
{
    const double future = reporter.nanoseconds("QFutureWatcher_Continuation");
    if (future <= 0)
        return;
    std::printf("\nAgainst the QFutureWatcher<void> continuation (%.1f ns per operation, real time):\n", future);
    // The two paths the goal is about: make, watch and finish a reply.
    for (const char* name : {"ReplyVariant_MakeWatchFinish", "ReplyVoid_MakeWatchFinish"}) {
        const double ours = reporter.nanoseconds(name);
        if (ours <= 0)
            continue;
        const double ratio = future / ours;
        std::printf("  %-30s %10.1f ns  %6.1fx cheaper  (goal 40x: %s)\n", name, ours, ratio,
                    ratio >= 40.0 ? "met" : "not met");
    }
    for (const char* name :
         {"ReplyVariant_Make", "ReplyVariant_MakeFinish", "ReplyVariant_QueuedWatcher", "QueuedInvokeMethod"}) {
        const double ours = reporter.nanoseconds(name);
        if (ours > 0)
            std::printf("  %-30s %10.1f ns  %6.1fx cheaper\n", name, ours, future / ours);
    }
    for (const char* name : {"WhenAllFinished/1", "WhenAllFinished/10", "WhenAllFinished/1000"}) {
        const double join = reporter.nanoseconds(name);
        if (join <= 0)
            continue;
        const int count = std::stoi(std::string(name).substr(std::string("WhenAllFinished/").size()));
        std::printf("  %-30s %10.1f ns per join, %8.1f ns per reply\n", name, join, join / count);
    }
}

} // namespace

int main(int argc, char** argv)
{
    // Posted continuations and QFutureWatcher need an application object.
    QCoreApplication app(argc, argv);
    return benchsupport::runWithReporter(argc, argv, [](const benchsupport::RecordingReporter& reporter) {
        printComparison(reporter);
        printAgainstMinimalReply(reporter);
    });
}
