#ifndef VELA_TOOLS_SIMULATEDPLATFORM_H
#define VELA_TOOLS_SIMULATEDPLATFORM_H

#include "graphfile.h"

#include "cmpath.h"
#include "velahash.h"

#include <QSet>

#include <functional>

/*
 * Stands in for the platform's modules: registers a root-worker handler for
 * every data path the graph writes and every revoke path its modules name,
 * reports each call to a listener and answers it as the file says (at once
 * by default, after a delay, with an error, never, or not at all because the
 * path is absent from the object tree), or always at once when asked to.
 */
class SimulatedPlatform
{
public:
    struct Call {
        enum Kind { Write, Message } kind = Write;
        QString path;
        // A write's key and value.
        QString key;
        QVariant value;
        // A revoke message.
        VelaHash message;
    };
    enum class Answering { AsTheFileSays, AtOnce };
    // `event` is "write" or "message" when a call arrives, then "fails",
    // "answered" (late) or "ignored" when it is not answered at once;
    // `text` describes the call for a person.
    using Listener = std::function<void(const char* event, const QString& text, const Call& call)>;

    SimulatedPlatform(const GraphFile& graph, Answering answering, Listener listener);
    ~SimulatedPlatform();
    SimulatedPlatform(const SimulatedPlatform&) = delete;
    SimulatedPlatform& operator=(const SimulatedPlatform&) = delete;

    // A revoke message's text with its resources named: the message itself
    // carries them as the enumeration's integers.
    static QString describe(const VelaHash& message);
    // The names of the resources a revoke message names.
    static QStringList revokedResources(const VelaHash& message);

private:
    void addDataPath(const QString& path);
    void addInvokePath(const QString& path);
    GraphFile::Answer answerFor(const QString& path) const;

    const GraphFile& m_graph;
    Answering m_answering;
    Listener m_listener;
    QSet<CMPath> m_dataPaths;
    QSet<CMPath> m_invokePaths;
};

#endif
