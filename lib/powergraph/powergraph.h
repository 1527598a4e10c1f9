#ifndef VELA_POWERGRAPH_POWERGRAPH_H
#define VELA_POWERGRAPH_POWERGRAPH_H

#include "graphfile.h"
#include "nodearena.h"

#include <QHash>
#include <QList>
#include <QString>

#include <memory>
#include <vector>

class PowerHandler;
class PowerNode;
class PowerResource;
class PowerTarget;

/*
 * The library's nodes for a loaded graph file, wired as the file says and
 * owned here for as long as the handler they are registered with:
 *
 *   PowerGraph graph(file);      // nodes made, edges wired
 *   PowerHandler handler;
 *   graph.registerWith(handler); // modules, resources, targets
 *
 * A resource that requires itself is never handed to the library (its edge
 * operations would stop the process): such edges are skipped and listed in
 * skippedSelfEdges(). Every other edge is handed over as written, so the
 * library's own refusals (cycles, conflicts) show in its log.
 *
 * Nodes are placed in a NodeArena in the file's order, so that the library
 * orders simultaneous actions the same way on every run of a graph.
 */
class PowerGraph
{
public:
    explicit PowerGraph(const GraphSpec& graph);
    ~PowerGraph();
    PowerGraph(const PowerGraph&) = delete;
    PowerGraph& operator=(const PowerGraph&) = delete;

    // Registers the power manager's own module, the file's modules, its
    // resources and then its targets (which thereby exclude one another).
    void registerWith(PowerHandler& handler) const;

    // The requires entries of resources that name the resource itself.
    QList<GraphSpec::Reference> skippedSelfEdges() const;

    PowerResource* resource(const QString& name) const;
    PowerTarget* target(const QString& name) const;
    // A resource, else a target, of that name; null when neither.
    PowerNode* node(const QString& name) const;
    // The graph as its file describes it: what the nodes were made from.
    const GraphSpec& description() const;

private:
    PowerResource* makeResource(const GraphSpec::Resource& entry);
    PowerTarget* makeTarget(const GraphSpec::Target& entry);
    void wireResource(const GraphSpec::Resource& entry);
    void wireTarget(const GraphSpec::Target& entry);
    PowerNode* edgeEnd(const GraphSpec::Target& target, const QString& name) const;
    template <typename Node, typename... Arguments>
    Node* make(Arguments&&... arguments);
    std::vector<PowerNode*> dependenciesFirst() const;

    using OwnedNode = std::unique_ptr<PowerNode, void (*)(PowerNode*)>;

    const GraphSpec& m_file;
    // Before the nodes: they live in it and are destroyed first.
    NodeArena m_arena;
    std::vector<OwnedNode> m_owned;
    QHash<QString, PowerResource*> m_resources;
    QHash<QString, PowerTarget*> m_targets;
    QList<GraphSpec::Reference> m_skippedSelfEdges;
};

#endif
