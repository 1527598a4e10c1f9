// The power handler under load, with a platform that answers every write at
// once:
//  - resource requests from the call to the answered reply, one at a time
//    (with and without a write), and 10,000 and 100,000 queued behind a
//    pending one and drained (the path the host program takes for a request
//    list);
//  - target switches between two targets on graphs of 10 to 10,000
//    resources, each switch enabling one half and disabling the other, with
//    the growth of the time per switch.
//
// After the run the program prints the goals: a resource request that
// switches its resource at most 2 us, and 100,000 queued requests under 1 s.

#include "PowerHandler.h"
#include "PowerNode.h"

#include "cmreply.h"
#include "cmrequest.h"
#include "cmrootworker.h"
#include "dbglog.h"
#include "velapowerenums.h"
#include "velapowermanagermoduleregister.h"
#include "velapowermanagerresourcerequest.h"
#include "velapowermanagertarget.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QList>

#include "recordingreporter.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

const CMPath kWritePath("/bench/power");
const CMPath kHeldPath("/bench/held");
const QString kModule = QStringLiteral("bench");

VelaPowerManagerResources::Enum resourceValue(int value)
{
    return static_cast<VelaPowerManagerResources::Enum>(value);
}

// The platform: writes at kWritePath are answered at once, writes at
// kHeldPath are kept until release() answers them.
class Platform
{
public:
    Platform()
    {
        CMRootWorker::instance()->registerSetDataHandler(
            kWritePath, [](const CMPath&, const QString&, const QVariant& value, CMReply<QVariant> reply) {
                reply.setValue(value);
            });
        CMRootWorker::instance()->registerSetDataHandler(
            kHeldPath, [this](const CMPath&, const QString&, const QVariant&, CMReply<QVariant> reply) {
                m_held.append(reply);
            });
    }
    ~Platform()
    {
        release();
        CMRootWorker::instance()->clearHandlers();
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;

    int held() const { return m_held.size(); }
    void release()
    {
        while (!m_held.isEmpty())
            m_held.takeFirst().setValue(QVariant(true));
    }

private:
    QList<CMReply<QVariant>> m_held;
};

void switchedBy(PowerResource* resource, const CMPath& path)
{
    resource->setOnEnableActionRequest(CMSetDataRequest(path, QStringLiteral("power"), true));
    resource->setOnDisableActionRequest(CMSetDataRequest(path, QStringLiteral("power"), false));
}

bool waitFor(const CMVoidReply& reply)
{
    for (int round = 0; !reply.isFinished() && round < 1000000; ++round)
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    return reply.isFinished() && !reply.error().isError();
}

// One resource request at a time, from the call to the answered reply. With
// `toggle`, every request changes the module's action, so the resource is
// switched (one write) each time; without, the action stays and nothing is
// switched.
void resourceRequestOneAtATime(benchmark::State& state, bool toggle)
{
    Platform platform;
    PowerResource resource(resourceValue(0));
    switchedBy(&resource, kWritePath);
    PowerHandler handler;
    handler.registerModule(VelaPowerManagerModuleRegister(kModule, CMPath(), CMPath()));
    handler.registerResource(&resource);

    bool use = true;
    int64_t synchronous = 0;
    for (auto _ : state) {
        CMReply<QVariant> reply;
        handler.requestResource(VelaPowerManagerResourceRequest(resource.resource(), kModule,
                                                                use ? VelaPowerModuleActions::use
                                                                    : VelaPowerModuleActions::release),
                                reply);
        if (reply.isFinished())
            ++synchronous;
        else if (!waitFor(reply)) {
            state.SkipWithError("a request was not answered with success");
            break;
        }
        if (toggle)
            use = !use;
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["answered_in_call"] =
        benchmark::Counter(static_cast<double>(synchronous), benchmark::Counter::kAvgIterations);
}

void BM_ResourceRequestOneAtATimeSwitching(benchmark::State& state)
{
    resourceRequestOneAtATime(state, true);
}
BENCHMARK(BM_ResourceRequestOneAtATimeSwitching);

void BM_ResourceRequestOneAtATimeUnchanged(benchmark::State& state)
{
    resourceRequestOneAtATime(state, false);
}
BENCHMARK(BM_ResourceRequestOneAtATimeUnchanged);

/*
 * The reply operations of one switching resource request, and nothing else:
 * the replies, joins and continuations that the request's path makes, in the
 * same nesting, with captures of the same kinds (handles, and a shared
 * pointer where the request keeps itself alive), every write answered at
 * once. No request, node, record, hash or log check is made. Beside
 * BM_ResourceRequestOneAtATimeSwitching in the same run it tells how much of
 * a request the reply model's own work is: the floor that a request keeping
 * this sequence of replies cannot go below.
 */
void BM_ReplyOperationsOfOneRequest(benchmark::State& state)
{
    const auto request = QSharedPointer<int>::create(0);
    for (auto _ : state) {
        CMReply<QVariant> caller;
        CMReply<void> answer; // the request's own reply
        // process(): the revoke notifications (none sent) are joined.
        CMReply<QVariant> nothingSent;
        nothingSent.setValue(QVariant());
        CMReply<void> notified;
        CMVoidReply::whenAllFinished({nothingSent})
            .onFinished([keepAlive = request, notified](const CMReply<QList<CMVoidReply>>&) { notified.setValue(); },
                        Qt::AutoConnection);
        // The handler waits for the request, then for the clean-ups (none).
        answer.onFinished(
            [keepAlive = request, caller](const CMReply<void>& processed) {
                CMVoidReply::whenAllFinished(QList<CMVoidReply>())
                    .addWatcher(
                        nullptr,
                        [keepAlive, caller, processed](const CMVoidReply&) {
                            if (!processed.error().isError())
                                caller.setValue(QVariant());
                        },
                        Qt::AutoConnection);
            },
            Qt::AutoConnection);
        // execute(): the node's transition locks nothing, writes, finishes.
        notified.onFinished(
            [keepAlive = request, answer](const CMReply<void>&) {
                CMReply<void> transition;
                CMVoidReply::whenAllFinished(QList<CMVoidReply>())
                    .onFinished(
                        [transition](const CMReply<QList<CMVoidReply>>&) {
                            CMReply<void> action;
                            CMReply<QVariant> write;
                            write.onFinished(
                                nullptr,
                                [action](const CMReply<QVariant>& written) {
                                    if (!written.error().isError())
                                        action.setValue();
                                },
                                Qt::AutoConnection);
                            write.setValue(QVariant(true));
                            action.onFinished([transition](const CMReply<void>&) { transition.setValue(); },
                                              Qt::AutoConnection);
                        },
                        Qt::AutoConnection);
                CMReply<void> executed;
                CMVoidReply::whenAllFinished({transition})
                    .onFinished([keepAlive, executed](const CMReply<QList<CMVoidReply>>&) { executed.setValue(); },
                                Qt::AutoConnection);
                executed.onFinished([keepAlive, answer](const CMReply<void>&) { answer.setValue(); },
                                    Qt::AutoConnection);
            },
            Qt::AutoConnection);
        if (!caller.isFinished()) {
            state.SkipWithError("the reply chain did not finish");
            break;
        }
    }
}
BENCHMARK(BM_ReplyOperationsOfOneRequest);

// 10,000 switching requests queued behind one whose write is pending, then
// drained by answering that write: the time covers queuing and draining.
void BM_ResourceRequestsQueued(benchmark::State& state)
{
    const int queued = static_cast<int>(state.range(0));
    Platform platform;
    PowerResource blocker(resourceValue(0));
    switchedBy(&blocker, kHeldPath);
    PowerResource resource(resourceValue(1));
    switchedBy(&resource, kWritePath);
    PowerHandler handler;
    handler.registerModule(VelaPowerManagerModuleRegister(kModule, CMPath(), CMPath()));
    handler.registerResource(&blocker);
    handler.registerResource(&resource);

    std::vector<CMReply<QVariant>> replies(static_cast<size_t>(queued));
    bool blockerUsed = false;
    for (auto _ : state) {
        state.PauseTiming();
        for (CMReply<QVariant>& reply : replies)
            reply = CMReply<QVariant>();
        blockerUsed = !blockerUsed;
        CMReply<QVariant> head;
        handler.requestResource(
            VelaPowerManagerResourceRequest(blocker.resource(), kModule,
                                            blockerUsed ? VelaPowerModuleActions::use : VelaPowerModuleActions::release),
            head);
        if (platform.held() != 1) {
            state.SkipWithError("the head request did not wait for its write");
            break;
        }
        state.ResumeTiming();

        for (int i = 0; i < queued; ++i)
            handler.requestResource(VelaPowerManagerResourceRequest(resource.resource(), kModule,
                                                                    i % 2 == 0 ? VelaPowerModuleActions::use
                                                                               : VelaPowerModuleActions::release),
                                    replies[static_cast<size_t>(i)]);
        platform.release();
        if (!waitFor(replies.back()) || handler.pendingRequests() != 0) {
            state.SkipWithError("the queue did not drain");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * queued);
}
BENCHMARK(BM_ResourceRequestsQueued)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Two targets, each enabling its own half of `resources` resources; every
// iteration switches to the other target: one half is enabled, the other
// disabled (one write each), and the clean-up looks at every resource.
void BM_TargetSwitch(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    Platform platform;
    // The nodes outlive the handler.
    std::vector<std::unique_ptr<PowerResource>> resources;
    resources.reserve(static_cast<size_t>(count));
    PowerTarget first(VelaPowerManagerTargets::active);
    PowerTarget second(VelaPowerManagerTargets::standby);
    PowerHandler handler;
    handler.registerModule(VelaPowerManagerModuleRegister(VelaPowerManagerName(), CMPath(), CMPath()));
    for (int i = 0; i < count; ++i) {
        resources.emplace_back(new PowerResource(resourceValue(i)));
        switchedBy(resources.back().get(), kWritePath);
        (i % 2 == 0 ? first : second).enables(resources.back().get());
        handler.registerResource(resources.back().get());
    }
    first.setReachableTargets({&second});
    second.setReachableTargets({&first});
    handler.registerTarget(&first);
    handler.registerTarget(&second);

    CMReply<QVariant> start;
    handler.requestTarget(VelaPowerManagerTarget(first.target()), start);
    if (!waitFor(start)) {
        state.SkipWithError("the first target could not be reached");
        return;
    }
    const VelaPowerManagerTarget records[] = {VelaPowerManagerTarget(second.target()),
                                              VelaPowerManagerTarget(first.target())};
    int next = 0;
    for (auto _ : state) {
        CMReply<QVariant> reply;
        handler.requestTarget(records[next], reply);
        if (!waitFor(reply)) {
            state.SkipWithError("a target switch failed");
            break;
        }
        next = 1 - next;
    }
    state.SetComplexityN(count);
    state.counters["resources"] = count;
    state.counters["per_resource"] = benchmark::Counter(static_cast<double>(state.iterations()) * count,
                                                        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_TargetSwitch)
    ->RangeMultiplier(10)
    ->Range(10, 10000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity(benchmark::oN);

// One goal line: the figure of `name` in real and CPU time, in `unit`.
void printGoal(const benchsupport::RecordingReporter& reporter, const char* name, const char* what, double perUnit,
               const char* unit, double goal)
{
    const double real = reporter.nanoseconds(name) / perUnit;
    const double cpu = reporter.cpuNanoseconds(name) / perUnit;
    if (real > 0 && cpu > 0)
        std::printf("%s: %.3f %s real, %.3f %s CPU (goal at most %g %s: %s)\n", what, real, unit, cpu, unit, goal,
                    unit, real <= goal && cpu <= goal ? "met" : "not met");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    vela::powerManagerLogger().setLogLevel(log4cplus::OFF_LOG_LEVEL);
    return benchsupport::runWithReporter(argc, argv, [](const benchsupport::RecordingReporter& reporter) {
        std::printf("\n");
        printGoal(reporter, "BM_ResourceRequestOneAtATimeSwitching",
                  "A resource request that switches its resource, end to end", 1e3, "us", 2.0);
        const double floor = reporter.cpuNanoseconds("BM_ReplyOperationsOfOneRequest");
        const double whole = reporter.cpuNanoseconds("BM_ResourceRequestOneAtATimeSwitching");
        if (floor > 0 && whole > 0)
            std::printf("  of which the reply operations alone: %.3f us CPU (%.0f%% of the request)\n", floor / 1e3,
                        100.0 * floor / whole);
        printGoal(reporter, "BM_ResourceRequestsQueued/100000", "100,000 queued resource requests, queued and drained",
                  1e9, "s", 1.0);
    });
}
