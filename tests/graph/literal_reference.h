#ifndef VELA_TESTS_GRAPH_LITERAL_REFERENCE_H
#define VELA_TESTS_GRAPH_LITERAL_REFERENCE_H

#include "PowerNode.h"

#include <QHash>
#include <QList>
#include <QPair>
#include <QSet>
#include <QString>

/*
 * The graph queries computed the slow, obvious way, for comparison with the
 * library: every query recurses exactly as it is defined, recomputes a shared
 * sub-graph once per path that reaches it, copies the containers it reads
 * and merges lists with a linear search. The differential test checks that
 * the library gives identical answers; the benchmark measures the gap.
 *
 * Everything about a node is read through the library's plain accessors:
 * edges with requiredNodes(false) / requiredByNodes(false) (set order is the
 * order of those sets), the state with state(), module actions with
 * moduleActions(), reachable targets with isReachable(). Where the library
 * dispatches virtually, this code dispatches on the node's class
 * (dynamic_cast to PowerTarget); the "do not descend into targets" skip uses
 * type(), and the enabled-target rule uses the class, as the library's rules
 * say.
 *
 * Some graphs make these definitions recurse without end (for instance a
 * node that requires a target which enables it, asked whether it can be
 * enabled). Without a repeated call on the stack the depth of any query is
 * bounded by ten times the number of nodes (two reachability rules times five
 * states per node); past that bound the reference gives up and diverged()
 * becomes true. Such a query has no answer to compare against.
 */
class LiteralGraph
{
public:
    using State = VelaPowerNodeStates::Enum;
    using DependencyMap = QHash<PowerNode*, VelaPowerNodeStates::Enum>;

    explicit LiteralGraph(int nodeCount)
        : m_maxDepth(10 * nodeCount + 16)
    {
    }

    bool diverged() const { return m_diverged; }
    void reset()
    {
        m_diverged = false;
        m_depth = 0;
    }

    QSet<PowerNode*> requiredNodes(const PowerNode* node, bool recursive) { return closure(node, true, recursive); }
    QSet<PowerNode*> requiredByNodes(const PowerNode* node, bool recursive)
    {
        return closure(node, false, recursive);
    }
    QList<PowerNode*> orderedRequiredNodes(const PowerNode* node, bool recursive)
    {
        return ordered(node, true, recursive);
    }
    QList<PowerNode*> orderedRequiredByNodes(const PowerNode* node, bool recursive)
    {
        return ordered(node, false, recursive);
    }

    // Appends each element of `source`, in order, that `destination` does
    // not hold yet, searching the destination linearly.
    static void appendMissing(const QList<PowerNode*>& source, QList<PowerNode*>& destination)
    {
        for (PowerNode* node : source) {
            bool present = false;
            for (PowerNode* held : destination) {
                if (held == node) {
                    present = true;
                    break;
                }
            }
            if (!present)
                destination.append(node);
        }
    }

    DependencyMap dependencies(const PowerNode* node, State state, bool recursive)
    {
        DependencyMap result;
        if (asTarget(node)) {
            if (state == VelaPowerNodeStates::disabled)
                return result;
            for (PowerNode* required : requiredNodes(node, recursive))
                result.insert(required, VelaPowerNodeStates::enabled);
            for (PowerNode* dependant : requiredByNodes(node, recursive))
                result.insert(dependant, VelaPowerNodeStates::disabled);
            return result;
        }
        if (state == VelaPowerNodeStates::enabled) {
            for (PowerNode* required : requiredNodes(node, recursive))
                result.insert(required, VelaPowerNodeStates::enabled);
        } else if (state == VelaPowerNodeStates::disabled) {
            for (PowerNode* dependant : requiredByNodes(node, recursive))
                result.insert(dependant, VelaPowerNodeStates::disabled);
        }
        return result;
    }

