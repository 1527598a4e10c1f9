#include "refusalreasons.h"

#include "powergraph.h"

#include "PowerNode.h"

namespace {

QStringList reachableFrom(const PowerGraph& graph, PowerTarget* enabled)
{
    QStringList names;
    for (const GraphSpec::Target& entry : graph.description().targets) {
        if (enabled->isReachable(graph.target(entry.name)))
            names.append(entry.name);
    }
    return names;
}

// How `target` comes to disable `node`: directly, or through a node it
// disables that `node` requires.
QString howDisabled(PowerTarget* target, PowerNode* node)
{
    const QSet<PowerNode*> direct = target->requiredByNodes(false);
    if (direct.contains(node))
        return QStringLiteral("%1 disables %2").arg(target->name(), node->name());
    for (PowerNode* disabled : direct) {
        if (disabled->requiredByNodes(true).contains(node))
            return QStringLiteral("%1 disables %2, which %3 requires")
                .arg(target->name(), disabled->name(), node->name());
    }
    return QStringLiteral("%1 disables %2").arg(target->name(), node->name());
}

} // namespace

QString RefusalReasons::whyRefused(const PowerGraph& graph, PowerTarget* target)
{
    // The first enabled target among what this one switches decides alone.
    for (const auto& dependency : target->orderedDependencies(VelaPowerNodeStates::enabled, false)) {
        auto* enabled = dynamic_cast<PowerTarget*>(dependency.first);
        if (!enabled || !enabled->isEnabled())
            continue;
        if (enabled->isReachable(target))
            return QString();
        const QStringList reachable = reachableFrom(graph, enabled);
        return QStringLiteral("%1 is enabled and its reachable list (%2) leaves out %3")
            .arg(enabled->name(), reachable.isEmpty() ? QStringLiteral("empty") : reachable.join(QStringLiteral(", ")),
                 target->name());
    }
    const QString manager = VelaPowerManagerName();
    for (const auto& dependency : target->orderedDependencies(VelaPowerNodeStates::enabled, true)) {
        PowerNode* node = dependency.first;
        if (dependency.second != VelaPowerNodeStates::disabled ||
            node->isStateReachable(VelaPowerNodeStates::disabled, manager, false))
            continue;
        QStringList holders;
        const QHash<QString, VelaPowerModuleActions::Enum> actions = node->moduleActions();
        for (auto it = actions.constBegin(); it != actions.constEnd(); ++it) {
            if (it.key() != manager && it.value() == VelaPowerModuleActions::hold)
                holders.append(it.key());
        }
        holders.sort();
        return QStringLiteral("%1 %2 %3 with hold, and %4; no enabled target lists %5 as reachable, which would "
                              "override the hold")
            .arg(holders.join(QStringLiteral(", ")), holders.size() == 1 ? "holds" : "hold", node->name(),
                 howDisabled(target, node), target->name());
    }
    return QString();
}

QString RefusalReasons::whyFailed(const PowerGraph& graph, const Scenario::Request& request)
{
    if (request.kind == Scenario::Request::Target)
        return whyRefused(graph, graph.target(request.name));
    if (request.module != VelaPowerManagerName() && !graph.description().module(request.module))
        return QStringLiteral("module %1 is not registered: the file does not declare it in \"modules\"")
            .arg(request.module);
    return QString();
}
