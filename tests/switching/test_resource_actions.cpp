// A resource's own switching step: the set-data write through the root
// worker under a time limit, and a target's step that succeeds at once.

#include "switchingfixture.h"

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QTimer>

using namespace switching;

namespace {

/*
 * Counts the timer events that reach QTimer objects of this thread, except
 * the one given to ignore: an action's time-out timer can only fire through
 * such an event, so a count that does not grow proves that none fired.
 */
class TimerEventProbe : public QObject
{
public:
    explicit TimerEventProbe(const QObject* ignored)
        : m_ignored(ignored)
    {
        QCoreApplication::instance()->installEventFilter(this);
    }
    ~TimerEventProbe() override { QCoreApplication::instance()->removeEventFilter(this); }

    int count() const { return m_count; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::Timer && watched != m_ignored && qobject_cast<QTimer*>(watched))
            ++m_count;
        return false;
    }

private:
    const QObject* m_ignored;
    int m_count = 0;
};

/*
 * A zero-length single-shot timer to be started after the timers under
 * test. Timers of a thread fire in the order in which they fall due, and
 * those due together in the order in which they were started, so once the
 * marker has fired, every zero-length timer started before it and still
 * running has fired too.
 */
class Marker
{
public:
    Marker()
    {
        m_timer.setSingleShot(true);
        QObject::connect(&m_timer, &QTimer::timeout, [this] { m_fired = true; });
    }

    const QObject* timer() const { return &m_timer; }

    // Starts the marker and runs the event loop until it has fired.
    bool runTimersStartedSoFar()
    {
        m_fired = false;
        m_timer.start(0);
        return waitUntil([this] { return m_fired; });
    }

private:
    QTimer m_timer;
    bool m_fired = false;
};

using ResourceActions = SwitchingTest;

// An action that had nothing to wait for: finished with success when it was
// returned, with no write and nothing in the log.
::testing::AssertionResult succeededAtOnceQuietly(const CMVoidReply& reply, const std::vector<Write>& writes,
                                                  const LogCapture& log)
{
    const ::testing::AssertionResult done = succeeded(reply);
    if (!done)
        return done;
    if (!writes.empty())
        return ::testing::AssertionFailure() << writes.size() << " writes, the first at "
                                             << str(writes.front().path.toString());
    if (!log.events().empty())
        return ::testing::AssertionFailure() << "logged:\n" << log.dump();
    return ::testing::AssertionSuccess();
}

} // namespace

// --- Requests not set, targets --------------------------------------------

TEST_F(ResourceActions, EnableActionWithoutRequestSucceedsAtOnceWithoutWriteOrLog)
{
    TestResource* node = makeResource(Answer::NoRequest, Answer::NoRequest);
    LogCapture log;

    EXPECT_TRUE(succeededAtOnceQuietly(node->onEnableAction(), m_writes, log));
    EXPECT_TRUE(succeededAtOnceQuietly(node->onDisableAction(), m_writes, log));
}

TEST_F(ResourceActions, ExecuteActionWithNullRequestSucceedsAtOnceWithoutWriteOrLog)
{
    TestResource* node = makeResource();
    LogCapture log;

    const CMReply<void> result = node->executeAction(QStringLiteral("enable"), CMSetDataRequest());

    EXPECT_TRUE(succeededAtOnceQuietly(result, m_writes, log));
}

TEST_F(ResourceActions, TargetActionsSucceedAtOnce)
{
    PowerTarget* target = makeTarget();
    LogCapture log;

    const CMReply<void> enabled = target->onEnableAction();
    const CMReply<void> disabled = target->onDisableAction();

    EXPECT_TRUE(succeededAtOnceQuietly(enabled, m_writes, log));
    EXPECT_TRUE(succeededAtOnceQuietly(disabled, m_writes, log));
    EXPECT_NE(enabled, disabled) << "each call makes its own reply";
}

namespace {

// A target whose own switching step, in one direction only, is replaced and
// counted; the other direction is left to PowerTarget.
class TargetOverridingOneAction : public PowerTarget
{
public:
    TargetOverridingOneAction(VelaPowerManagerTargets::Enum target, bool overrideEnable)
        : PowerTarget(target)
        , m_overrideEnable(overrideEnable)
    {
    }

    CMReply<void> onEnableAction() override
    {
        return m_overrideEnable ? overridden() : PowerTarget::onEnableAction();
    }
    CMReply<void> onDisableAction() override
    {
        return m_overrideEnable ? PowerTarget::onDisableAction() : overridden();
    }