    PowerNode::DependencyList orderedDependencies(const PowerNode* node, State state, bool recursive)
    {
        PowerNode::DependencyList result;
        if (asTarget(node)) {
            if (state == VelaPowerNodeStates::disabled)
                return result;
            for (PowerNode* required : orderedRequiredNodes(node, recursive))
                result.append(qMakePair(required, VelaPowerNodeStates::enabled));
            for (PowerNode* dependant : orderedRequiredByNodes(node, recursive))
                result.append(qMakePair(dependant, VelaPowerNodeStates::disabled));
            return result;
        }
        if (state == VelaPowerNodeStates::enabled) {
            for (PowerNode* required : orderedRequiredNodes(node, recursive))
                result.append(qMakePair(required, VelaPowerNodeStates::enabled));
        } else if (state == VelaPowerNodeStates::disabled) {
            for (PowerNode* dependant : orderedRequiredByNodes(node, recursive))
                result.append(qMakePair(dependant, VelaPowerNodeStates::disabled));
        }
        return result;
    }

    // The virtual isStateReachable: the target rule for targets, the base
    // rule for every other node.
    bool isStateReachable(const PowerNode* node, State state, const QString& module, bool recursive)
    {
        if (const PowerTarget* target = asTarget(node))
            return targetIsStateReachable(target, state, module, recursive);
        return nodeIsStateReachable(node, state, module, recursive);
    }

    bool nodeIsStateReachable(const PowerNode* node, State state, const QString& module, bool recursive)
    {
        Depth depth(*this);
        if (depth.exceeded())
            return false;
        QHash<QString, VelaPowerModuleActions::Enum> others = node->moduleActions();
        if (!module.isEmpty())
            others.remove(module);
        bool held = false;
        for (VelaPowerModuleActions::Enum action : others) {
            if (action == VelaPowerModuleActions::hold)
                held = true;
        }
        if (held && state != VelaPowerNodeStates::enabled && state != node->state())
            return false;
        if (!recursive)
            return true;
        for (const auto& dependency : orderedDependencies(node, state, false)) {
            if (!isStateReachable(dependency.first, dependency.second, module, recursive))
                return false;
        }
        return true;
    }

    bool targetIsStateReachable(const PowerTarget* target, State state, const QString& module, bool recursive)
    {
        Depth depth(*this);
        if (depth.exceeded())
            return false;
        for (const auto& dependency : orderedDependencies(target, state, false)) {
            PowerTarget* other = dynamic_cast<PowerTarget*>(dependency.first);
            if (other && other->state() == VelaPowerNodeStates::enabled)
                return other->isReachable(target);
        }
        return nodeIsStateReachable(target, state, module, recursive);
    }

private:
    static const PowerTarget* asTarget(const PowerNode* node) { return dynamic_cast<const PowerTarget*>(node); }
    static bool skipped(const PowerNode* node) { return node->type() == PowerNodeType::PowerTarget; }
    static QSet<PowerNode*> direct(const PowerNode* node, bool required)
    {
        return required ? node->requiredNodes(false) : node->requiredByNodes(false);
    }

    class Depth
    {
    public:
        explicit Depth(LiteralGraph& graph)
            : m_graph(graph)
        {
            if (++m_graph.m_depth > m_graph.m_maxDepth)
                m_graph.m_diverged = true;
        }
        ~Depth() { --m_graph.m_depth; }
        Depth(const Depth&) = delete;
        Depth& operator=(const Depth&) = delete;
        bool exceeded() const { return m_graph.m_diverged; }

    private:
        LiteralGraph& m_graph;
    };

    QSet<PowerNode*> closure(const PowerNode* node, bool required, bool recursive)
    {
        Depth depth(*this);
        if (depth.exceeded())
            return {};
        const QSet<PowerNode*> edges = direct(node, required);
        QSet<PowerNode*> result = edges;
        if (!recursive)
            return result;
        for (PowerNode* next : edges) {
            if (skipped(next))
                continue;
            for (PowerNode* further : closure(next, required, true))
                result.insert(further);
            if (m_diverged)
                return {};
        }
        return result;
    }

    QList<PowerNode*> ordered(const PowerNode* node, bool required, bool recursive)
    {
        Depth depth(*this);
        if (depth.exceeded())
            return {};
        const QSet<PowerNode*> edges = direct(node, required);
        QList<PowerNode*> result;
        for (PowerNode* next : edges)
            result.append(next);
        if (!recursive)
            return result;
        for (PowerNode* next : edges) {
            if (skipped(next))
                continue;
            appendMissing(ordered(next, required, true), result);
            if (m_diverged)
                return {};
        }
        return result;
    }

    int m_maxDepth;
    int m_depth = 0;
    bool m_diverged = false;
};

#endif
