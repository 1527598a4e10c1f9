#include "simulatedplatform.h"

#include "cmrootworker.h"
#include "dbglog.h"

#include <QStringList>
#include <QTimer>

#include <sstream>

namespace {

// Answers `reply` as `answer` says, telling the listener when the answer is
// not immediate.
void answer(const GraphFile::Answer& answer, const CMReply<QVariant>& reply, const QVariant& value,
            const QString& what, const SimulatedPlatform::Call& call, const SimulatedPlatform::Listener& listener)
{
    switch (answer.kind) {
    case GraphFile::Answer::Immediate:
        reply.setValue(value);
        return;
    case GraphFile::Answer::Error:
        listener("fails", what + ": " + answer.error, call);
        reply.setError(CMError(QStringLiteral("org.vela.Simulation.Error"), TrString(answer.error)));
        return;
    case GraphFile::Answer::Delayed:
        QTimer::singleShot(answer.delayMs, [reply, value, what, call, listener]() {
            listener("answered", what, call);
            reply.setValue(value);
        });
        return;
    case GraphFile::Answer::Never:
    case GraphFile::Answer::Absent:
        listener("ignored", what, call);
        return;
    }
}

} // namespace

QStringList SimulatedPlatform::revokedResources(const VelaHash& message)
{
    QStringList names;
    for (const QVariant& value : message.value(QStringLiteral("revokeResources")).toList())
        names << VelaPowerManagerResources::toString(static_cast<VelaPowerManagerResources::Enum>(value.toInt()));
    return names;
}

QString SimulatedPlatform::describe(const VelaHash& message)
{
    VelaHash readable = message;
    const QString revoked = QStringLiteral("revokeResources");
    if (readable.contains(revoked))
        readable.insert(revoked, revokedResources(message));
    std::ostringstream text;
    text << readable;
    return QString::fromStdString(text.str());
}

SimulatedPlatform::SimulatedPlatform(const GraphFile& graph, Answering answering, Listener listener)
    : m_graph(graph)
    , m_answering(answering)
    , m_listener(std::move(listener))
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
    if (m_answering == Answering::AtOnce)
        return GraphFile::Answer();
    return m_graph.platform.value(path);
}

void SimulatedPlatform::addDataPath(const QString& path)
{
    const GraphFile::Answer behaviour = answerFor(path);
    if (behaviour.kind == GraphFile::Answer::Absent || m_dataPaths.contains(CMPath(path)))
        return;
    m_dataPaths.insert(CMPath(path));
    const Listener listener = m_listener;
    CMRootWorker::instance()->registerSetDataHandler(
        CMPath(path), [behaviour, listener](const CMPath& target, const QString& key, const QVariant& value,
                                            CMReply<QVariant> reply) {
            const Call call{Call::Write, target.toString(), key, value, VelaHash()};
            const QString what = target.toString() + " " + key + " = " + value.toString();
            listener("write", what, call);
            answer(behaviour, reply, value, what, call, listener);
        });
}

void SimulatedPlatform::addInvokePath(const QString& path)
{
    const GraphFile::Answer behaviour = answerFor(path);
    if (behaviour.kind == GraphFile::Answer::Absent || m_invokePaths.contains(CMPath(path)))
        return;
    m_invokePaths.insert(CMPath(path));
    const Listener listener = m_listener;
    CMRootWorker::instance()->registerInvokeHandler(
        CMPath(path), [behaviour, listener](const CMPath& target, const VelaHash& message, CMReply<QVariant> reply) {
            const Call call{Call::Message, target.toString(), QString(), QVariant(), message};
            const QString what = target.toString() + " " + describe(message);
            listener("message", what, call);
            answer(behaviour, reply, QVariant(), what, call, listener);
        });
}
