#ifndef VELA_POWERSIM_SIMULATEDPLATFORM_H
#define VELA_POWERSIM_SIMULATEDPLATFORM_H

#include "graphfile.h"
#include "platformcall.h"

#include "cmpath.h"
#include "cmreply.h"

#include <QObject>
#include <QSet>
#include <QVector>

#include <functional>

/*
 * Stands in for the platform's modules: registers a root-worker handler for
 * every data path the graph writes and every revoke path its modules name,
 * reports each call, and what became of it, to a listener, and answers it as
 * the answer policy says:
 *  - AsTheFileSays: as the scenario's "platform" entry for the path says (at
 *    once by default, after a delay, with an error, never, or not at all
 *    because the path is absent from the object tree);
 *  - AtOnce: every call at once, with success;
 *  - ByCaller: not by itself: every call waits in pending() until the caller
 *    answers, refuses or drops it (a search over the orders of answers
 *    chooses so).
 *
 *   SimulatedPlatform platform(file, SimulatedPlatform::Answering::ByCaller, listener);
 *   ... the library writes ...
 *   platform.answer(0);                 // the oldest pending call succeeds
 */
class SimulatedPlatform
{
public:
    enum class Answering { AsTheFileSays, AtOnce, ByCaller };
    using Listener = std::function<void(PlatformCall::Step step, const PlatformCall& call)>;
    struct PendingCall {
        PlatformCall call;
        CMReply<QVariant> reply;
        // What a successful answer carries: a write's value.
        QVariant value;
    };

    SimulatedPlatform(const GraphFile& file, Answering answering, Listener listener);
    ~SimulatedPlatform();
    SimulatedPlatform(const SimulatedPlatform&) = delete;
    SimulatedPlatform& operator=(const SimulatedPlatform&) = delete;

    // ByCaller: the calls not answered yet, in the order they arrived.
    const QVector<PendingCall>& pending() const { return m_pending; }
    // Answers pending call `index` with success, with `error`, or never
    // (it is dropped, and the library's time-out, if any, decides).
    void answer(int index);
    void refuse(int index, const QString& error);
    void drop(int index);

private:
    bool servesNewPath(const QString& path, QSet<CMPath>* paths) const;
    PendingCall takePending(int index);
    void addDataPath(const QString& path);
    void addInvokePath(const QString& path);
    Scenario::Answer answerFor(const QString& path) const;
    void take(PlatformCall call, const Scenario::Answer& answer, const CMReply<QVariant>& reply, const QVariant& value);

    const GraphFile& m_file;
    Answering m_answering;
    Listener m_listener;
    CallOwners m_owners;
    QSet<CMPath> m_dataPaths;
    QSet<CMPath> m_invokePaths;
    QVector<PendingCall> m_pending;
    // The timers of late answers go with the platform: once it is gone it
    // answers and reports nothing more.
    QObject m_delayedAnswers;
};

#endif