    int overriddenCalls = 0;

private:
    // Never finishes: a direction that reached it would stay unfinished.
    CMReply<void> overridden()
    {
        ++overriddenCalls;
        return CMReply<void>();
    }

    bool m_overrideEnable;
};

} // namespace

// A subclass overriding one direction leaves the other to PowerTarget: it
// still succeeds at once, and the override is not called for it.
class TargetOverridingOneDirection : public ::testing::TestWithParam<bool>
{
};

INSTANTIATE_TEST_SUITE_P(Both, TargetOverridingOneDirection, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "EnableOverridden" : "DisableOverridden";
                         });

TEST_P(TargetOverridingOneDirection, OtherDirectionKeepsTheTargetsOwnAction)
{
    const bool enableOverridden = GetParam();
    TargetOverridingOneAction target(VelaPowerManagerTargets::suspend, enableOverridden);
    const auto untouched = enableOverridden ? &PowerNode::onDisableAction : &PowerNode::onEnableAction;
    const auto overridden = enableOverridden ? &PowerNode::onEnableAction : &PowerNode::onDisableAction;

    EXPECT_TRUE(succeeded((target.*untouched)()));
    EXPECT_EQ(target.overriddenCalls, 0);
    EXPECT_FALSE((target.*overridden)().isFinished());
    EXPECT_EQ(target.overriddenCalls, 1);
}

// --- The write --------------------------------------------------------------

TEST_F(ResourceActions, WritePassesPathKeyAndValueToTheHandler)
{
    TestResource* node = makeResource();
    handle(QStringLiteral("/modules/display/power"), Answer::AtOnce);
    handle(QStringLiteral("/modules/display/standby"), Answer::AtOnce);
    node->setOnEnableActionRequest(
        CMSetDataRequest(CMPath("/modules/display/power"), QStringLiteral("level"), QVariant(42)));
    node->setOnDisableActionRequest(
        CMSetDataRequest(CMPath("/modules/display/standby"), QStringLiteral("mode"), QVariant(QStringLiteral("deep"))));

    const CMReply<void> enabled = node->onEnableAction();
    ASSERT_EQ(m_writes.size(), 1u);
    EXPECT_EQ(m_writes[0].path, CMPath("/modules/display/power"));
    EXPECT_EQ(m_writes[0].key, QStringLiteral("level"));
    EXPECT_EQ(m_writes[0].value, QVariant(42));

    const CMReply<void> disabled = node->onDisableAction();
    ASSERT_EQ(m_writes.size(), 2u);
    EXPECT_EQ(m_writes[1].path, CMPath("/modules/display/standby"));
    EXPECT_EQ(m_writes[1].key, QStringLiteral("mode"));
    EXPECT_EQ(m_writes[1].value, QVariant(QStringLiteral("deep")));

    ASSERT_TRUE(waitUntil([&] { return enabled.isFinished() && disabled.isFinished(); }));
    EXPECT_TRUE(succeeded(enabled));
    EXPECT_TRUE(succeeded(disabled));
}

TEST_F(ResourceActions, ExecuteActionWritesTheGivenRequestAndNamesTheActionInTheLog)
{
    TestResource* node = makeResource();
    const QString path = QStringLiteral("/switching/custom");
    handle(path, Answer::AtOnce);
    LogCapture log;

    const CMReply<void> result =
        node->executeAction(QStringLiteral("wake"), CMSetDataRequest(CMPath(path), QStringLiteral("k"), 7));

    ASSERT_TRUE(finishes(result));
    EXPECT_TRUE(succeeded(result));
    EXPECT_EQ(writesTo(path), 1);
    EXPECT_EQ(log.count(log4cplus::DEBUG_LOG_LEVEL, str(node->name()) + " is now wake"), 1) << log.dump();
}

TEST_F(ResourceActions, AnswerAtOnceFinishesTheResultWithSuccessAndDebugLog)
{
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce);
    LogCapture log;

    const CMReply<void> result = node->onEnableAction();

    ASSERT_TRUE(finishes(result));
    EXPECT_TRUE(succeeded(result));
    EXPECT_EQ(writesTo(enablePath(node)), 1);
    EXPECT_TRUE(loggedOnce(log, str(node->name()) + " is now enable", log4cplus::DEBUG_LOG_LEVEL, kActionContinuation,
                           documentedLine::actionSucceeded));
}

