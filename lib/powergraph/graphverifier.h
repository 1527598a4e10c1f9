#ifndef VELA_POWERGRAPH_GRAPHVERIFIER_H
#define VELA_POWERGRAPH_GRAPHVERIFIER_H

#include "finding.h"
#include "graphfile.h"

#include <QHash>
#include <QList>
#include <QString>

#include <vector>

/*
 * Checks a loaded graph file without running it and says what the library
 * would refuse or silently ignore, and what is probably not what the author
 * meant:
 *
 *   const QList<Finding> findings = GraphVerifier(file).findings();
 *
 * Findings come in file order. The work is a fixed number of passes over the
 * resources and edges, plus one walk per target for the checks that depend
 * on what each target switches; nothing is searched pairwise.
 */
class GraphVerifier
{
public:
    explicit GraphVerifier(const GraphFile& file);

    QList<Finding> findings() const;
    // The errors among them, one line each, as a program that refuses the
    // graph prints them: "graph.json:3:7: error: cycle: ...".
    QStringList errorLines(const QString& fileName) const;

private:
    struct Edge {
        int to;
        TextPlace place;
    };
    // What a target's list names, as resource indices; the entries that name
    // the target itself are left out (they are self-references).
    struct TargetEdges {
        QList<int> enables;
        QList<int> disables;
        QList<TextPlace> disablePlaces;
    };

    void index();
    void add(Finding::Code code, const QStringList& nodes, const TextPlace& place, const QString& message);
    QString resourceName(int index) const;

    void checkSelfEdgesAndDuplicates();
    void checkDuplicates(const GraphFile::ReferenceList& list, const QString& owner, const char* listName);
    void checkCycles();
    void reportCycle(const std::vector<int>& path, int from, const Edge& edge);
    void checkConflicts();
    void checkSelfReferences();
    void checkModules();
    void checkUnreachableTargets();
    void checkBlockedTargets();
    void checkUntouchedResources();
    void checkSilentUse();
    void checkNameClashes();
    void checkDormantClaims();
    void checkControls();
    void checkControl(const QString& path, const GraphFile::Control& control);

    // Calls visit(target, its edges, a parent array for walk()) per target.
    template <typename Visit>
    void forEachTarget(Visit visit);
    // Every resource reached from `starts` along `edges`, in the order
    // reached, each once; `parent` gets the resource each was reached from
    // (-1 for a start). Marks them with a fresh stamp, returned in `stamp`.
    std::vector<int> walk(const QList<int>& starts, const std::vector<std::vector<Edge>>& edges,
                          std::vector<int>* parent, int* stamp);

    const GraphFile& m_file;
    QHash<QString, int> m_resourceIndex;
    QHash<QString, int> m_targetIndex;
    std::vector<std::vector<Edge>> m_requires;
    std::vector<std::vector<Edge>> m_requiredBy;
    std::vector<TargetEdges> m_targetEdges;
    std::vector<int> m_stamps;
    int m_lastStamp = 0;
    QList<Finding> m_findings;
};

#endif
