#ifndef VELA_POWERGRAPH_REQUESTDRIVER_H
#define VELA_POWERGRAPH_REQUESTDRIVER_H

#include "graphfile.h"

#include "cmreply.h"

#include <QObject>
#include <QString>

#include <functional>

class PowerGraph;
class PowerHandler;
class RunRecorder;

/*
 * Sends wishes to a handler, one request each, numbered from 1, and reports
 * them to a run recorder: the request, the two signals of the handler, the
 * answer and, beside a refusal, its reason in plain words.
 *
 *   RequestDriver driver(handler, graph, &recorder);
 *   driver.send(request, [](const RequestDriver::Answer& answer) {
 *       if (!answer.succeeded) qInfo() << answer.error << answer.reason;
 *   });
 */
class RequestDriver
{
public:
    struct Answer {
        int number = 0;
        bool succeeded = false;
        // The library's error message, and why, when it failed.
        QString error;
        QString reason;
    };
    using AnswerListener = std::function<void(const Answer& answer)>;

    // `recorder` may be null: the driver then only sends and counts.
    RequestDriver(PowerHandler& handler, const PowerGraph& graph, RunRecorder* recorder);
    RequestDriver(const RequestDriver&) = delete;
    RequestDriver& operator=(const RequestDriver&) = delete;

    // Sends `request` and returns its number: `number` when given (a
    // scenario numbers its requests in the file's order, whenever they are
    // sent), else one past the requests sent so far. `onAnswer` runs once it
    // is answered, after the recorder has the answer.
    int send(const Scenario::Request& request, AnswerListener onAnswer = AnswerListener(), int number = 0);

    // Answers that arrive from now on are neither recorded nor passed on:
    // whoever asked has stopped listening.
    void ignoreLaterAnswers() { m_ignoringAnswers = true; }

    int sent() const { return m_sent; }
    int answered() const { return m_answered; }
    int succeeded() const { return m_succeeded; }

    // Sends `request` to `handler` and returns its reply, not waited for.
    static CMReply<QVariant> sendTo(PowerHandler& handler, const PowerGraph& graph, const Scenario::Request& request);

private:
    void take(int number, const Scenario::Request& request, const CMReply<QVariant>& reply,
              const AnswerListener& onAnswer);

    PowerHandler& m_handler;
    const PowerGraph& m_graph;
    RunRecorder* m_recorder;
    int m_sent = 0;
    int m_answered = 0;
    int m_succeeded = 0;
    bool m_ignoringAnswers = false;
    // The handler's signals are connected through it: they end with the
    // driver.
    QObject m_connections;
};

#endif
