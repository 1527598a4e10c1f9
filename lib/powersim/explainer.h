#ifndef VELA_POWERSIM_EXPLAINER_H
#define VELA_POWERSIM_EXPLAINER_H

#include "graphfile.h"
#include "powergraph.h"
#include "simulatedplatform.h"

#include "PowerHandler.h"

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <memory>

class LibraryLogWatcher;

/*
 * Asks the library itself what it does with a graph, on a simulated
 * platform that answers every call at once, and says why:
 *
 *   Explainer explainer(file);
 *   explainer.startFrom("active");              // or startAfterScenario()
 *   const Explainer::Change change = explainer.switchTo("standby");
 *
 * Nothing here decides anything on its own: the answers are the library's
 * replies, the node changes are the state changes it logs, the writes and
 * revoke messages are the calls it makes, and the reasons are read from its
 * state (which modules claim a node and how, what a target's reachable list
 * holds, whether a node may change state for a module).
 */
class Explainer
{
public:
    struct NodeState {
        QString node;
        QString state;
        QMap<QString, QString> actions;
    };
    struct Write {
        QString path;
        QString key;
        QString value;
    };
    struct Revoke {
        QString module;
        QString path;
        QStringList resources;
    };
    // What one request did.
    struct Change {
        QString question;
        bool allowed = false;
        // The library's answer: "done" or its error message.
        QString answer;
        // Why a refused or failed request was refused, in plain words.
        QString reason;
        // Node and state, in the order the library logged them.
        QList<QPair<QString, QString>> transitions;
        // The nodes whose state or module actions changed, in the order they
        // first changed, as they are afterwards.
        QList<NodeState> nodes;
        QList<Write> writes;
        QList<Revoke> revokedBefore;
        QList<Revoke> revokedAfter;
    };
    // Why a node is in its state.
    struct NodeReport {
        QString node;
        QString kind;
        QString state;
        QMap<QString, QString> claims;
        QStringList lockedBy;
        QList<QPair<QString, QString>> requiredBy;
        QStringList enabledBy;
        QStringList enabledThrough;
        QStringList disabledBy;
        QStringList disabledThrough;
    };

    explicit Explainer(const GraphFile& file);
    ~Explainer();
    Explainer(const Explainer&) = delete;
    Explainer& operator=(const Explainer&) = delete;

    // Where the questions start: after a switch to `target` from the file's
    // starting state, or after the file's requests, made one after another.
    Change startFrom(const QString& target);
    void startAfterScenario();

    Change switchTo(const QString& target);
    Change request(const QString& resource, const QString& module, VelaPowerModuleActions::Enum action);
    NodeReport node(const QString& name) const;

private:
    Change ask(const QString& question, const Scenario::Request& request);
    // Sends and drives the event loop until the answer: "" on success,
    // else the error's message.
    QString sendAndWait(const Scenario::Request& request);
    QMap<QString, NodeState> snapshot() const;
    NodeState stateOf(const QString& name) const;

    const GraphFile& m_file;
    QList<PlatformCall> m_calls;
    QList<QPair<QString, QString>> m_transitions;
    std::unique_ptr<LibraryLogWatcher> m_log;
    SimulatedPlatform m_platform;
    PowerGraph m_graph;
    PowerHandler m_handler;
};

#endif
