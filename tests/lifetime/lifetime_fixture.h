#ifndef VELA_TESTS_LIFETIME_FIXTURE_H
#define VELA_TESTS_LIFETIME_FIXTURE_H

// A handler whose work is stuck on the platform, destroyed with its nodes
// while the platform still holds a call or has dropped it: the set-up and
// the tear-down that the lifetime tests share.

#include "leakcheck.h"

#include "PowerHandler.h"
#include "PowerNode.h"

#include "cmreply.h"
#include "cmrequest.h"
#include "cmrootworker.h"
#include "dbglog.h"
#include "eventloop.h"
#include "velapowerenums.h"
#include "velapowermanagermoduleregister.h"
#include "velapowermanagerresourcerequest.h"
#include "velapowermanagertarget.h"

#include <QElapsedTimer>
#include <QList>
#include <QString>

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <vector>

namespace lifetimetest {

// What the platform does with a call it never answers.
enum class Unanswered {
    Kept,   // holds the reply until the handler and the nodes are gone
    Dropped // lets go of it at once
};

inline const char* nameOf(Unanswered unanswered)
{
    return unanswered == Unanswered::Kept ? "Kept" : "Dropped";
}

// How test names show the parameter.
inline void PrintTo(Unanswered unanswered, std::ostream* stream)
{
    *stream << nameOf(unanswered);
}

class LifetimeTest : public ::testing::TestWithParam<Unanswered>
{
protected:
    static constexpr int timeoutMs = 30;

    LifetimeTest()
        : m_handler(new PowerHandler)
    {
        vela::powerManagerLogger().setLogLevel(log4cplus::OFF_LOG_LEVEL);
        m_handler->registerModule(VelaPowerManagerModuleRegister(VelaPowerManagerName(), CMPath(), CMPath()));
        m_handler->registerModule(VelaPowerManagerModuleRegister(module(), CMPath(revokePath()), CMPath()));
    }

    ~LifetimeTest() override
    {
        CMRootWorker::instance()->clearHandlers();
        vela::powerManagerLogger().setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
    }

    // Whatever an earlier test of this program left behind would be
    // counted against this one.
    void SetUp() override
    {
        if (LeakCheck::available()) {
            ASSERT_FALSE(LeakCheck::leaksNow()) << "leaks from before this test";
        }
    }

    static QString module() { return QStringLiteral("keeper"); }
    static QString revokePath() { return QStringLiteral("/lifetime/keeper/revoke"); }

    // A registered resource with a short time-out whose writes are answered
    // at once, or never when `writesAnswered` is false.
    PowerResource* addResource(int value, bool writesAnswered)
    {
        auto* resource = new PowerResource(static_cast<VelaPowerManagerResources::Enum>(value), timeoutMs);
        m_nodes.emplace_back(resource);
        for (const bool on : {true, false}) {
            const CMPath path(QStringLiteral("/lifetime/%1/%2").arg(value).arg(on ? "on" : "off"));
            const CMSetDataRequest write(path, QStringLiteral("power"), QVariant(on));
            on ? resource->setOnEnableActionRequest(write) : resource->setOnDisableActionRequest(write);
            CMRootWorker::instance()->registerSetDataHandler(
                path, [this, writesAnswered](const CMPath&, const QString&, const QVariant&, CMReply<QVariant> reply) {
                    ++m_writes;
                    writesAnswered ? reply.setValue(QVariant(true)) : leaveUnanswered(reply);
                });
        }
        m_handler->registerResource(resource);
        return resource;
    }

    PowerTarget* addTarget(int value)
    {
        auto* target = new PowerTarget(static_cast<VelaPowerManagerTargets::Enum>(value));
        m_nodes.emplace_back(target);
        return target;
    }

    // Revoke messages to the module are never answered.
    void leaveRevokesUnanswered()
    {
        CMRootWorker::instance()->registerInvokeHandler(
            CMPath(revokePath()), [this](const CMPath&, const VelaHash&, CMReply<QVariant> reply) {
                ++m_revokes;
                leaveUnanswered(reply);
            });
    }

    void leaveUnanswered(const CMReply<QVariant>& reply)
    {
        if (GetParam() == Unanswered::Kept)
            m_kept.append(reply);
    }

    // The module claims the resource; the claim is granted before this returns.
    void claim(PowerResource* resource, VelaPowerModuleActions::Enum action)
    {
        CMReply<QVariant> answer;
        m_handler->requestResource(VelaPowerManagerResourceRequest(resource->resource(), module(), action), answer);
        ASSERT_TRUE(waitUntil([&] { return answer.isFinished(); }));
        ASSERT_FALSE(answer.error().isError());
    }

    // Lets whatever is due run: answers from the event loop, continuations.
    void settle() { drainEvents(); }

    // Runs the event loop until a time-out started now would have fired.
    static void passTheTimeOut()
    {
        QElapsedTimer clock;
        clock.start();
        waitUntil([&] { return clock.elapsed() > 4 * timeoutMs; });
    }

    void destroyHandler()
    {
        m_handler.reset();
        settle();
    }

    // Last made, first gone: a node goes before the nodes it holds edges to.
    void destroyNodes()
    {
        while (!m_nodes.empty())
            m_nodes.pop_back();
        settle();
    }

    // The platform finally lets go of the calls it kept.
    void releaseKeptCalls()
    {
        m_kept.clear();
        CMRootWorker::instance()->clearHandlers();
        settle();
    }

    void expectNothingLeaked()
    {
        if (!LeakCheck::available())
            GTEST_SKIP() << "nothing to look with: " << LeakCheck::unavailableReason();
        EXPECT_FALSE(LeakCheck::leaksNow()) << "see the leak report above";
    }

    // Declared before the handler: the nodes outlive it.
    std::vector<std::unique_ptr<PowerNode>> m_nodes;
    std::unique_ptr<PowerHandler> m_handler;
    QList<CMReply<QVariant>> m_kept;
    int m_writes = 0;
    int m_revokes = 0;
};

} // namespace lifetimetest

#endif
