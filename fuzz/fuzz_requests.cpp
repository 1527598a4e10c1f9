// libFuzzer target: a small power graph, a stream of target and resource
// wishes and a platform that answers each write and revoke message as the
// input says. Once the run has gone quiet, QuiescenceCheck looks at the
// callers, the queue, the nodes and the snapshot.
//
// The event loop runs on simulated time: a time-out fires as soon as nothing
// else is ready, without the wall clock waiting for it, and timers due at
// the same instant fire in a fixed order. Runs are fast and an input replays
// the same way every time.

#include "fuzzedgraph.h"
#include "fuzzedplatform.h"
#include "fuzzinput.h"
#include "quiescencecheck.h"
#include "requeststream.h"
#include "simulatedtimedispatcher.h"

#include "PowerHandler.h"

#include "dbglog.h"

#include <log4cplus/nullappender.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

// Wall-clock bound of one settling; far beyond any run, whose time-outs cost
// no wall time.
constexpr int settleWatchdogMs = 20000;

/*
 * One run: the wishes are made with the event loop driven in between as
 * the input decides, then the loop is driven until everything is answered.
 */
class RequestRun
{
public:
    RequestRun(FuzzInput& input, FuzzedPlatform& platform, const FuzzedGraph& graph, PowerHandler& handler,
               RequestStream& stream)
        : m_input(input)
        , m_platform(platform)
        , m_graph(graph)
        , m_handler(handler)
        , m_stream(stream)
    {
        // Without any timer the dispatcher really waits; this one keeps a
        // wait from outlasting the watchdog.
        m_wakeUp.start(100);
    }

    void run()
    {
        while (m_stream.issueNext())
            betweenWishes();
        finish();
    }

private:
    void betweenWishes()
    {
        switch (m_input.pick(3)) {
        case 1:
            FuzzInput::trace("events processed once");
            QCoreApplication::processEvents(QEventLoop::AllEvents);
            break;
        case 2:
            FuzzInput::trace("settled");
            settle();
            break;
        default:
            break; // the next wish comes at once
        }
    }

    // Revoke messages that were never answered hold their requests until
    // they are; once nothing else moves they are answered one by one. Late
    // answers to timed-out writes come last and must change nothing.
    void finish()
    {
        do
            settle();
        while (m_platform.answerKeptRevoke());
        m_platform.answerKeptWritesLate();
        settle();
    }

    // Drives the event loop until nothing moves any more.
    void settle()
    {
        const QDeadlineTimer watchdog(settleWatchdogMs);
        int quietRounds = 0;
        while (quietRounds < 3) {
            const std::vector<int> before = fingerprint();
            const QEventLoop::ProcessEventsFlags flags = m_platform.settled()
                ? QEventLoop::ProcessEventsFlags(QEventLoop::AllEvents)
                : QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents;
            QCoreApplication::processEvents(flags);
            quietRounds = m_platform.settled() && fingerprint() == before ? quietRounds + 1 : 0;
            if (watchdog.hasExpired()) {
                std::fprintf(stderr, "fuzz_requests: the run did not settle in %d ms\n", settleWatchdogMs);
                std::abort();
            }
        }
    }

    // What can change while events are processed.
    std::vector<int> fingerprint() const
    {
        std::vector<int> values{m_platform.calls(), m_stream.answers(), m_handler.pendingRequests()};
        for (const PowerResource* resource : m_graph.resources())
            values.push_back(resource->state());
        for (const PowerTarget* target : m_graph.targets())
            values.push_back(target->state());
        return values;
    }

    FuzzInput& m_input;
    FuzzedPlatform& m_platform;
    const FuzzedGraph& m_graph;
    PowerHandler& m_handler;
    RequestStream& m_stream;
    QTimer m_wakeUp;
};

// Most runs keep the log quiet for speed; some build every record (into a
// null appender), so that the records' texts are exercised too.
void chooseLogLevel(FuzzInput& input)
{
    const bool everyRecord = input.oneIn(8);
    FuzzInput::trace(everyRecord ? "log: every record" : "log: off");
    vela::powerManagerLogger().setLogLevel(everyRecord ? log4cplus::TRACE_LOG_LEVEL : log4cplus::OFF_LOG_LEVEL);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    QCoreApplication::setEventDispatcher(new SimulatedTimeDispatcher);
    static QCoreApplication application(*argc, *argv);
    log4cplus::Logger& logger = vela::powerManagerLogger();
    logger.setAdditivity(false);
    logger.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput input(data, size);
    chooseLogLevel(input);
    FuzzedPlatform platform(input);
    // The nodes outlive the handler, as the service keeps them.
    const FuzzedGraph graph(input, platform);
    {
        PowerHandler handler;
        graph.registerWith(handler);
        RequestStream stream(input, graph, handler);
        RequestRun(input, platform, graph, handler, stream).run();
        QuiescenceCheck(graph, handler, stream).run();
    }
    QCoreApplication::processEvents(QEventLoop::AllEvents);
    // Objects released with deleteLater() (timed-out action timers) go only
    // when an event loop runs exec(); the fuzzer never does, so they are
    // sent here, or every run would leave them behind.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
