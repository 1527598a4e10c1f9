#ifndef VELA_TESTS_POWERSIM_SIMULATEDCLOCKTHREAD_H
#define VELA_TESTS_POWERSIM_SIMULATEDCLOCKTHREAD_H

/*
 * Test code on a thread of its own whose event loop runs on a simulated clock
 * (SimulatedTimeDispatcher): the clock jumps from timer to timer, so that a
 * run of long time-outs takes no wall time and every time a test reads is
 * exact. The dispatcher's own tests, the platform's and the request driver's
 * all run their timed cases this way; one copy here keeps the thread's set-up
 * and its watchdog the same for all of them.
 */

#include "simulatedtimedispatcher.h"

#include "eventloop.h"

#include <QAbstractEventDispatcher>
#include <QEventLoop>
#include <QObject>
#include <QThread>

#include <functional>
#include <memory>

// The simulated clock of the thread this is called on (one started by
// startOnSimulatedClock()).
inline SimulatedTimeDispatcher& simulatedClock()
{
    return *static_cast<SimulatedTimeDispatcher*>(QAbstractEventDispatcher::instance());
}

// Gives `thread` an event loop on a simulated clock of its own and starts it.
inline void startOnSimulatedClock(QThread& thread)
{
    thread.setEventDispatcher(new SimulatedTimeDispatcher);
    thread.start();
}

// Waits for `thread` to end; false when it has not ended within a minute, and
// it is then terminated. The minute only bounds a broken run (a dispatcher that
// really waits for its timers, or never wakes), so that the test fails instead
// of hanging: a working run takes milliseconds.
inline bool endedInTime(QThread& thread)
{
    const bool ended = thread.wait(60000);
    if (!ended) {
        thread.terminate();
        thread.wait();
    }
    return ended;
}

// Runs `body` on a thread of its own whose event loop runs on a simulated
// clock, once the events already due on the calling thread are done; false
// when the thread did not end.
inline bool onSimulatedClock(const std::function<void(SimulatedTimeDispatcher& clock)>& body)
{
    drainEvents();
    std::unique_ptr<QThread> thread(QThread::create([&body] { body(simulatedClock()); }));
    startOnSimulatedClock(*thread);
    return endedInTime(*thread);
}

// On the simulated clock's thread: runs its event loop until `condition`
// holds, looked at each time the loop wakes; the clock jumps from timer to
// timer while nothing else is ready. (Run by exec(), so that objects deleted
// later, such as those of zero-length single-shot timers, really go.)
inline void runUntil(const std::function<bool()>& condition)
{
    if (condition())
        return;
    QEventLoop loop;
    QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, &loop, [&] {
        if (condition())
            loop.quit();
    });
    loop.exec();
}

#endif
