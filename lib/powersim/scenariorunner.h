#ifndef VELA_POWERSIM_SCENARIORUNNER_H
#define VELA_POWERSIM_SCENARIORUNNER_H

#include "graphfile.h"

#include <QObject>
#include <QStringList>
#include <QVector>

#include <functional>

class RequestDriver;
class RunRecorder;

/*
 * Makes a scenario's requests at their times (one timer each, on the event
 * loop's clock) through a request driver, and tells when all are answered:
 *
 *   ScenarioRunner scenario(file.requests, run.driver(), recorder);
 *   scenario.start([] { QCoreApplication::quit(); });
 *   QCoreApplication::exec();
 */
class ScenarioRunner
{
public:
    ScenarioRunner(const QList<Scenario::Request>& requests, RequestDriver& driver, const RunRecorder& recorder);
    ScenarioRunner(const ScenarioRunner&) = delete;
    ScenarioRunner& operator=(const ScenarioRunner&) = delete;

    // Arms the requests' timers; `allAnswered` runs once the last is answered.
    void start(std::function<void()> allAnswered);

    bool allAnswered() const;
    int requestCount() const { return m_requests.size(); }
    int sent() const;
    // Requests sent and not answered, with the time they were sent.
    QStringList unanswered() const;
    // Requests not sent yet, with the time they are due.
    QStringList unsent() const;

private:
    void issue(int index);

    const QList<Scenario::Request>& m_requests;
    RequestDriver& m_driver;
    const RunRecorder& m_recorder;
    QVector<bool> m_sent;
    std::function<void()> m_allAnswered;
    // The requests' timers go with the runner: a request not due yet is
    // never sent.
    QObject m_timers;
};

#endif
