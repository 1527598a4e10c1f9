// How continuations are kept and called: lambdas stored in their watcher,
// std::function continuations beside them, the handle a continuation is
// given, and reads of a finished reply that do not need its lock.

#include "cmerror.h"
#include "cmreply.h"

#include <QList>
#include <QMutex>
#include <QString>
#include <QVariant>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

namespace {

// Reply data that reports its own destruction.
class TrackedData : public CMReplyData<QVariant>
{
public:
    explicit TrackedData(bool* destroyed)
        : m_destroyed(destroyed)
    {
    }
    ~TrackedData() override { *m_destroyed = true; }

private:
    bool* m_destroyed;
};

// Runs `read` on another thread and answers whether it returned within the
// watchdog; a read that blocks is left behind, the test failing instead of
// hanging.
bool returnsWhileLockIsHeld(const std::function<void()>& read)
{
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> returned = done->get_future();
    std::thread([read, done] {
        read();
        done->set_value();
    }).detach();
    return returned.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
}

} // namespace

TEST(ReplyContinuations, LambdasAndStdFunctionsRunInTheOrderTheyWereAttached)
{
    CMReply<QVariant> reply;
    QList<QString> runs;
    const CMReply<QVariant>::Function kept = [&runs](const CMReply<QVariant>& finished) {
        runs.append(QStringLiteral("function ") + finished.value().toString());
    };
    reply.onFinished([&runs](const CMReply<QVariant>& finished) {
        runs.append(QStringLiteral("lambda ") + finished.value().toString());
    });
    reply.onFinished(kept);
    reply.onFinished(nullptr, [&runs](const CMReply<QVariant>&) { runs.append(QStringLiteral("context lambda")); });
    reply.addWatcher(nullptr, [&runs](const CMVoidReply& finished) {
        runs.append(QStringLiteral("untyped ") + QString::number(finished.isFinished()));
    });
    reply.addWatcher(nullptr, std::function<void(const CMVoidReply&)>(
                                  [&runs](const CMVoidReply&) { runs.append(QStringLiteral("untyped function")); }));

    reply.setValue(QStringLiteral("x"));

    EXPECT_EQ(runs, (QList<QString>{QStringLiteral("lambda x"), QStringLiteral("function x"),
                                    QStringLiteral("context lambda"), QStringLiteral("untyped 1"),
                                    QStringLiteral("untyped function")}));
}

TEST(ReplyContinuations, VoidLambdasAndStdFunctionsRunInTheOrderTheyWereAttached)
{
    CMReply<void> reply;
    QList<int> runs;
    reply.onFinished([&runs](const CMReply<void>& finished) { runs.append(finished.isFinished() ? 1 : -1); });
    reply.onFinished(CMReply<void>::Function([&runs](const CMReply<void>&) { runs.append(2); }));
    reply.onFinished(nullptr, [&runs](const CMReply<void>&) { runs.append(3); });

    reply.setValue();

    EXPECT_EQ(runs, (QList<int>{1, 2, 3}));
}

TEST(ReplyContinuations, LambdaKeptUnrunIsReleasedWithItsReply)
{
    // The captures of a continuation that never runs go with the reply.
    auto capture = std::make_shared<int>(7);
    std::weak_ptr<int> watched = capture;
    {
        CMReply<QVariant> reply;
        reply.onFinished([capture](const CMReply<QVariant>&) {});
        capture.reset();
        EXPECT_FALSE(watched.expired());
    }
    EXPECT_TRUE(watched.expired());
}

TEST(ReplyContinuations, LambdaIsReleasedOnceItHasRun)
{
    auto capture = std::make_shared<int>(7);
    std::weak_ptr<int> watched = capture;
    CMReply<void> reply;
    reply.onFinished([capture](const CMReply<void>&) {});
    capture.reset();

    reply.setValue();

    EXPECT_TRUE(watched.expired());
}

TEST(ReplyContinuations, HandleKeptByAContinuationKeepsTheReplyAlive)
{
    // A continuation is called with a handle that borrows the delivering
    // reference; a copy it keeps must count as a reference of its own.
    bool destroyed = false;
    CMReply<QVariant> kept(nullptr);
    {
        CMReply<QVariant> reply(new TrackedData(&destroyed));
        reply.onFinished([&kept](const CMReply<QVariant>& finished) { kept = finished; });
        reply.setValue(5);
    }
    EXPECT_FALSE(destroyed);
    ASSERT_FALSE(!kept);
    EXPECT_EQ(kept.value().toInt(), 5);
    kept = CMReply<QVariant>(nullptr);
    EXPECT_TRUE(destroyed);
}

TEST(ReplyContinuations, VoidHandleKeptByAContinuationKeepsTheReplyAlive)
{
    CMVoidReply kept;
    {
        CMReply<void> reply;
        reply.onFinished([&kept](const CMReply<void>& finished) { kept = finished; });
        reply.setError(CMError(QStringLiteral("Gone"), TrString(QStringLiteral("kept"))));
    }
    ASSERT_FALSE(!kept);
    EXPECT_TRUE(kept.isFinished());
    EXPECT_EQ(kept.error().name(), QStringLiteral("Gone"));
}

TEST(ReplyContinuations, ContinuationDroppingTheLastOutsideHandleStillReadsItsReply)
{
    bool destroyed = false;
    auto* outside = new CMReply<QVariant>(new TrackedData(&destroyed));
    int read = 0;
    outside->onFinished([&](const CMReply<QVariant>& finished) {
        delete outside;
        outside = nullptr;
        read = finished.value().toInt();
    });
    outside->setValue(9);
    EXPECT_EQ(read, 9);
    EXPECT_TRUE(destroyed);
}

