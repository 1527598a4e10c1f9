#ifndef VELA_POWERNODEGRAPH_P_H
#define VELA_POWERNODEGRAPH_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the installed interface. It exists for the
// implementation of PowerNode and for the tests that check its walks.
//

#include "PowerNode.h"

#include <QList>
#include <QSet>
#include <QString>

/*
 * The walks behind the graph queries and the reachability questions.
 *
 * The queries are defined recursively (a node's list is its direct edges
 * followed by each direct dependency's own list, merged without repeats), and
 * computed literally that recursion visits a shared sub-graph once per path:
 * exponential in a ladder of diamonds, and as deep as the graph. These walks
 * give the same results in time linear in the reached sub-graph, on explicit
 * stacks, so a long chain costs heap and never call stack:
 *  - the recursive set is the closure over the edges, where targets are
 *    listed but never expanded;
 *  - the recursive ordered list is the first-occurrence order of the
 *    depth-first expansion: direct edges first, then each non-target direct
 *    node's expansion in set order. A node expanded once has had all of its
 *    list appended already, so expanding it again would append nothing and
 *    is skipped;
 *  - the wiring checks ask whether one node is in another's closure; they
 *    search from both ends at once and stop when one side is exhausted;
 *  - a reachability question asks the same dependencies in the same order as
 *    the recursive rule, one (node, state) pair at a time, and keeps every
 *    answer for the rest of the question.
 *
 * Nothing here logs: the records of the nodes stay with PowerNode's source.
 */
class PowerNodeGraph
{
public:
    enum class Direction { Required, RequiredBy };
    // Which of the two reachability rules a node follows.
    enum class ReachabilityRule { Node, Target };

    static const QSet<PowerNode*>& edges(const PowerNode* node, Direction direction);

    // Everything reached from `root` along `direction`, not expanding targets.
    static QSet<PowerNode*> closure(const PowerNode* root, Direction direction);
    // Whether `wanted` is in closure(root, direction), by the two-way search
    // described in the source; it costs about twice the smaller side.
    static bool closureContains(const PowerNode* root, Direction direction, const PowerNode* wanted);

    // Inserts `node` into `edges`; false when it stood there already.
    static bool insertEdge(QSet<PowerNode*>& edges, PowerNode* node);
    // Counts `holder` as one more node holding an edge to the node whose
    // counter `holders` is. Targets are not counted: the walks never pass
    // through one. The count stops at tooManyHolders.
    static void countHolder(const PowerNode* holder, quint16& holders);
    static constexpr quint16 tooManyHolders = 0xFFFF;
    // How many nodes, targets left out, hold `node` in their `direction` set.
    static quint16 holderCount(const PowerNode* node, Direction direction);
    // The same nodes as closure(), in the order of the recursive definition.
    static QList<PowerNode*> orderedClosure(const PowerNode* root, Direction direction);

    // The answer of `node`'s isStateReachable() under `rule`.
    static bool isStateReachable(const PowerNode* node, VelaPowerNodeStates::Enum state, const QString& module,
                                 bool recursive, ReachabilityRule rule);
};

#endif
