#ifndef VELA_FUZZ_FUZZEDGRAPH_H
#define VELA_FUZZ_FUZZEDGRAPH_H

#include "fuzzinput.h"

#include "PowerNode.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class FuzzedPlatform;
class PowerHandler;

/*
 * A small power graph that the input describes: up to six resources (each
 * with its own time-out, enable and disable writes, starting claims and
 * required resources), up to four targets (what each enables and disables,
 * which targets may follow it) and up to three modules besides the power
 * manager's own. Edges that the nodes refuse (cycles, conflicts) are part of
 * the input like any other; a node never gets an edge to itself, which is a
 * programming error of the service.
 *
 * The graph owns its nodes; it must outlive the handler they are registered
 * with.
 */
class FuzzedGraph
{
public:
    FuzzedGraph(FuzzInput& input, FuzzedPlatform& platform);
    FuzzedGraph(const FuzzedGraph&) = delete;
    FuzzedGraph& operator=(const FuzzedGraph&) = delete;

    void registerWith(PowerHandler& handler) const;

    const std::vector<PowerResource*>& resources() const;
    const std::vector<PowerTarget*>& targets() const;
    // The graph's own modules (the power manager's is not among them).
    const QStringList& modules() const;

private:
    void makeResources();
    void makeTargets();
    void makeModules();
    void wireResources();
    void wireTargets();
    void giveStartingClaims(PowerNode* node);
    static QString resourcePath(int index, const char* action);
    static QString modulePath(const QString& module, const char* kind);

    FuzzInput& m_input;
    FuzzedPlatform& m_platform;
    std::vector<std::unique_ptr<PowerNode>> m_owned;
    std::vector<PowerResource*> m_resources;
    std::vector<PowerTarget*> m_targets;
    QStringList m_modules;
    QStringList m_revokePaths;
    QStringList m_postRevokePaths;
    bool m_powerManagerRegistered = true;
};

#endif
