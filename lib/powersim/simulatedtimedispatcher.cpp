#include "simulatedtimedispatcher.h"

#include "runrecorder.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

// Qt's own count of posted events not yet sent, the same one its dispatchers
// use to answer hasPendingEvents().
Q_CORE_EXPORT uint qGlobalPostedEventsCount();

SimulatedTimeDispatcher::SimulatedTimeDispatcher(QObject* parent)
    : QAbstractEventDispatcher(parent)
    , m_wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

SimulatedTimeDispatcher::~SimulatedTimeDispatcher()
{
    if (m_wakeFd >= 0)
        close(m_wakeFd);
}

bool SimulatedTimeDispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    m_interrupted.storeRelaxed(0);
    emit awake();
    bool didWork = sendPostedEvents();
    if (!(flags & QEventLoop::ExcludeSocketNotifiers) && !m_notifiers.empty() && !m_interrupted.loadRelaxed())
        didWork |= pollSockets(0);
    if (!(flags & QEventLoop::X11ExcludeTimers) && !m_interrupted.loadRelaxed())
        didWork |= fireDueTimers();
    if (didWork || !(flags & QEventLoop::WaitForMoreEvents) || m_interrupted.loadRelaxed())
        return didWork;
    if (hasPendingEvents())
        return sendPostedEvents();
    // Nothing is ready now. With a timer registered, waiting for it would only
    // cost wall time: the clock jumps to it instead.
    if (!m_timers.empty() && !(flags & QEventLoop::X11ExcludeTimers))
        return advanceToNextTimer();
    emit aboutToBlock();
    pollSockets(-1);
    emit awake();
    sendPostedEvents();
    return true;
}

bool SimulatedTimeDispatcher::hasPendingEvents()
{
    return qGlobalPostedEventsCount() > 0;
}

bool SimulatedTimeDispatcher::sendPostedEvents()
{
    const bool hadEvents = hasPendingEvents();
    QCoreApplication::sendPostedEvents();
    return hadEvents;
}

bool SimulatedTimeDispatcher::fireDueTimers()
{
    // The due timers are picked first and fired one by one after: a timer
    // event may register, kill or restart any timer, including the next one.
    struct Due {
        qint64 dueMs;
        quint64 order;
        int id;
        bool operator<(const Due& other) const
        {
            return dueMs != other.dueMs ? dueMs < other.dueMs : order < other.order;
        }
    };
    std::vector<Due> due;
    for (const Timer& timer : m_timers) {
        if (timer.dueMs <= m_nowMs)
            due.push_back({timer.dueMs, timer.order, timer.id});
    }
    if (due.empty())
        return false;
    std::sort(due.begin(), due.end());
    for (const Due& entry : due) {
        const int id = entry.id;
        Timer* timer = findTimer(id);
        if (!timer || timer->dueMs > m_nowMs || m_interrupted.loadRelaxed())
            continue;
        QObject* object = timer->object;
        schedule(*timer, timer->dueMs + timer->intervalMs);
        QTimerEvent event(id);
        QCoreApplication::sendEvent(object, &event);
    }
    return true;
}

bool SimulatedTimeDispatcher::advanceToNextTimer()
{
    auto next = std::min_element(m_timers.begin(), m_timers.end(), [](const Timer& a, const Timer& b) {
        return a.dueMs != b.dueMs ? a.dueMs < b.dueMs : a.order < b.order;
    });
    m_nowMs = std::max(m_nowMs, next->dueMs);
    return fireDueTimers();
}

