#ifndef VELA_POWERGRAPH_RUNSUMMARY_H
#define VELA_POWERGRAPH_RUNSUMMARY_H

#include "runrecorder.h"

#include <QString>
#include <QStringList>
#include <QVector>

/*
 * What a recorded run comes to, read from its spans: how many set-data
 * writes failed or are still unanswered, and for each request how long it
 * took and what it waited on longest.
 */
class RunSummary
{
public:
    struct WriteCounts {
        int failed = 0;
        int timedOut = 0;
        int unanswered = 0;
    };

    explicit RunSummary(const RunRecorder& recorder);

    WriteCounts writes() const;
    // "#2 resource audio use by media: done after 50 ms; waited longest on
    // ...": one line for each of the requests numbered 1 to `requestCount`
    // that was sent.
    QStringList requestLines(int requestCount) const;

private:
    QString longestWait(const RunRecorder::Span& request) const;
    const RunRecorder::Span* longestWaitIn(qint64 beginUs, qint64 endUs) const;
    void indexWaits();

    const RunRecorder& m_recorder;
    // The writes and revoke messages, in the order they began (their begin
    // times never decrease), and for every run of 2^k of them the one that
    // took longest (the first of equals): any range is then answered with
    // two lookups, whatever the number of requests.
    QVector<const RunRecorder::Span*> m_waits;
    QVector<QVector<int>> m_longest;
};

#endif
