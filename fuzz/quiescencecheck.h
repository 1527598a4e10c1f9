#ifndef VELA_FUZZ_QUIESCENCECHECK_H
#define VELA_FUZZ_QUIESCENCECHECK_H

#include "requeststream.h"

#include <QVariantHash>

#include <string>

class FuzzedGraph;
class PowerHandler;
class PowerNode;

/*
 * What must hold once a run has gone quiet (nothing left in the event loop,
 * every write answered or timed out, every revoke message answered):
 *
 * - every caller was answered, and its continuation ran exactly once;
 * - the handler's queue is empty;
 * - no node is half-way through a transition (enabling or disabling);
 * - every enabled resource's required nodes are enabled;
 * - the snapshot (listNodes) names every registered node once, with the
 *   node's own enabled flag and module actions.
 *
 * A violation is a bug: it is printed with the callers' wishes and the
 * program aborts, which the fuzzer reports as a crash with its input.
 */
class QuiescenceCheck
{
public:
    QuiescenceCheck(const FuzzedGraph& graph, const PowerHandler& handler, const RequestStream& stream);

    void run() const;

private:
    void checkCallers() const;
    void checkQueue() const;
    void checkNodeStates() const;
    void checkRequiredNodes() const;
    void checkSnapshot() const;
    void checkNodeInfo(const QVariantHash& group, const QString& name, const PowerNode* node) const;
    [[noreturn]] void fail(const std::string& what) const;

    const FuzzedGraph& m_graph;
    const PowerHandler& m_handler;
    const RequestStream& m_stream;
};

#endif
