#ifndef VELA_TESTS_GRAPH_TEST_NODES_H
#define VELA_TESTS_GRAPH_TEST_NODES_H

#include "PowerNode.h"

#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <string>

/*
 * Node kinds for the graph tests.
 *
 * The graph queries read a node's state but only the state machine changes
 * it; these subclasses set it directly so that a test can place a graph in
 * any state without running transitions. Each can also answer type() with
 * another kind than its class, to tell the tests that classify nodes by
 * type() from those that classify them by their class.
 */

struct TestResource : PowerResource {
    using PowerResource::PowerResource;
    void forceState(VelaPowerNodeStates::Enum state) { m_state = state; }
};

struct TestTarget : PowerTarget {
    explicit TestTarget(VelaPowerManagerTargets::Enum target, PowerNodeType reported = PowerNodeType::PowerTarget)
        : PowerTarget(target)
        , m_reported(reported)
    {
    }
    void forceState(VelaPowerNodeStates::Enum state) { m_state = state; }
    PowerNodeType type() const override { return m_reported; }

private:
    PowerNodeType m_reported;
};

// A node of the base kind: its own switching step succeeds at once.
struct TestNode : PowerNode {
    explicit TestNode(const QString& name, PowerNodeType reported = PowerNodeType::PowerNode)
        : PowerNode(name)
        , m_reported(reported)
    {
    }
    CMReply<void> onEnableAction() override { return done(); }
    CMReply<void> onDisableAction() override { return done(); }
    PowerNodeType type() const override { return m_reported; }
    void forceState(VelaPowerNodeStates::Enum state) { m_state = state; }

private:
    static CMReply<void> done()
    {
        CMReply<void> reply;
        reply.setValue();
        return reply;
    }
    PowerNodeType m_reported;
};

inline VelaPowerManagerResources::Enum resourceValue(int value)
{
    return static_cast<VelaPowerManagerResources::Enum>(value);
}

inline VelaPowerManagerTargets::Enum targetValue(int value)
{
    return static_cast<VelaPowerManagerTargets::Enum>(value);
}

// Readable forms for failure messages.
inline std::string namesOf(const QList<PowerNode*>& nodes)
{
    QStringList names;
    for (const PowerNode* node : nodes)
        names << node->name();
    return ("[" + names.join(QStringLiteral(", ")) + "]").toStdString();
}

inline std::string namesOf(const QSet<PowerNode*>& nodes)
{
    QStringList names;
    for (const PowerNode* node : nodes)
        names << node->name();
    names.sort();
    return ("{" + names.join(QStringLiteral(", ")) + "}").toStdString();
}

inline std::string namesOf(const PowerNode::DependencyList& list)
{
    QStringList names;
    for (const auto& entry : list)
        names << entry.first->name() + "/" + QString::number(entry.second);
    return ("[" + names.join(QStringLiteral(", ")) + "]").toStdString();
}

inline std::string namesOf(const QHash<PowerNode*, VelaPowerNodeStates::Enum>& map)
{
    QStringList names;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        names << it.key()->name() + "/" + QString::number(it.value());
    names.sort();
    return ("{" + names.join(QStringLiteral(", ")) + "}").toStdString();
}

#endif
