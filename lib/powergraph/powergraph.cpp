#include "powergraph.h"

#include "PowerHandler.h"
#include "PowerNode.h"

#include <QSet>

#include <algorithm>
#include <new>

namespace {

void destroyInPlace(PowerNode* node)
{
    node->~PowerNode();
}

void destroyOnHeap(PowerNode* node)
{
    delete node;
}

std::size_t arenaSize(const GraphSpec& file)
{
    // Room for the largest node type, with its alignment, for every node.
    const std::size_t slot =
        std::max(sizeof(PowerResource), sizeof(PowerTarget)) + std::max(alignof(PowerResource), alignof(PowerTarget));
    return slot * static_cast<std::size_t>(file.resources.size() + file.targets.size());
}

} // namespace

PowerGraph::PowerGraph(const GraphSpec& file)
    : m_file(file)
    , m_arena(arenaSize(file))
{
    m_owned.reserve(static_cast<size_t>(file.resources.size() + file.targets.size()));
    for (const GraphSpec::Resource& entry : file.resources)
        m_resources.insert(entry.name, makeResource(entry));
    for (const GraphSpec::Target& entry : file.targets)
        m_targets.insert(entry.name, makeTarget(entry));
    // Edges after all nodes exist; refused edges are logged by the nodes.
    for (const GraphSpec::Resource& entry : file.resources)
        wireResource(entry);
    for (const GraphSpec::Target& entry : file.targets)
        wireTarget(entry);
}

/*
 * A node goes before the nodes it holds edges to: a dependency that went
 * first would answer a dependant still waiting on it with an error, which
 * the dependant would log. The lookups stay valid meanwhile, for whoever
 * reads the library's records while the nodes go.
 */
PowerGraph::~PowerGraph()
{
    QHash<PowerNode*, std::size_t> slotOf;
    slotOf.reserve(static_cast<int>(m_owned.size()));
    for (std::size_t slot = 0; slot < m_owned.size(); ++slot)
        slotOf.insert(m_owned[slot].get(), slot);
    const std::vector<PowerNode*> order = dependenciesFirst();
    for (auto node = order.rbegin(); node != order.rend(); ++node)
        m_owned[slotOf.value(*node)].reset();
}

// A depth-first walk over the required edges, on an explicit stack (chains
// can be long), listing each node after every node it requires.
std::vector<PowerNode*> PowerGraph::dependenciesFirst() const
{
    struct Visit {
        PowerNode* node;
        QList<PowerNode*> required;
        int next;
    };
    std::vector<PowerNode*> order;
    order.reserve(m_owned.size());
    QSet<PowerNode*> seen;
    std::vector<Visit> walk;
    for (const OwnedNode& root : m_owned) {
        if (seen.contains(root.get()))
            continue;
        seen.insert(root.get());
        walk.push_back(Visit{root.get(), root->orderedRequiredNodes(false), 0});
        while (!walk.empty()) {
            Visit& top = walk.back();
            if (top.next == top.required.size()) {
                order.push_back(top.node);
                walk.pop_back();
                continue;
            }
            PowerNode* next = top.required.at(top.next++);
            if (seen.contains(next))
                continue;
            seen.insert(next);
            walk.push_back(Visit{next, next->orderedRequiredNodes(false), 0});
        }
    }
    return order;
}

void PowerGraph::registerWith(PowerHandler& handler) const
{
    // The power manager acts as a module for every target request.
    handler.registerModule(VelaPowerManagerModuleRegister(VelaPowerManagerName(), CMPath(), CMPath()));
    for (const GraphSpec::Module& module : m_file.modules)
        handler.registerModule(
            VelaPowerManagerModuleRegister(module.name, CMPath(module.revokePath), CMPath(module.postRevokePath)));
    for (const GraphSpec::Resource& entry : m_file.resources)
        handler.registerResource(m_resources.value(entry.name));
    for (const GraphSpec::Target& entry : m_file.targets)
        handler.registerTarget(m_targets.value(entry.name));
}

QList<GraphSpec::Reference> PowerGraph::skippedSelfEdges() const
{
    return m_skippedSelfEdges;
}

PowerResource* PowerGraph::resource(const QString& name) const
{
    return m_resources.value(name);
}

PowerTarget* PowerGraph::target(const QString& name) const
{
    return m_targets.value(name);
}

PowerNode* PowerGraph::node(const QString& name) const
{
    if (PowerResource* found = resource(name))
        return found;
    return target(name);
}

const GraphSpec& PowerGraph::description() const
{
    return m_file;
}

template <typename Node, typename... Arguments>
Node* PowerGraph::make(Arguments&&... arguments)
{
    void* place = m_arena.allocate(sizeof(Node), alignof(Node));
    Node* node = place ? new (place) Node(std::forward<Arguments>(arguments)...)
                       : new Node(std::forward<Arguments>(arguments)...);
    m_owned.emplace_back(node, place ? &destroyInPlace : &destroyOnHeap);
    return node;
}

PowerResource* PowerGraph::makeResource(const GraphSpec::Resource& entry)
{
    auto* resource = make<PowerResource>(entry.value, entry.timeoutMs);
    if (entry.enable.present)
        resource->setOnEnableActionRequest(
            CMSetDataRequest(CMPath(entry.enable.path), entry.enable.key, entry.enable.value));
    if (entry.disable.present)
        resource->setOnDisableActionRequest(
            CMSetDataRequest(CMPath(entry.disable.path), entry.disable.key, entry.disable.value));
    for (const GraphSpec::Claim& claim : entry.modules)
        resource->addModule(claim.module, claim.action);
    return resource;
}

PowerTarget* PowerGraph::makeTarget(const GraphSpec::Target& entry)
{
    return make<PowerTarget>(entry.value);
}

void PowerGraph::wireResource(const GraphSpec::Resource& entry)
{
    PowerResource* resource = m_resources.value(entry.name);
    for (const GraphSpec::Reference& required : entry.required) {
        if (required.name == entry.name) {
            m_skippedSelfEdges.append(required);
            continue;
        }
        resource->requiresResource(m_resources.value(required.name));
    }
}

// What a target's list names: a resource, or the target itself (an edge the
// library drops on its own, without harm, since a target's edges are stored
// on its side only).
PowerNode* PowerGraph::edgeEnd(const GraphSpec::Target& target, const QString& name) const
{
    PowerResource* found = resource(name);
    switch (GraphSpec::targetEdgeEnd(target, name, found != nullptr)) {
    case GraphSpec::EdgeEnd::Resource:
        return found;
    case GraphSpec::EdgeEnd::TargetItself:
        return this->target(name);
    case GraphSpec::EdgeEnd::Unknown:
        break;
    }
    return nullptr;
}

void PowerGraph::wireTarget(const GraphSpec::Target& entry)
{
    PowerTarget* target = m_targets.value(entry.name);
    for (const GraphSpec::Reference& name : entry.enables)
        target->requiresNode(edgeEnd(entry, name.name));
    for (const GraphSpec::Reference& name : entry.disables)
        target->requiredByNode(edgeEnd(entry, name.name));
    if (entry.reachableGiven) {
        QList<const PowerTarget*> reachable;
        for (const GraphSpec::Reference& name : entry.reachable)
            reachable.append(m_targets.value(name.name));
        target->setReachableTargets(reachable);
    }
}
