#ifndef VELA_FUZZ_REQUESTSTREAM_H
#define VELA_FUZZ_REQUESTSTREAM_H

#include "fuzzinput.h"

#include "cmreply.h"

#include <QObject>
#include <QVariant>

#include <deque>
#include <string>

class FuzzedGraph;
class PowerHandler;

/*
 * The callers of the handler: target and resource wishes as the input
 * decides, known or unknown nodes, registered or strange modules, empty
 * records. Like a service, a caller may make its next wish from inside the
 * answer to an earlier one or from inside nextTargetChanged; the handler
 * must take a wish at any of these moments.
 *
 * Every caller's reply is watched: how many times it was answered is what
 * the end-of-run check looks at.
 */
class RequestStream
{
public:
    struct Caller {
        std::string wish;
        CMReply<QVariant> reply;
        int answers = 0;
    };

    RequestStream(FuzzInput& input, const FuzzedGraph& graph, PowerHandler& handler);
    RequestStream(const RequestStream&) = delete;
    RequestStream& operator=(const RequestStream&) = delete;

    // Makes the next wish; false once the input's wishes are all made.
    bool issueNext();
    const std::deque<Caller>& callers() const;
    // Every answer the callers got; the run uses it to see progress.
    int answers() const;

private:
    void issueTarget(Caller& caller);
    void issueResource(Caller& caller);
    void describe(Caller& caller, const std::string& wish);
    void onAnswered(size_t index);
    void maybeIssueNested();

    FuzzInput& m_input;
    const FuzzedGraph& m_graph;
    PowerHandler& m_handler;
    QObject m_context; // receiver of the handler's signals
    std::deque<Caller> m_callers;
    int m_budget;
    int m_answers = 0;
};

#endif