TEST(ReplyContinuations, FinishedReplyIsReadWhileItsLockIsHeld)
{
    // Once finished, a reply's flag, error and value no longer change: they
    // are read without its lock, so a reader is not held up by a thread that
    // holds it.
    CMReply<QVariant> reply;
    reply.setError(CMError(QStringLiteral("Broken"), TrString(QStringLiteral("read"))));
    QMutexLocker held(&reply.data()->m_mutex);

    // Shared with the reading thread, which outlives a failed test.
    struct Read {
        bool finished = false;
        QString name;
        QVariant value = QVariant(1);
    };
    auto read = std::make_shared<Read>();
    EXPECT_TRUE(returnsWhileLockIsHeld([read, reply] {
        read->finished = reply.isFinished();
        read->name = reply.error().name();
        read->value = reply.value();
    }));
    EXPECT_TRUE(read->finished);
    EXPECT_EQ(read->name, QStringLiteral("Broken"));
    EXPECT_FALSE(read->value.isValid());
}

TEST(ReplyContinuations, WatcherAddedToAFinishedReplyRunsWhileItsLockIsHeld)
{
    CMReply<void> reply;
    reply.setValue();
    QMutexLocker held(&reply.data()->m_mutex);
    auto ran = std::make_shared<std::atomic<bool>>(false);
    EXPECT_TRUE(returnsWhileLockIsHeld([ran, reply] {
        reply.addWatcher(
            nullptr, [ran](const CMVoidReply&) { *ran = true; }, Qt::DirectConnection);
    }));
    EXPECT_TRUE(*ran);
}

TEST(ReplyContinuations, JoinOfRepliesFinishedLaterCarriesTheListAndTheFirstError)
{
    CMReply<QVariant> first;
    CMReply<void> second;
    CMReply<QVariant> third;
    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished({first, second, third});
    QList<CMVoidReply> seen;
    QString error;
    all.onFinished([&](const CMReply<QList<CMVoidReply>>& joined) {
        seen = joined.value();
        error = joined.error().name();
    });

    third.setError(CMError(QStringLiteral("Third"), TrString(QStringLiteral("late"))));
    second.setError(CMError(QStringLiteral("Second"), TrString(QStringLiteral("later"))));
    EXPECT_FALSE(all.isFinished());
    first.setValue(1);

    ASSERT_TRUE(all.isFinished());
    EXPECT_EQ(seen, (QList<CMVoidReply>{first, second, third}));
    EXPECT_EQ(error, QStringLiteral("Second"));
}

TEST(ReplyContinuations, JoinOfFinishedRepliesOutsideAnyContinuationIsFinishedAtOnce)
{
    CMReply<QVariant> first;
    CMReply<void> second;
    first.setValue(1);
    second.setError(CMError(QStringLiteral("Second"), TrString(QStringLiteral("done"))));

    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished({first, CMVoidReply(), second});

    ASSERT_TRUE(all.isFinished());
    EXPECT_EQ(all.value(), (QList<CMVoidReply>{first, CMVoidReply(), second}));
    EXPECT_EQ(all.error().name(), QStringLiteral("Second"));
}

TEST(ReplyContinuations, JoinMadeInsideAContinuationCountsAFinishedReplyInTurn)
{
    // Inside a continuation, a finished member is counted when its turn in
    // the drain loop comes: after what was due before it, so the join's own
    // continuation runs after one queued by the same continuation later on.
    CMReply<void> trigger;
    CMReply<void> finished;
    finished.setValue();
    CMReply<void> later;
    QList<QString> runs;
    bool joinFinishedAtOnce = true;
    later.onFinished([&runs](const CMReply<void>&) { runs.append(QStringLiteral("later")); });
    trigger.onFinished([&](const CMReply<void>&) {
        const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished({finished});
        joinFinishedAtOnce = all.isFinished();
        all.onFinished([&runs](const CMReply<QList<CMVoidReply>>&) { runs.append(QStringLiteral("join")); });
        later.setValue();
    });

    trigger.setValue();

    EXPECT_FALSE(joinFinishedAtOnce);
    EXPECT_EQ(runs, (QList<QString>{QStringLiteral("later"), QStringLiteral("join")}));
}

TEST(ReplyContinuations, UnfinishedJoinIsReleasedWithItsLastHandle)
{
    // A finished member sits in the join's value; the unfinished one holds
    // the join through the watcher it carries. Once that member is gone, the
    // join's own handle is all that keeps the join, and with it the finished
    // member, alive.
    bool finishedDestroyed = false;
    bool pendingDestroyed = false;
    auto finished = std::make_unique<CMReply<QVariant>>(new TrackedData(&finishedDestroyed));
    finished->setValue(1);
    auto pending = std::make_unique<CMReply<QVariant>>(new TrackedData(&pendingDestroyed));
    auto join = std::make_unique<CMVoidReply>(CMVoidReply::whenAllFinished({*finished, *pending}));

    finished.reset();
    EXPECT_FALSE(finishedDestroyed);
    pending.reset();
    EXPECT_TRUE(pendingDestroyed);
    EXPECT_FALSE(finishedDestroyed);
    EXPECT_FALSE(join->isFinished());

    join.reset();
    EXPECT_TRUE(finishedDestroyed);
}

TEST(ReplyContinuationsDeathTest, StdFunctionContinuationOnReplyOfAnotherTypeStops)
{
    EXPECT_DEATH(
        {
            CMReply<QVariant> reply;
            const CMReply<int> wrongView(static_cast<const CMVoidReply&>(reply));
            wrongView.onFinished(CMReply<int>::Function([](const CMReply<int>&) {}));
            reply.setValue(1);
        },
        "ASSERT failure in CMReply: \"Wrong type passed to CMReply::onFinished\\(\\)!\", file "
        "api/core/model/cmreply, line 689\n");
}
