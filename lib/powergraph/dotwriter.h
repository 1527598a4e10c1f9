#ifndef VELA_POWERGRAPH_DOTWRITER_H
#define VELA_POWERGRAPH_DOTWRITER_H

#include "graphfile.h"
#include "snapshot.h"

#include <QHash>
#include <QMap>
#include <QString>

/*
 * A graph file as a Graphviz picture (DOT text):
 *
 *   DotWriter writer(file);
 *   writer.setSnapshot(states);   // optional: colour nodes by their state
 *   const QString dot = writer.dot();
 *
 * Resources are ellipses and targets rounded boxes, all targets on one rank
 * at the top so that a large graph reads from its modes down through its
 * dependency chains. Each kind of edge has a style of its own, explained by a
 * legend under the picture; the legend is the graph's label, not nodes, so
 * that the picture has exactly one node per node of the file.
 */
class DotWriter
{
public:
    using NodeState = GraphSnapshot::NodeState;
    using Snapshot = GraphSnapshot;

    // Edge styles, one per kind of edge.
    static const char* const requiresStyle;
    static const char* const enablesStyle;
    static const char* const disablesStyle;
    static const char* const reachableStyle;
    // Fill colours of nodes in a snapshot: enabled, disabled (or never
    // switched: a snapshot cannot tell them apart), absent from the snapshot.
    static const char* const enabledColour;
    static const char* const disabledColour;
    static const char* const unknownColour;

    explicit DotWriter(const GraphFile& file);

    void setSnapshot(const Snapshot& snapshot);
    QString dot() const;

    // `text` as a DOT quoted string: quotes and backslashes escaped, so that
    // neither a name's quote ends the string nor its backslash starts one of
    // Graphviz's label escapes.
    static QString quoted(const QString& text);

private:
    QString resourceId(const QString& name) const;
    QString targetId(const QString& name) const;
    // The node a target's enables or disables entry names: a resource of
    // that name, else the target itself (as the library wires it).
    QString targetEdgeEnd(const GraphFile::Target& target, const QString& name) const;
    QString nodeStatement(const QString& id, const QString& name, const char* shape,
                          const QHash<QString, NodeState>& states) const;
    QString edges() const;
    static QString legend(bool withStates);

    const GraphFile& m_file;
    Snapshot m_snapshot;
    bool m_hasSnapshot = false;
};

#endif
