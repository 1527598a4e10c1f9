#include "simulatedplatform.h"

#include "cmrootworker.h"

#include <QTimer>

namespace {

CMError simulatedError(const QString& message)
{
    return CMError(QStringLiteral("org.vela.Simulation.Error"), TrString(message));
}

} // namespace

SimulatedPlatform::SimulatedPlatform(const GraphFile& file, Answering answering, Listener listener)
    : m_file(file)
    , m_answering(answering)
    , m_listener(std::move(listener))
    , m_owners(file)
{
    for (const GraphSpec::Resource& resource : file.resources) {
        for (const GraphSpec::Write* write : {&resource.enable, &resource.disable}) {
            if (write->present)
                addDataPath(write->path);
        }
    }
    for (const GraphSpec::Module& module : file.modules) {
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

Scenario::Answer SimulatedPlatform::answerFor(const QString& path) const
{
    if (m_answering == Answering::AtOnce)
        return Scenario::Answer();
    const Scenario::Answer answer = m_file.platform.value(path);
    if (m_answering == Answering::ByCaller && answer.kind != Scenario::Answer::Absent)
        return Scenario::Answer{Scenario::Answer::Never, 0, QString()};
    return answer;
}

// Whether `path` gets a handler of `paths`' kind: once, and only when it is
// in the object tree.
bool SimulatedPlatform::servesNewPath(const QString& path, QSet<CMPath>* paths) const
{
    if (answerFor(path).kind == Scenario::Answer::Absent || paths->contains(CMPath(path)))
        return false;
    paths->insert(CMPath(path));
    return true;
}

void SimulatedPlatform::addDataPath(const QString& path)
{
    if (!servesNewPath(path, &m_dataPaths))
        return;
    const Scenario::Answer behaviour = answerFor(path);
    CMRootWorker::instance()->registerSetDataHandler(
        CMPath(path),
        [this, behaviour](const CMPath& target, const QString& key, const QVariant& value, CMReply<QVariant> reply) {
            take(PlatformCall::write(target.toString(), key, value), behaviour, reply, value);
        });
}

void SimulatedPlatform::addInvokePath(const QString& path)
{
    if (!servesNewPath(path, &m_invokePaths))
        return;
    const Scenario::Answer behaviour = answerFor(path);
    CMRootWorker::instance()->registerInvokeHandler(
        CMPath(path), [this, behaviour](const CMPath& target, const VelaHash& message, CMReply<QVariant> reply) {
            take(PlatformCall::revokeMessage(target.toString(), message), behaviour, reply, QVariant());
        });
}

// Reports the call's arrival, then answers it as `answer` says, reporting
// every answer that does not come at once.
void SimulatedPlatform::take(PlatformCall call, const Scenario::Answer& answer, const CMReply<QVariant>& reply,
                             const QVariant& value)
{
    m_owners.name(&call);
    call.answeredAtOnce = answer.kind == Scenario::Answer::Immediate;
    m_listener(PlatformCall::Arrived, call);
    switch (answer.kind) {
    case Scenario::Answer::Immediate:
        reply.setValue(value);
        return;
    case Scenario::Answer::Error:
        call.error = answer.error;
        m_listener(PlatformCall::Failed, call);
        reply.setError(simulatedError(answer.error));
        return;
    case Scenario::Answer::Delayed: {
        QTimer::singleShot(answer.delayMs, &m_delayedAnswers, [this, reply, value, call]() {
            m_listener(PlatformCall::Answered, call);
            reply.setValue(value);
        });
        return;
    }
    case Scenario::Answer::Never:
    case Scenario::Answer::Absent:
        if (m_answering == Answering::ByCaller) {
            m_pending.append(PendingCall{call, reply, value});
            return;
        }
        m_listener(PlatformCall::Ignored, call);
        return;
    }
}

// Copied and then removed: GCC's overflow check (at -O2 with the address
// sanitizer) misreads the move that QVector::takeAt makes.
SimulatedPlatform::PendingCall SimulatedPlatform::takePending(int index)
{
    PendingCall pending = m_pending.at(index);
    m_pending.remove(index);
    return pending;
}

void SimulatedPlatform::answer(int index)
{
    const PendingCall pending = takePending(index);
    m_listener(PlatformCall::Answered, pending.call);
    pending.reply.setValue(pending.value);
}

void SimulatedPlatform::refuse(int index, const QString& error)
{
    PendingCall pending = takePending(index);
    pending.call.error = error;
    m_listener(PlatformCall::Failed, pending.call);
    pending.reply.setError(simulatedError(error));
}

void SimulatedPlatform::drop(int index)
{
    const PendingCall pending = takePending(index);
    m_listener(PlatformCall::Ignored, pending.call);
}
