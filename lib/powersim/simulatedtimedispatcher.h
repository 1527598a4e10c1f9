#ifndef VELA_POWERSIM_SIMULATEDTIMEDISPATCHER_H
#define VELA_POWERSIM_SIMULATEDTIMEDISPATCHER_H

#include <QAbstractEventDispatcher>
#include <QAtomicInt>

#include <functional>
#include <vector>

class QSocketNotifier;

/*
 * An event dispatcher whose timers run on a simulated clock.
 *
 * It handles posted events, timers and socket notifiers as Qt's own Unix
 * dispatcher does, with one difference: when nothing is ready (no posted
 * event, no readable or writable socket, no due timer), the clock jumps to the
 * next timer that is due instead of waiting for it. A run full of 5-second
 * time-outs therefore takes milliseconds of wall time, and every time it
 * reports is exact.
 *
 * Timers due at the same instant fire in the order they were scheduled, so a
 * run is the same on every machine. Only when no timer is registered does the
 * dispatcher really wait: for a socket or a wake-up from another thread.
 *
 * Install it before the application object (QCoreApplication::
 * setEventDispatcher) or on a thread before it starts (QThread::
 * setEventDispatcher). All members but wakeUp() and interrupt() are called on
 * the dispatcher's own thread.
 *
 *     auto* dispatcher = new SimulatedTimeDispatcher;
 *     QCoreApplication::setEventDispatcher(dispatcher);
 *     QCoreApplication app(argc, argv);
 *     QTimer::singleShot(5000, [&] { qInfo() << dispatcher->elapsedMs(); }); // 5000
 */
class SimulatedTimeDispatcher : public QAbstractEventDispatcher
{
    Q_OBJECT

public:
    explicit SimulatedTimeDispatcher(QObject* parent = nullptr);
    ~SimulatedTimeDispatcher() override;

    // Simulated milliseconds since the dispatcher was made.
    qint64 elapsedMs() const { return m_nowMs; }
    // The clock of a run that starts now, in microseconds: the simulated
    // one when the application runs on a SimulatedTimeDispatcher, else the
    // wall clock.
    static std::function<qint64()> runClock();

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override;

    void registerSocketNotifier(QSocketNotifier* notifier) override;
    void unregisterSocketNotifier(QSocketNotifier* notifier) override;

    void registerTimer(int timerId, int interval, Qt::TimerType timerType, QObject* object) override;
    bool unregisterTimer(int timerId) override;
    bool unregisterTimers(QObject* object) override;
    QList<TimerInfo> registeredTimers(QObject* object) const override;
    int remainingTime(int timerId) override;

    void wakeUp() override;
    void interrupt() override;
    void flush() override;

private:
    struct Timer {
        int id;
        int intervalMs;
        Qt::TimerType type;
        QObject* object;
        qint64 dueMs;
        quint64 order; // ties between timers due at the same instant
    };

    bool sendPostedEvents();
    bool fireDueTimers();
    bool advanceToNextTimer();
    bool pollSockets(int timeoutMs);
    void drainWakeUps();
    void schedule(Timer& timer, qint64 dueMs);
    Timer* findTimer(int timerId);

    qint64 m_nowMs = 0;
    quint64 m_nextOrder = 0;
    std::vector<Timer> m_timers;
    std::vector<QSocketNotifier*> m_notifiers;
    int m_wakeFd = -1;
    QAtomicInt m_interrupted;
};

#endif
