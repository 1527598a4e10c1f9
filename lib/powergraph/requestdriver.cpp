#include "requestdriver.h"

#include "powergraph.h"
#include "refusalreasons.h"
#include "runrecorder.h"

#include "PowerHandler.h"
#include "PowerNode.h"

RequestDriver::RequestDriver(PowerHandler& handler, const PowerGraph& graph, RunRecorder* recorder)
    : m_handler(handler)
    , m_graph(graph)
    , m_recorder(recorder)
{
    if (!recorder)
        return;
    const auto signal = [recorder](const QString& name, const VelaPowerManagerTarget& target) {
        recorder->add(RunEvent::Kind::Signal, name, VelaPowerManagerTargets::toString(target.target()));
    };
    QObject::connect(
        &handler, &PowerHandler::nextTargetChanged, &m_connections,
        [signal](const VelaPowerManagerTarget& target) { signal(QStringLiteral("nextTargetChanged"), target); });
    QObject::connect(
        &handler, &PowerHandler::targetChanged, &m_connections,
        [signal](const VelaPowerManagerTarget& target) { signal(QStringLiteral("targetChanged"), target); });
}

CMReply<QVariant> RequestDriver::sendTo(PowerHandler& handler, const PowerGraph& graph,
                                        const Scenario::Request& request)
{
    CMReply<QVariant> reply;
    if (request.kind == Scenario::Request::Target)
        handler.requestTarget(VelaPowerManagerTarget(graph.target(request.name)->target()), reply);
    else
        handler.requestResource(
            VelaPowerManagerResourceRequest(graph.resource(request.name)->resource(), request.module, request.action),
            reply);
    return reply;
}

int RequestDriver::send(const Scenario::Request& request, AnswerListener onAnswer, int number)
{
    ++m_sent;
    if (number <= 0)
        number = m_sent;
    if (m_recorder)
        m_recorder->requestSent(number, request.describe());
    const CMReply<QVariant> reply = sendTo(m_handler, m_graph, request);
    reply.onFinished([this, number, request, onAnswer](const CMReply<QVariant>& answer) {
        take(number, request, answer, onAnswer);
    });
    return number;
}

void RequestDriver::take(int number, const Scenario::Request& request, const CMReply<QVariant>& reply,
                         const AnswerListener& onAnswer)
{
    if (m_ignoringAnswers)
        return;
    Answer answer;
    answer.number = number;
    const CMError error = reply.error();
    answer.succeeded = !error.isError();
    ++m_answered;
    if (answer.succeeded) {
        ++m_succeeded;
        if (m_recorder)
            m_recorder->requestAnswered(number, QStringLiteral("done"), false);
    } else {
        answer.error = error.message().toString();
        if (m_recorder)
            m_recorder->requestAnswered(number, QStringLiteral("failed: ") + answer.error, true);
        answer.reason = RefusalReasons::whyFailed(m_graph, request);
        if (m_recorder && !answer.reason.isEmpty())
            m_recorder->add(RunEvent::Kind::Reason, QStringLiteral("#%1").arg(number), answer.reason);
    }
    if (onAnswer)
        onAnswer(answer);
}
