#ifndef VELA_POWERGRAPH_REFUSALREASONS_H
#define VELA_POWERGRAPH_REFUSALREASONS_H

#include "graphfile.h"

#include <QString>

class PowerGraph;
class PowerTarget;

/*
 * Plain reasons, read from the library's state, for a refused target switch
 * and for a failed or refused request; empty when none is known. Nothing is
 * decided here: which modules claim a node and how, what a target's
 * reachable list holds and whether a node may change state for a module are
 * all asked of the library's nodes.
 */
class RefusalReasons
{
public:
    static QString whyRefused(const PowerGraph& graph, PowerTarget* target);
    static QString whyFailed(const PowerGraph& graph, const Scenario::Request& request);
};

#endif