TEST_F(ResourceActions, LateAnswerFinishesTheResultOnlyWhenItArrives)
{
    TestResource* node = makeResource(Answer::Later, Answer::Later);
    LogCapture log;

    const CMReply<void> result = node->onEnableAction();
    EXPECT_FALSE(result.isFinished()) << "answered only from the event loop";
    EXPECT_EQ(writesTo(enablePath(node)), 1);

    ASSERT_TRUE(finishes(result));
    EXPECT_TRUE(succeeded(result));
    EXPECT_EQ(log.count(log4cplus::DEBUG_LOG_LEVEL, str(node->name()) + " is now enable"), 1) << log.dump();
}

TEST_F(ResourceActions, ErrorAnswerIsForwardedUnchangedAndLoggedAtError)
{
    TestResource* node = makeResource();
    const QString path = QStringLiteral("/switching/refusing");
    CMError refusal(QStringLiteral("org.test.Refused"), TrString(QStringLiteral("bus is down")));
    refusal.insert(CMError::Title(), QVariant::fromValue(TrString(QStringLiteral("Refusal"))));
    refusal.insert(QStringLiteral("code"), 7);
    CMRootWorker::instance()->registerSetDataHandler(
        CMPath(path), [refusal](const CMPath&, const QString&, const QVariant&, CMReply<QVariant> reply) {
            reply.setError(refusal);
        });
    node->setOnDisableActionRequest(CMSetDataRequest(CMPath(path), QStringLiteral("powered"), false));
    LogCapture log;

    const CMReply<void> result = node->onDisableAction();

    ASSERT_TRUE(finishes(result));
    const CMError error = result.error();
    EXPECT_TRUE(error.isError());
    EXPECT_EQ(error.name(), QStringLiteral("org.test.Refused"));
    EXPECT_EQ(error.message().toString(), QStringLiteral("bus is down"));
    EXPECT_EQ(error.title().toString(), QStringLiteral("Refusal"));
    EXPECT_EQ(error.value(QStringLiteral("code")), QVariant(7));
    EXPECT_EQ(error.size(), refusal.size());

    EXPECT_TRUE(loggedOnce(log, str(node->name()) + " failed to disable Message: bus is down",
                           log4cplus::ERROR_LOG_LEVEL, kActionContinuation, documentedLine::actionFailed));
    EXPECT_FALSE(log.containsFragment(log4cplus::DEBUG_LOG_LEVEL, " is now ")) << log.dump();
}

TEST_F(ResourceActions, ActionNameInTheLogIsEnableOrDisable)
{
    TestResource* good = makeResource(Answer::AtOnce, Answer::AtOnce);
    TestResource* bad = makeResource(Answer::WithError, Answer::WithError);
    LogCapture log;

    const QList<CMVoidReply> results{good->onEnableAction(), good->onDisableAction(), bad->onEnableAction(),
                                     bad->onDisableAction()};
    ASSERT_TRUE(waitUntil([&] {
        for (const CMVoidReply& result : results) {
            if (!result.isFinished())
                return false;
        }
        return true;
    }));

    EXPECT_EQ(log.count(log4cplus::DEBUG_LOG_LEVEL, str(good->name()) + " is now enable"), 1) << log.dump();
    EXPECT_EQ(log.count(log4cplus::DEBUG_LOG_LEVEL, str(good->name()) + " is now disable"), 1) << log.dump();
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, str(bad->name()) + " failed to enable Message: refused"), 1)
        << log.dump();
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, str(bad->name()) + " failed to disable Message: refused"), 1)
        << log.dump();
    EXPECT_EQ(log.events().size(), 4u) << log.dump();
}

// --- Time limit -----------------------------------------------------------

TEST_F(ResourceActions, NeverAnsweredWriteTimesOutWithTheTimeoutError)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never, 30);
    LogCapture log;

    const CMReply<void> result = node->onEnableAction();
    EXPECT_FALSE(result.isFinished());
    ASSERT_EQ(m_unanswered.size(), 1);

    ASSERT_TRUE(finishes(result));
    EXPECT_TRUE(isTimeoutError(result.error()));
    EXPECT_TRUE(isTimeoutError(m_unanswered[0].error())) << "the time-out finishes the watched reply itself";

    EXPECT_TRUE(loggedOnce(log, str(node->name()) + " failed to enable Message: " + str(CMVoidReply::ErrorTimeout()),
                           log4cplus::ERROR_LOG_LEVEL, kActionContinuation, documentedLine::actionFailed));
}

