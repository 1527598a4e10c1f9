#include "runsummary.h"

#include <algorithm>

RunSummary::RunSummary(const RunRecorder& recorder)
    : m_recorder(recorder)
{
    indexWaits();
}

void RunSummary::indexWaits()
{
    for (const RunRecorder::Span& span : m_recorder.spans()) {
        if (span.kind == RunRecorder::Span::Write || span.kind == RunRecorder::Span::Message)
            m_waits.append(&span);
    }
    const auto longer = [this](int first, int second) {
        return m_waits.at(second)->durationUs() > m_waits.at(first)->durationUs() ? second : first;
    };
    QVector<int> level(m_waits.size());
    for (int index = 0; index < level.size(); ++index)
        level[index] = index;
    m_longest.append(level);
    for (int width = 2; width <= m_waits.size(); width *= 2) {
        const QVector<int>& below = m_longest.constLast();
        QVector<int> next(m_waits.size() - width + 1);
        for (int index = 0; index < next.size(); ++index)
            next[index] = longer(below.at(index), below.at(index + width / 2));
        m_longest.append(next);
    }
}

// The first of the writes and messages that began between `beginUs` and
// `endUs` and took longest; null when none did.
const RunRecorder::Span* RunSummary::longestWaitIn(qint64 beginUs, qint64 endUs) const
{
    const auto beginsBefore = [](const RunRecorder::Span* span, qint64 us) { return span->beginUs < us; };
    const auto beginsAfter = [](qint64 us, const RunRecorder::Span* span) { return us < span->beginUs; };
    const int first = static_cast<int>(
        std::lower_bound(m_waits.constBegin(), m_waits.constEnd(), beginUs, beginsBefore) - m_waits.constBegin());
    const int end = static_cast<int>(std::upper_bound(m_waits.constBegin(), m_waits.constEnd(), endUs, beginsAfter) -
                                     m_waits.constBegin());
    if (first >= end)
        return nullptr;
    int level = 0;
    while ((2 << level) <= end - first)
        ++level;
    const int left = m_longest.at(level).at(first);
    const int right = m_longest.at(level).at(end - (1 << level));
    const int longest = m_waits.at(right)->durationUs() > m_waits.at(left)->durationUs() ? right : left;
    return m_waits.at(longest);
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
    const RunRecorder::Span* longest = longestWaitIn(request.beginUs, request.endUs);
    if (!longest)
        return QStringLiteral("no write or revoke message");
    return QLatin1String("waited longest on the ") +
           (longest->kind == RunRecorder::Span::Write ? QLatin1String("write to ")
                                                      : QLatin1String("revoke answer from ")) +
           longest->path + QLatin1String(" (") + longest->track + QLatin1String(", ") +
           QString::number(longest->durationUs() / 1000) + QLatin1String(" ms") +
           (longest->timedOut ? QLatin1String(", timed out)") : QLatin1String(")"));
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
        lines.append(span->name + QLatin1String(": ") + answer + QLatin1String(" after ") +
                     QString::number(span->durationUs() / 1000) + QLatin1String(" ms; ") + longestWait(*span));
    }
    return lines;
}
