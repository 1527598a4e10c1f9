#include "scenariorunner.h"

#include "requestdriver.h"
#include "runrecorder.h"

#include <QTimer>

#include <algorithm>

ScenarioRunner::ScenarioRunner(const QList<Scenario::Request>& requests, RequestDriver& driver,
                               const RunRecorder& recorder)
    : m_requests(requests)
    , m_driver(driver)
    , m_recorder(recorder)
    , m_sent(requests.size(), false)
{
}

void ScenarioRunner::start(std::function<void()> allAnswered)
{
    m_allAnswered = std::move(allAnswered);
    for (int index = 0; index < m_requests.size(); ++index)
        QTimer::singleShot(m_requests.at(index).atMs, &m_timers, [this, index]() { issue(index); });
}

bool ScenarioRunner::allAnswered() const
{
    return m_driver.answered() == m_requests.size();
}

int ScenarioRunner::sent() const
{
    return static_cast<int>(std::count(m_sent.begin(), m_sent.end(), true));
}

QStringList ScenarioRunner::unanswered() const
{
    QStringList names;
    for (int index = 0; index < m_requests.size(); ++index) {
        const RunRecorder::Span* span = m_recorder.requestSpan(index + 1);
        if (span && span->endEvent < 0)
            names.append(QStringLiteral("%1 (sent at %2 ms)").arg(span->name).arg(span->beginUs / 1000));
    }
    return names;
}

QStringList ScenarioRunner::unsent() const
{
    QStringList names;
    for (int index = 0; index < m_requests.size(); ++index) {
        if (!m_sent.at(index))
            names.append(QStringLiteral("#%1 %2 (due at %3 ms)")
                             .arg(index + 1)
                             .arg(m_requests.at(index).describe())
                             .arg(m_requests.at(index).atMs));
    }
    return names;
}

void ScenarioRunner::issue(int index)
{
    m_sent[index] = true;
    m_driver.send(
        m_requests.at(index),
        [this](const RequestDriver::Answer&) {
            if (allAnswered() && m_allAnswered)
                m_allAnswered();
        },
        index + 1);
}