TEST_F(ResourceActions, DefaultTimeLimitIsUsedByTheOneArgumentConstructor)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);
    ASSERT_EQ(node->actionTimeout(), 5000);

    // Well inside the default limit nothing has timed out.
    const CMReply<void> result = node->onEnableAction();
    drainEvents();
    EXPECT_FALSE(result.isFinished());
    m_unanswered[0].setValue(QVariant(true));
    ASSERT_TRUE(finishes(result));
    EXPECT_TRUE(succeeded(result));
}

TEST_F(ResourceActions, ZeroTimeoutTimesOutOnTheNextTurnOfTheEventLoop)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never, 0);

    const CMReply<void> result = node->onDisableAction();
    EXPECT_FALSE(result.isFinished()) << "nothing may time out before the event loop runs";
    ASSERT_EQ(m_unanswered.size(), 1);
    EXPECT_FALSE(m_unanswered[0].isFinished());

    QCoreApplication::processEvents();

    ASSERT_TRUE(result.isFinished());
    EXPECT_TRUE(isTimeoutError(result.error()));
}

// The write is answered from inside setData(): there is nothing left to
// time out, even with a zero-length limit.
TEST_F(ResourceActions, ZeroTimeoutDoesNotFireWhenTheAnswerIsAlreadyThere)
{
    Marker marker;
    TimerEventProbe probe(marker.timer());
    TestResource* node = makeResource(Answer::AtOnce, Answer::AtOnce, 0);
    LogCapture log;

    const CMReply<void> result = node->onEnableAction();
    ASSERT_TRUE(marker.runTimersStartedSoFar());

    EXPECT_TRUE(succeeded(result));
    EXPECT_EQ(probe.count(), 0) << "a time-out timer fired for an action answered inside setData()";
    EXPECT_FALSE(log.containsFragment(log4cplus::ERROR_LOG_LEVEL, "failed to")) << log.dump();
    EXPECT_EQ(log.count(log4cplus::DEBUG_LOG_LEVEL, str(node->name()) + " is now enable"), 1) << log.dump();
}

// The write is answered after setData() has returned, before the event loop
// has run again: the zero-length timer that is then running must be
// stopped, or it fires at the next turn of the event loop.
TEST_F(ResourceActions, AnswerBeforeTheTimeoutStopsTheTimer)
{
    Marker marker;
    TimerEventProbe probe(marker.timer());

    // The probe sees a time-out timer fire when nobody answers.
    TestResource* silent = makeResource(Answer::Never, Answer::Never, 0);
    const CMReply<void> timedOut = silent->onEnableAction();
    ASSERT_TRUE(marker.runTimersStartedSoFar());
    ASSERT_TRUE(timedOut.isFinished());
    ASSERT_TRUE(isTimeoutError(timedOut.error()));
    const int firedBefore = probe.count();
    ASSERT_GE(firedBefore, 1);

    // Answered first: no time-out timer fires any more.
    TestResource* node = makeResource(Answer::Never, Answer::Never, 0);
    LogCapture log;
    const CMReply<void> result = node->onEnableAction();
    ASSERT_FALSE(result.isFinished());
    ASSERT_TRUE(answerPending(enablePath(node)));
    ASSERT_TRUE(marker.runTimersStartedSoFar());

    EXPECT_TRUE(succeeded(result));
    EXPECT_EQ(probe.count(), firedBefore) << "a time-out timer fired after its action had been answered";
    EXPECT_FALSE(log.containsFragment(log4cplus::ERROR_LOG_LEVEL, "failed to")) << log.dump();
    EXPECT_EQ(log.count(log4cplus::DEBUG_LOG_LEVEL, str(node->name()) + " is now enable"), 1) << log.dump();
}

TEST_F(ResourceActions, AnswerAfterTheTimeoutIsIgnored)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never, 10);
    LogCapture log;

    const CMReply<void> result = node->onEnableAction();
    ASSERT_TRUE(finishes(result));
    ASSERT_TRUE(isTimeoutError(result.error()));

    const CMReply<QVariant> watched = m_unanswered[0];
    watched.setValue(QVariant(true));
    drainEvents();

    EXPECT_TRUE(isTimeoutError(result.error()));
    EXPECT_TRUE(isTimeoutError(watched.error()));
    EXPECT_FALSE(log.containsFragment(log4cplus::DEBUG_LOG_LEVEL, " is now ")) << log.dump();
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL,
                        str(node->name()) + " failed to enable Message: " + str(CMVoidReply::ErrorTimeout())),
              1)
        << log.dump();
}

