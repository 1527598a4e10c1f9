#include "runsummary.h"

RunSummary::RunSummary(const RunRecorder& recorder)
    : m_recorder(recorder)
{
}

RunSummary::WriteCounts RunSummary::writes() const
{
    WriteCounts counts;
    for (const RunRecorder::Span& span : m_recorder.spans()) {
        if (span.kind != RunRecorder::Span::Write)
            continue;
        if (span.endEvent < 0)
            ++counts.unanswered;
        if (!span.failed)
            continue;
        ++counts.failed;
        if (span.timedOut)
            ++counts.timedOut;
    }
    return counts;
}

// The write or revoke message, among those that began while the request was
// open, that took longest to be answered.
QString RunSummary::longestWait(const RunRecorder::Span& request) const
{
    const RunRecorder::Span* longest = nullptr;
    for (const RunRecorder::Span& span : m_recorder.spans()) {
        if ((span.kind != RunRecorder::Span::Write && span.kind != RunRecorder::Span::Message) ||
            span.beginUs < request.beginUs || span.beginUs > request.endUs)
            continue;
        if (!longest || span.durationUs() > longest->durationUs())
            longest = &span;
    }
    if (!longest)
        return QStringLiteral("no write or revoke message");
    return QStringLiteral("waited longest on the %1 %2 (%3, %4 ms%5)")
        .arg(longest->kind == RunRecorder::Span::Write ? QStringLiteral("write to")
                                                       : QStringLiteral("revoke answer from"))
        .arg(longest->path)
        .arg(longest->track)
        .arg(longest->durationUs() / 1000)
        .arg(longest->timedOut ? QStringLiteral(", timed out") : QString());
}

QStringList RunSummary::requestLines(int requestCount) const
{
    QStringList lines;
    for (int number = 1; number <= requestCount; ++number) {
        const RunRecorder::Span* span = m_recorder.requestSpan(number);
        if (!span)
            continue;
        const QString answer = span->outcome.startsWith(QLatin1String("failed")) ? QStringLiteral("failed")
                               : span->outcome == QLatin1String("done")          ? QStringLiteral("done")
                                                                                 : QStringLiteral("no answer");
        lines.append(QStringLiteral("%1: %2 after %3 ms; %4")
                         .arg(span->name, answer)
                         .arg(span->durationUs() / 1000)
                         .arg(longestWait(*span)));
    }
    return lines;
}