bool SimulatedTimeDispatcher::pollSockets(int timeoutMs)
{
    std::vector<pollfd> fds;
    fds.reserve(m_notifiers.size() + 1);
    fds.push_back({m_wakeFd, POLLIN, 0});
    const std::vector<QSocketNotifier*> notifiers = m_notifiers;
    for (QSocketNotifier* notifier : notifiers) {
        const short events = notifier->type() == QSocketNotifier::Read    ? short(POLLIN)
                             : notifier->type() == QSocketNotifier::Write ? short(POLLOUT)
                                                                          : short(POLLPRI);
        fds.push_back({int(notifier->socket()), events, 0});
    }
    int ready;
    do {
        ready = poll(fds.data(), fds.size(), timeoutMs);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0)
        return false;
    if (fds[0].revents)
        drainWakeUps();
    bool activated = false;
    for (size_t i = 0; i < notifiers.size(); ++i) {
        if (!fds[i + 1].revents)
            continue;
        // A notifier activated earlier in this pass may have removed this one.
        if (std::find(m_notifiers.begin(), m_notifiers.end(), notifiers[i]) == m_notifiers.end())
            continue;
        QEvent event(QEvent::SockAct);
        QCoreApplication::sendEvent(notifiers[i], &event);
        activated = true;
    }
    return activated;
}

void SimulatedTimeDispatcher::drainWakeUps()
{
    eventfd_t count;
    eventfd_read(m_wakeFd, &count);
}

void SimulatedTimeDispatcher::registerSocketNotifier(QSocketNotifier* notifier)
{
    m_notifiers.push_back(notifier);
}

void SimulatedTimeDispatcher::unregisterSocketNotifier(QSocketNotifier* notifier)
{
    m_notifiers.erase(std::remove(m_notifiers.begin(), m_notifiers.end(), notifier), m_notifiers.end());
}

void SimulatedTimeDispatcher::schedule(Timer& timer, qint64 dueMs)
{
    timer.dueMs = dueMs;
    timer.order = m_nextOrder++;
}

SimulatedTimeDispatcher::Timer* SimulatedTimeDispatcher::findTimer(int timerId)
{
    auto it = std::find_if(m_timers.begin(), m_timers.end(), [&](const Timer& timer) { return timer.id == timerId; });
    return it == m_timers.end() ? nullptr : &*it;
}

void SimulatedTimeDispatcher::registerTimer(int timerId, int interval, Qt::TimerType timerType, QObject* object)
{
    Timer timer{timerId, interval, timerType, object, 0, 0};
    schedule(timer, m_nowMs + interval);
    m_timers.push_back(timer);
}

bool SimulatedTimeDispatcher::unregisterTimer(int timerId)
{
    auto it = std::find_if(m_timers.begin(), m_timers.end(), [&](const Timer& timer) { return timer.id == timerId; });
    if (it == m_timers.end())
        return false;
    m_timers.erase(it);
    return true;
}

bool SimulatedTimeDispatcher::unregisterTimers(QObject* object)
{
    const auto before = m_timers.size();
    m_timers.erase(
        std::remove_if(m_timers.begin(), m_timers.end(), [&](const Timer& timer) { return timer.object == object; }),
        m_timers.end());
    return m_timers.size() != before;
}

QList<QAbstractEventDispatcher::TimerInfo> SimulatedTimeDispatcher::registeredTimers(QObject* object) const
{
    QList<TimerInfo> timers;
    for (const Timer& timer : m_timers) {
        if (timer.object == object)
            timers.append(TimerInfo(timer.id, timer.intervalMs, timer.type));
    }
    return timers;
}

int SimulatedTimeDispatcher::remainingTime(int timerId)
{
    const Timer* timer = findTimer(timerId);
    return timer ? int(std::max<qint64>(0, timer->dueMs - m_nowMs)) : -1;
}

void SimulatedTimeDispatcher::wakeUp()
{
    eventfd_write(m_wakeFd, 1);
}

void SimulatedTimeDispatcher::interrupt()
{
    m_interrupted.storeRelaxed(1);
    wakeUp();
}

void SimulatedTimeDispatcher::flush() {}

std::function<qint64()> SimulatedTimeDispatcher::runClock()
{
    if (auto* simulated = qobject_cast<SimulatedTimeDispatcher*>(QCoreApplication::eventDispatcher())) {
        const qint64 startMs = simulated->elapsedMs();
        return [simulated, startMs]() { return (simulated->elapsedMs() - startMs) * 1000; };
    }
    return RunRecorder::wallClock();
}
