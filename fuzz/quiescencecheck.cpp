#include "quiescencecheck.h"

#include "fuzzedgraph.h"

#include "PowerHandler.h"
#include "PowerNode.h"

#include "velapowerenums.h"

#include <cstdio>
#include <cstdlib>

namespace {

bool inTransition(const PowerNode* node)
{
    return node->state() == VelaPowerNodeStates::enabling || node->state() == VelaPowerNodeStates::disabling;
}

std::string describe(const PowerNode* node)
{
    return node->name().toStdString() + " (" + VelaPowerNodeStates::toString(node->state()).toStdString() + ")";
}

} // namespace

QuiescenceCheck::QuiescenceCheck(const FuzzedGraph& graph, const PowerHandler& handler, const RequestStream& stream)
    : m_graph(graph)
    , m_handler(handler)
    , m_stream(stream)
{
}

void QuiescenceCheck::run() const
{
    checkCallers();
    checkQueue();
    checkNodeStates();
    checkRequiredNodes();
    checkSnapshot();
}

void QuiescenceCheck::checkCallers() const
{
    // The reply model drops a second answer, so "exactly once" shows as a
    // finished reply whose continuation ran once.
    for (const RequestStream::Caller& caller : m_stream.callers()) {
        if (!caller.reply.isFinished() || caller.answers != 1)
            fail("caller \"" + caller.wish + "\" answered " + std::to_string(caller.answers) + " times");
    }
}

void QuiescenceCheck::checkQueue() const
{
    if (m_handler.pendingRequests() != 0)
        fail(std::to_string(m_handler.pendingRequests()) + " requests left in the queue");
}

void QuiescenceCheck::checkNodeStates() const
{
    for (const PowerResource* resource : m_graph.resources()) {
        if (inTransition(resource))
            fail("resource " + describe(resource) + " left in a transition");
    }
    for (const PowerTarget* target : m_graph.targets()) {
        if (inTransition(target))
            fail("target " + describe(target) + " left in a transition");
    }
}

void QuiescenceCheck::checkRequiredNodes() const
{
    for (const PowerResource* resource : m_graph.resources()) {
        if (!resource->isEnabled())
            continue;
        for (const PowerNode* required : resource->requiredNodes(false)) {
            if (!required->isEnabled())
                fail("enabled resource " + describe(resource) + " requires " + describe(required));
        }
    }
}

void QuiescenceCheck::checkSnapshot() const
{
    const QVariantHash snapshot = m_handler.listNodes();
    if (snapshot.size() != 2)
        fail("the snapshot has " + std::to_string(snapshot.size()) + " keys");
    const QVariantHash targets = snapshot.value(QStringLiteral("targets")).toHash();
    const QVariantHash resources = snapshot.value(QStringLiteral("resources")).toHash();
    if (targets.size() != static_cast<int>(m_graph.targets().size()) ||
        resources.size() != static_cast<int>(m_graph.resources().size()))
        fail("the snapshot lists other nodes than the registered ones");
    for (const PowerTarget* target : m_graph.targets())
        checkNodeInfo(targets, VelaPowerManagerTargets::toString(target->target()), target);
    for (const PowerResource* resource : m_graph.resources())
        checkNodeInfo(resources, VelaPowerManagerResources::toString(resource->resource()), resource);
}

void QuiescenceCheck::checkNodeInfo(const QVariantHash& group, const QString& name, const PowerNode* node) const
{
    if (!group.contains(name))
        fail("the snapshot lacks " + describe(node));
    const QVariantHash info = group.value(name).toHash();
    if (info.value(QStringLiteral("isEnabled")).toBool() != node->isEnabled())
        fail("the snapshot's isEnabled differs for " + describe(node));
    const QVariantHash actions = info.value(QStringLiteral("actions")).toHash();
    const QHash<QString, VelaPowerModuleActions::Enum> moduleActions = node->moduleActions();
    if (actions.size() != moduleActions.size())
        fail("the snapshot's actions differ for " + describe(node));
    for (auto it = moduleActions.cbegin(); it != moduleActions.cend(); ++it) {
        if (actions.value(it.key()).toString() != VelaPowerModuleActions::toString(it.value()))
            fail("the snapshot's action of " + it.key().toStdString() + " differs for " + describe(node));
    }
}

void QuiescenceCheck::fail(const std::string& what) const
{
    std::fprintf(stderr, "fuzz_requests: %s\nwishes, in the order they were made:\n", what.c_str());
    for (const RequestStream::Caller& caller : m_stream.callers())
        std::fprintf(stderr, "  %s (answered %d times)\n", caller.wish.c_str(), caller.answers);
    std::abort();
}
