#ifndef VELA_POWERGRAPH_SNAPSHOT_H
#define VELA_POWERGRAPH_SNAPSHOT_H

#include <QByteArray>
#include <QHash>
#include <QMap>
#include <QString>
#include <QVariantHash>

/*
 * The state of every node as the handler's listNodes() gives it, written as
 * JSON and read back (to colour a drawing, say):
 *
 *   {"targets": {NAME: {"isEnabled": BOOL, "actions": {MODULE: ACTION}}},
 *    "resources": {...}}
 */
struct GraphSnapshot {
    // A node as a snapshot shows it.
    struct NodeState {
        bool enabled = false;
        // Module and its action, for the modules that hold or use the node.
        QMap<QString, QString> claims;
    };

    // Nodes by name, one table for resources and one for targets (a
    // resource and a target may share a name).
    QHash<QString, NodeState> resources;
    QHash<QString, NodeState> targets;

    // `nodes` (listNodes()) as indented JSON.
    static QByteArray json(const QVariantHash& nodes);
    // `nodes` with every hash in it made a map, ordered by key (D-Bus and
    // JSON take maps).
    static QVariantMap toMap(const QVariantHash& nodes);
    // Reads a snapshot's JSON; on failure says what is wrong in `*problem`.
    static bool read(const QByteArray& json, GraphSnapshot* snapshot, QString* problem);
};

#endif