TEST_F(ResourceActions, EachCallStartsItsOwnWrite)
{
    TestResource* node = makeResource(Answer::Never, Answer::Never);

    const CMReply<void> first = node->onEnableAction();
    const CMReply<void> second = node->onEnableAction();

    EXPECT_NE(first, second);
    EXPECT_EQ(writesTo(enablePath(node)), 2);
    ASSERT_EQ(m_unanswered.size(), 2);
    m_unanswered[1].setValue(QVariant(true));
    ASSERT_TRUE(finishes(second));
    EXPECT_FALSE(first.isFinished());
}

// --- Storing the requests ---------------------------------------------------

TEST_F(ResourceActions, SettingTheStoredEnableRequestAgainChangesNothing)
{
    TestResource* node = makeResource();
    const QString path = QStringLiteral("/switching/first");
    handle(path, Answer::AtOnce);
    CMSetDataRequest request(CMPath(path), QStringLiteral("powered"), 1);
    node->setOnEnableActionRequest(request);

    node->setOnEnableActionRequest(request);

    EXPECT_TRUE(node->onEnableActionRequest() == request);
    // Still the one shared request: a change made through the caller's copy
    // is what the resource writes.
    request.setValue(2);
    const CMReply<void> result = node->onEnableAction();
    ASSERT_TRUE(finishes(result));
    ASSERT_EQ(m_writes.size(), 1u);
    EXPECT_EQ(m_writes[0].path, CMPath(path));
    EXPECT_EQ(m_writes[0].value, QVariant(2));
}

TEST_F(ResourceActions, SettingAnotherEnableRequestReplacesTheStoredOne)
{
    TestResource* node = makeResource();
    const QString firstPath = QStringLiteral("/switching/first");
    const QString secondPath = QStringLiteral("/switching/second");
    handle(firstPath, Answer::AtOnce);
    handle(secondPath, Answer::AtOnce);
    const CMSetDataRequest first(CMPath(firstPath), QStringLiteral("powered"), 1);
    // Same contents, but another handle: it replaces the first.
    const CMSetDataRequest lookalike(CMPath(firstPath), QStringLiteral("powered"), 1);
    const CMSetDataRequest second(CMPath(secondPath), QStringLiteral("powered"), 3);

    node->setOnEnableActionRequest(first);
    node->setOnEnableActionRequest(lookalike);
    EXPECT_TRUE(node->onEnableActionRequest() == lookalike);
    EXPECT_FALSE(node->onEnableActionRequest() == first);

    node->setOnEnableActionRequest(second);
    EXPECT_TRUE(node->onEnableActionRequest() == second);
    EXPECT_TRUE(node->onDisableActionRequest().isNull()) << "the other direction is untouched";

    const CMReply<void> result = node->onEnableAction();
    ASSERT_TRUE(finishes(result));
    EXPECT_EQ(writesTo(firstPath), 0);
    ASSERT_EQ(writesTo(secondPath), 1);
    EXPECT_EQ(m_writes[0].value, QVariant(3));
}

TEST_F(ResourceActions, SettingTheDisableRequestAgainKeepsItAndAnotherReplacesIt)
{
    TestResource* node = makeResource();
    const QString firstPath = QStringLiteral("/switching/off-first");
    const QString secondPath = QStringLiteral("/switching/off-second");
    handle(firstPath, Answer::AtOnce);
    handle(secondPath, Answer::AtOnce);
    const CMSetDataRequest first(CMPath(firstPath), QStringLiteral("powered"), false);
    const CMSetDataRequest second(CMPath(secondPath), QStringLiteral("powered"), false);

    node->setOnDisableActionRequest(first);
    node->setOnDisableActionRequest(first);
    EXPECT_TRUE(node->onDisableActionRequest() == first);
    const CMReply<void> once = node->onDisableAction();
    ASSERT_TRUE(finishes(once));
    EXPECT_EQ(writesTo(firstPath), 1);

    node->setOnDisableActionRequest(second);
    EXPECT_TRUE(node->onDisableActionRequest() == second);
    EXPECT_TRUE(node->onEnableActionRequest().isNull());
    const CMReply<void> twice = node->onDisableAction();
    ASSERT_TRUE(finishes(twice));
    EXPECT_EQ(writesTo(firstPath), 1);
    EXPECT_EQ(writesTo(secondPath), 1);
}
