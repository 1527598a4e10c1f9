#include "simulatedplatform.h"

#include "timeline.h"

#include "cmrootworker.h"
#include "dbglog.h"

#include <QStringList>
#include <QTimer>

#include <sstream>

namespace {

// Revoke messages list resources as integers; the timeline names them.
QString describe(const VelaHash& message)
{
    VelaHash readable = message;
    const QString revoked = QStringLiteral("revokeResources");
    if (readable.contains(revoked)) {
        QStringList names;
        for (const QVariant& value : readable.value(revoked).toList())
            names << VelaPowerManagerResources::toString(static_cast<VelaPowerManagerResources::Enum>(value.toInt()));
        readable.insert(revoked, names);
    }
    std::ostringstream text;
    text << readable;
    return QString::fromStdString(text.str());
}

// Answers `reply` as `answer` says, telling the timeline when the answer is
// not immediate.
void answer(const GraphFile::Answer& answer, const CMReply<QVariant>& reply, const QVariant& value,
            const QString& what, Timeline& timeline)
{
    switch (answer.kind) {
    case GraphFile::Answer::Immediate:
        reply.setValue(value);
        return;
    case GraphFile::Answer::Error:
        timeline.add("fails", what + ": " + answer.error);
        reply.setError(CMError(QStringLiteral("org.vela.Simulation.Error"), TrString(answer.error)));
        return;
    case GraphFile::Answer::Delayed:
        QTimer::singleShot(answer.delayMs, [reply, value, what, &timeline]() {
            timeline.add("answered", what);
            reply.setValue(value);
        });
        return;
    case GraphFile::Answer::Never:
    case GraphFile::Answer::Absent:
        timeline.add("ignored", what);
        return;
    }
}

} // namespace

SimulatedPlatform::SimulatedPlatform(const GraphFile& graph, Timeline& timeline)
    : m_graph(graph)
    , m_timeline(timeline)
{
    for (const GraphFile::Resource& resource : graph.resources) {
        for (const GraphFile::Write* write : {&resource.enable, &resource.disable}) {
            if (write->present)
                addDataPath(write->path);
        }
    }
    for (const GraphFile::Module& module : graph.modules) {
        for (const QString& path : {module.revokePath, module.postRevokePath}) {
            if (!path.isEmpty())
                addInvokePath(path);
        }
    }
}

SimulatedPlatform::~SimulatedPlatform()
{
    CMRootWorker* root = CMRootWorker::instance();
    for (const CMPath& path : qAsConst(m_dataPaths))
        root->unregisterSetDataHandler(path);
    for (const CMPath& path : qAsConst(m_invokePaths))
        root->unregisterInvokeHandler(path);
}

GraphFile::Answer SimulatedPlatform::answerFor(const QString& path) const
{
    return m_graph.platform.value(path);
}

void SimulatedPlatform::addDataPath(const QString& path)
{
    const GraphFile::Answer behaviour = answerFor(path);
    if (behaviour.kind == GraphFile::Answer::Absent || m_dataPaths.contains(CMPath(path)))
        return;
    m_dataPaths.insert(CMPath(path));
    Timeline& timeline = m_timeline;
    CMRootWorker::instance()->registerSetDataHandler(
        CMPath(path), [behaviour, &timeline](const CMPath& target, const QString& key, const QVariant& value,
                                             CMReply<QVariant> reply) {
            const QString what = target.toString() + " " + key + " = " + value.toString();
            timeline.add("write", what);
            answer(behaviour, reply, value, what, timeline);
        });
}

void SimulatedPlatform::addInvokePath(const QString& path)
{
    const GraphFile::Answer behaviour = answerFor(path);
    if (behaviour.kind == GraphFile::Answer::Absent || m_invokePaths.contains(CMPath(path)))
        return;
    m_invokePaths.insert(CMPath(path));
    Timeline& timeline = m_timeline;
    CMRootWorker::instance()->registerInvokeHandler(
        CMPath(path), [behaviour, &timeline](const CMPath& target, const VelaHash& message, CMReply<QVariant> reply) {
            const QString what = target.toString() + " " + describe(message);
            timeline.add("message", what);
            answer(behaviour, reply, QVariant(), what, timeline);
        });
}
