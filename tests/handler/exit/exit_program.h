#ifndef VELA_TESTS_EXIT_PROGRAM_H
#define VELA_TESTS_EXIT_PROGRAM_H

#include "PowerHandler.h"
#include "PowerNode.h"

#include "cmreply.h"
#include "cmrequest.h"
#include "cmrootworker.h"
#include "velapowerenums.h"
#include "velapowermanagermoduleregister.h"
#include "velapowermanagerresourcerequest.h"
#include "velapowermanagertarget.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QList>
#include <QTimer>

#include <cstdio>

/*
 * Programs that keep their PowerHandler in static storage, run requests
 * through it and return from main(): the handler is then destroyed among the
 * static objects, after main's locals and possibly after other libraries'
 * per-thread and static state. Run under valgrind, any read of freed memory
 * on the way out makes the run fail.
 *
 * Each program switches a resource by a write that the platform answers
 * later (from the event loop), runs a target request, and leaves one more
 * request queued behind a write that is never answered, so that the handler
 * is destroyed with a non-empty queue and unanswered callers.
 */
namespace exitprogram {

const CMPath kWritePath("/exit/power");
const CMPath kHeldPath("/exit/held");
const QString kModule = QStringLiteral("service");

// The nodes live as long as the handler, in static storage as well.
struct Graph {
    PowerResource lamp{static_cast<VelaPowerManagerResources::Enum>(1)};
    PowerResource stuck{static_cast<VelaPowerManagerResources::Enum>(2)};
    PowerTarget on{static_cast<VelaPowerManagerTargets::Enum>(1)};
    PowerTarget off{static_cast<VelaPowerManagerTargets::Enum>(2)};
};

inline void registerPlatform(QList<CMReply<QVariant>>& held)
{
    CMRootWorker::instance()->registerSetDataHandler(
        kWritePath, [](const CMPath&, const QString&, const QVariant& value, CMReply<QVariant> reply) {
            QTimer::singleShot(0, [reply, value] { reply.setValue(value); });
        });
    CMRootWorker::instance()->registerSetDataHandler(
        kHeldPath, [&held](const CMPath&, const QString&, const QVariant&, CMReply<QVariant> reply) {
            held.append(reply);
        });
}

inline void setUp(PowerHandler& handler, Graph& graph)
{
    graph.lamp.setOnEnableActionRequest(CMSetDataRequest(kWritePath, QStringLiteral("power"), true));
    graph.lamp.setOnDisableActionRequest(CMSetDataRequest(kWritePath, QStringLiteral("power"), false));
    graph.stuck.setOnEnableActionRequest(CMSetDataRequest(kHeldPath, QStringLiteral("power"), true));
    graph.on.enables(&graph.lamp);
    handler.registerModule(VelaPowerManagerModuleRegister(kModule, CMPath(), CMPath()));
    handler.registerModule(VelaPowerManagerModuleRegister(VelaPowerManagerName(), CMPath(), CMPath()));
    handler.registerResource(&graph.lamp);
    handler.registerResource(&graph.stuck);
    handler.registerTarget(&graph.on);
    handler.registerTarget(&graph.off);
}

inline bool waitFor(const QList<CMReply<QVariant>>& replies)
{
    QElapsedTimer watchdog;
    watchdog.start();
    auto allFinished = [&replies] {
        for (const CMReply<QVariant>& reply : replies) {
            if (!reply.isFinished())
                return false;
        }
        return true;
    };
    while (!allFinished() && watchdog.elapsed() < 20000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    return allFinished();
}

inline VelaPowerManagerResourceRequest wish(const PowerResource& resource, VelaPowerModuleActions::Enum action)
{
    return VelaPowerManagerResourceRequest(resource.resource(), kModule, action);
}

// Runs the requests; returns the exit code of main().
inline int run(PowerHandler& handler, Graph& graph, int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QList<CMReply<QVariant>> held;
    registerPlatform(held);
    setUp(handler, graph);

    const QList<CMReply<QVariant>> answered{CMReply<QVariant>(), CMReply<QVariant>(), CMReply<QVariant>()};
    handler.requestResource(wish(graph.lamp, VelaPowerModuleActions::use), answered.at(0));
    handler.requestTarget(VelaPowerManagerTarget(graph.off.target()), answered.at(1));
    handler.requestResource(wish(graph.lamp, VelaPowerModuleActions::release), answered.at(2));
    if (!waitFor(answered)) {
        std::fprintf(stderr, "requests were not answered\n");
        return 1;
    }
    for (const CMReply<QVariant>& reply : answered) {
        if (reply.error().isError()) {
            std::fprintf(stderr, "a request failed\n");
            return 1;
        }
    }

    // Left running at exit: a write never answered, and a caller behind it.
    CMReply<QVariant> stuck;
    CMReply<QVariant> waiting;
    handler.requestResource(wish(graph.stuck, VelaPowerModuleActions::use), stuck);
    handler.requestResource(wish(graph.lamp, VelaPowerModuleActions::use), waiting);
    QCoreApplication::processEvents(QEventLoop::AllEvents);
    if (held.size() != 1 || handler.pendingRequests() != 2) {
        std::fprintf(stderr, "expected one held write and two queued requests, got %d and %d\n", held.size(),
                     handler.pendingRequests());
        return 1;
    }
    CMRootWorker::instance()->clearHandlers();
    std::printf("requests run; %d left queued at exit\n", handler.pendingRequests());
    return 0;
}

} // namespace exitprogram

#endif
