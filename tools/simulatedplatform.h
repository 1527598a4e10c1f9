#ifndef VELA_TOOLS_SIMULATEDPLATFORM_H
#define VELA_TOOLS_SIMULATEDPLATFORM_H

#include "graphfile.h"

#include "cmpath.h"

#include <QSet>

class Timeline;

/*
 * Stands in for the platform's modules: registers a root-worker handler for
 * every data path the graph writes and every revoke path its modules name,
 * records each call on the timeline and answers it as the file says
 * (at once by default, after a delay, with an error, never, or not at all
 * because the path is absent from the object tree).
 */
class SimulatedPlatform
{
public:
    SimulatedPlatform(const GraphFile& graph, Timeline& timeline);
    ~SimulatedPlatform();
    SimulatedPlatform(const SimulatedPlatform&) = delete;
    SimulatedPlatform& operator=(const SimulatedPlatform&) = delete;

private:
    void addDataPath(const QString& path);
    void addInvokePath(const QString& path);
    GraphFile::Answer answerFor(const QString& path) const;

    const GraphFile& m_graph;
    Timeline& m_timeline;
    QSet<CMPath> m_dataPaths;
    QSet<CMPath> m_invokePaths;
};

#endif
