// Single-threaded behaviour of replies: finishing once, watcher order and
// delivery, reference counting, the QVariant setter and whenAllFinished.

#include "cmerror.h"
#include "cmreply.h"
#include "dbglog.h"
#include "eventloop.h"
#include "velahash.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace {

CMError failure(const QString& name, const QString& message)
{
    return CMError(name, TrString(message));
}

CMReplyData<QVariant>* dataOf(const CMReply<QVariant>& reply)
{
    return static_cast<CMReplyData<QVariant>*>(reply.data());
}

// Reply data that reports its own destruction.
class TrackedData : public CMReplyData<QVariant>
{
public:
    explicit TrackedData(bool* destroyed) : m_destroyed(destroyed) {}
    ~TrackedData() override { *m_destroyed = true; }

private:
    bool* m_destroyed;
};

// Reply data that counts the calls reaching its overrides of the value getter
// and of the QVariant setter.
class InterceptingData : public CMReplyData<QVariant>
{
public:
    QVariant value() override
    {
        ++valueCalls;
        return CMReplyData<QVariant>::value();
    }
    void setVariant(const QVariant& value) override
    {
        ++setVariantCalls;
        CMReplyData<QVariant>::setVariant(value);
    }

    int valueCalls = 0;
    int setVariantCalls = 0;
};

} // namespace

// --- Fresh replies and handles ----------------------------------------------

TEST(Reply, NewTypedReplyIsUnfinishedWithEmptyError)
{
    CMReply<QVariant> reply;
    EXPECT_FALSE(!reply);
    EXPECT_FALSE(reply.isFinished());
    EXPECT_TRUE(reply.error().isEmpty());
    EXPECT_NE(dynamic_cast<CMReplyData<QVariant>*>(reply.data()), nullptr);
}

TEST(Reply, NewVoidReplyIsUnfinishedWithEmptyError)
{
    CMReply<void> reply;
    EXPECT_FALSE(!reply);
    EXPECT_FALSE(reply.isFinished());
    EXPECT_TRUE(reply.error().isEmpty());
}

TEST(Reply, DefaultUntypedHandleHasNoData)
{
    CMVoidReply handle;
    EXPECT_TRUE(!handle);
    EXPECT_EQ(handle.data(), nullptr);
}

TEST(Reply, EachDefaultConstructedReplyHasItsOwnData)
{
    CMReply<QVariant> first;
    CMReply<QVariant> second;
    EXPECT_NE(first, second);
    first.setValue(1);
    EXPECT_FALSE(second.isFinished());
}

TEST(Reply, CopiesShareOneReply)
{
    CMReply<QVariant> reply;
    const CMReply<QVariant> copy = reply;
    const CMVoidReply untyped = reply;
    EXPECT_EQ(copy, reply);
    EXPECT_EQ(untyped.data(), reply.data());
    copy.setValue(QStringLiteral("shared"));
    EXPECT_TRUE(reply.isFinished());
    EXPECT_TRUE(untyped.isFinished());
    EXPECT_EQ(reply.value().toString(), QStringLiteral("shared"));
}

TEST(Reply, ReplyDataIsDestroyedWithItsLastHandle)
{
    bool destroyed = false;
    {
        CMReply<QVariant> reply(new TrackedData(&destroyed));
        {
            CMVoidReply copy = reply;
            CMVoidReply moved = std::move(copy);
            EXPECT_TRUE(!copy);
            EXPECT_FALSE(!moved);
        }
        EXPECT_FALSE(destroyed);
        EXPECT_EQ(reply.data()->m_ref.loadAcquire(), 1);
    }
    EXPECT_TRUE(destroyed);
}

TEST(Reply, AssigningAHandleReleasesTheOldReply)
{
    bool destroyed = false;
    CMVoidReply handle{CMReply<QVariant>(new TrackedData(&destroyed))};
    EXPECT_FALSE(destroyed);
    handle = CMReply<void>();
    EXPECT_TRUE(destroyed);
}

TEST(Reply, UnfinishedReplyReleasesItsWatchersUnrun)
{
    auto token = std::make_shared<int>(0);
    bool ran = false;
    {
        CMReply<QVariant> reply;
        reply.onFinished([token, &ran](const CMReply<QVariant>&) { ran = true; });
        EXPECT_EQ(token.use_count(), 2);
    }
    EXPECT_EQ(token.use_count(), 1);
    drainEvents();
    EXPECT_FALSE(ran);
}

// --- Finishing once -----------------------------------------------------------

TEST(Reply, SetValueTwiceKeepsFirstValueAndWatchersRunOnce)
{
    CMReply<QVariant> reply;
    int runs = 0;
    QVariant seen;
    reply.onFinished([&](const CMReply<QVariant>& finished) {
        ++runs;
        seen = finished.value();
    });

    reply.setValue(1);
    reply.setValue(2);
    drainEvents();

    EXPECT_EQ(runs, 1);
    EXPECT_EQ(seen.toInt(), 1);
    EXPECT_EQ(reply.value().toInt(), 1);
    EXPECT_FALSE(reply.error().isError());
}

TEST(Reply, ErrorAfterValueIsIgnored)
{
    CMReply<QVariant> reply;
    int runs = 0;
    reply.onFinished([&](const CMReply<QVariant>&) { ++runs; });
    reply.setValue(QStringLiteral("first"));
    reply.setError(failure(QStringLiteral("org.test.Late"), QStringLiteral("too late")));
    EXPECT_EQ(runs, 1);
    EXPECT_FALSE(reply.error().isError());
    EXPECT_TRUE(reply.error().isEmpty());
    EXPECT_EQ(reply.value().toString(), QStringLiteral("first"));
}

TEST(Reply, ValueAfterErrorIsIgnored)
{
    CMReply<QVariant> reply;
    int runs = 0;
    reply.onFinished([&](const CMReply<QVariant>&) { ++runs; });
    reply.setError(failure(QStringLiteral("org.test.First"), QStringLiteral("first answer")));
    reply.setValue(7);
    reply.setError(failure(QStringLiteral("org.test.Second"), QStringLiteral("second answer")));
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(reply.error().name(), QStringLiteral("org.test.First"));
    EXPECT_FALSE(reply.value().isValid());
}

TEST(Reply, VoidSetValueFinishesWithSuccess)
{
    CMReply<void> reply;
    int runs = 0;
    bool sawSuccess = false;
    reply.onFinished([&](const CMReply<void>& finished) {
        ++runs;
        sawSuccess = finished.isFinished() && !finished.error().isError();
    });
    reply.setValue();
    reply.setValue();
    EXPECT_TRUE(reply.isFinished());
    EXPECT_FALSE(reply.error().isError());
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(sawSuccess);
}

TEST(Reply, VoidSetErrorFinishesWithTheError)
{
    CMReply<void> reply;
    CMError seen;
    QObject context;
    reply.onFinished(&context, [&](const CMReply<void>& finished) { seen = finished.error(); });
    const CMError error = failure(QStringLiteral("org.test.Void"), QStringLiteral("void failed"));
    reply.setError(error);
    EXPECT_TRUE(reply.isFinished());
    EXPECT_EQ(reply.error(), error);
    EXPECT_EQ(seen, error);
}

TEST(Reply, ValueGettersReturnACopyThatOutlivesTheReply)
{
    // Neither getter hands out a reference into the reply data.
    static_assert(std::is_same<decltype(std::declval<CMReplyData<QVariant>&>().value()), QVariant>::value,
                  "the value getter of the data returns a copy");
    static_assert(std::is_same<decltype(std::declval<const CMReply<QVariant>&>().value()), QVariant>::value,
                  "the value getter of the handle returns a copy");

    bool destroyed = false;
    std::optional<CMReply<QVariant>> reply{CMReply<QVariant>(new TrackedData(&destroyed))};
    reply->setValue(QVariantList{1, QStringLiteral("two")});
    const auto& fromData = dataOf(*reply)->value();
    const auto& fromHandle = reply->value();
    reply.reset();

    // The copies stay valid once the reply data is gone.
    ASSERT_TRUE(destroyed);
    EXPECT_EQ(fromData, QVariant(QVariantList{1, QStringLiteral("two")}));
    EXPECT_EQ(fromHandle, QVariant(QVariantList{1, QStringLiteral("two")}));
}

TEST(Reply, TypedViewOfUntypedHandleReadsTheValue)
{
    CMReply<QVariant> reply;
    reply.setValue(99);
    const CMVoidReply untyped = reply;
    const CMReply<QVariant> view(untyped);
    EXPECT_EQ(view.value().toInt(), 99);
}

TEST(Reply, TypedReplyOfOtherTypesCarriesItsValue)
{
    CMReply<int> number;
    CMReply<QString> text;
    int seenNumber = 0;
    number.onFinished([&](const CMReply<int>& finished) { seenNumber = finished.value(); });
    number.setValue(12);
    text.setValue(QStringLiteral("abc"));
    EXPECT_EQ(seenNumber, 12);
    EXPECT_EQ(text.value(), QStringLiteral("abc"));
}

// --- waitForFinished ------------------------------------------------------------

TEST(Reply, WaitForFinishedWithTimeOutOnUnfinishedReplyReturnsFalse)
{
    CMReply<QVariant> reply;
    EXPECT_FALSE(reply.waitForFinished(0));
    EXPECT_FALSE(reply.waitForFinished(5));
    EXPECT_FALSE(reply.data()->waitForFinished(1));
    EXPECT_FALSE(reply.isFinished());
}

TEST(Reply, WaitForFinishedOnFinishedReplyReturnsTrue)
{
    CMReply<void> reply;
    reply.setError(failure(QStringLiteral("org.test.Done"), QStringLiteral("done badly")));
    EXPECT_TRUE(reply.waitForFinished(0));
    EXPECT_TRUE(reply.waitForFinished());
    EXPECT_TRUE(reply.data()->waitForFinished(ULONG_MAX));
}

// --- Watcher order and the lock -------------------------------------------------

TEST(Reply, WatchersRunOnceInTheOrderTheyWereAttached)
{
    CMReply<QVariant> reply;
    QList<int> order;
    QObject context;
    reply.onFinished([&](const CMReply<QVariant>&) { order << 0; });
    reply.addWatcher(nullptr, [&](const CMVoidReply&) { order << 1; });
    reply.onFinished(&context, [&](const CMReply<QVariant>&) { order << 2; });
    reply.addWatcher(&context, [&](const CMVoidReply&) { order << 3; });
    reply.onFinished([&](const CMReply<QVariant>&) { order << 4; }, Qt::DirectConnection);
    reply.onFinished([&](const CMReply<QVariant>&) { order << 5; });
    EXPECT_TRUE(order.isEmpty());

    reply.setValue(0);
    drainEvents();

    EXPECT_EQ(order, (QList<int>{0, 1, 2, 3, 4, 5}));
}

TEST(Reply, WatchersRunAfterTheReplyLockIsReleased)
{
    CMReply<QVariant> reply;
    int watchersSeeingFreeLock = 0;
    auto checkLock = [&](const CMReply<QVariant>& finished) {
        // A second lock on the same thread succeeds only if the finisher
        // released it before calling out.
        if (finished.data()->m_mutex.tryLock()) {
            finished.data()->m_mutex.unlock();
            ++watchersSeeingFreeLock;
        }
    };
    reply.onFinished(checkLock);
    reply.onFinished(checkLock, Qt::DirectConnection);
    reply.setValue(1);
    EXPECT_EQ(watchersSeeingFreeLock, 2);
}

TEST(Reply, WatchersOfAnErrorOrVoidFinishRunAfterTheReplyLockIsReleased)
{
    // The other two ways to finish: an error, and success without a value.
    CMReply<QVariant> failed;
    CMReply<void> done;
    int watchersSeeingFreeLock = 0;
    const auto checkLock = [&](const CMVoidReply& finished) {
        if (finished.data()->m_mutex.tryLock()) {
            finished.data()->m_mutex.unlock();
            ++watchersSeeingFreeLock;
        }
    };
    for (const CMVoidReply& reply : {CMVoidReply(failed), CMVoidReply(done)}) {
        reply.addWatcher(nullptr, checkLock);
        reply.addWatcher(nullptr, checkLock, Qt::DirectConnection);
    }
    failed.setError(failure(QStringLiteral("org.test.Locked"), QStringLiteral("finished with an error")));
    EXPECT_EQ(watchersSeeingFreeLock, 2);
    done.setValue();
    EXPECT_EQ(watchersSeeingFreeLock, 4);
}

TEST(Reply, WatcherReadsItsOwnReplyWithoutDeadlock)
{
    CMReply<QVariant> reply;
    bool finishedSeen = false;
    QVariant valueSeen;
    CMError errorSeen = failure(QStringLiteral("org.test.Unset"), QStringLiteral("not read"));
    reply.onFinished([&](const CMReply<QVariant>& finished) {
        finishedSeen = finished.isFinished();
        valueSeen = finished.value();
        errorSeen = finished.error();
    });
    reply.setValue(QStringLiteral("read me"));
    EXPECT_TRUE(finishedSeen);
    EXPECT_EQ(valueSeen.toString(), QStringLiteral("read me"));
    EXPECT_TRUE(errorSeen.isEmpty());
}

TEST(Reply, WatcherCanAttachAnotherContinuationToItsReply)
{
    CMReply<QVariant> reply;
    QStringList trace;
    reply.onFinished([&](const CMReply<QVariant>& finished) {
        trace << QStringLiteral("outer begin");
        finished.onFinished([&](const CMReply<QVariant>& again) {
            trace << QStringLiteral("inner %1").arg(again.value().toInt());
        });
        trace << QStringLiteral("outer end");
    });
    reply.onFinished([&](const CMReply<QVariant>&) { trace << QStringLiteral("second"); });

    reply.setValue(5);
    drainEvents();

    // The continuation attached from inside runs once, after the running
    // watcher has returned; the watchers attached earlier keep their order.
    ASSERT_EQ(trace.count(QStringLiteral("inner 5")), 1) << trace.join(QStringLiteral(", ")).toStdString();
    EXPECT_EQ(trace.indexOf(QStringLiteral("outer begin")), 0);
    EXPECT_EQ(trace.indexOf(QStringLiteral("outer end")), 1);
    EXPECT_GT(trace.indexOf(QStringLiteral("inner 5")), trace.indexOf(QStringLiteral("outer end")));
    EXPECT_GT(trace.indexOf(QStringLiteral("second")), trace.indexOf(QStringLiteral("outer end")));
    EXPECT_EQ(trace.size(), 4);
}

TEST(Reply, WatcherCanFinishAnotherReply)
{
    CMReply<QVariant> first;
    CMReply<void> second;
    QStringList trace;
    second.onFinished([&](const CMReply<void>&) { trace << QStringLiteral("second finished"); });
    first.onFinished([&](const CMReply<QVariant>& finished) {
        trace << QStringLiteral("first finished");
        second.setValue();
        // The other reply is finished at once; its own watchers wait until
        // this one has returned.
        trace << (second.isFinished() ? QStringLiteral("second is finished") : QStringLiteral("second pending"));
        EXPECT_EQ(finished.value().toInt(), 3);
    });

    first.setValue(3);

    EXPECT_TRUE(second.isFinished());
    EXPECT_EQ(trace, (QStringList{QStringLiteral("first finished"), QStringLiteral("second is finished"),
                                  QStringLiteral("second finished")}));
}

TEST(Reply, WatcherCanFinishItsOwnReplyAgainWithoutEffect)
{
    CMReply<QVariant> reply;
    int runs = 0;
    reply.onFinished([&](const CMReply<QVariant>& finished) {
        ++runs;
        finished.setValue(2);
        finished.setError(failure(QStringLiteral("org.test.Again"), QStringLiteral("again")));
    });
    reply.setValue(1);
    drainEvents();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(reply.value().toInt(), 1);
    EXPECT_FALSE(reply.error().isError());
}

TEST(Reply, ReplyDataStaysAliveWhileItsWatchersRun)
{
    bool destroyed = false;
    auto* data = new TrackedData(&destroyed);
    std::optional<CMReply<QVariant>> lastOutsideHandle{CMReply<QVariant>(data)};
    bool destroyedInsideWatcher = true;
    QVariant seenAfterDrop;
    lastOutsideHandle->onFinished([&](const CMReply<QVariant>& finished) {
        lastOutsideHandle.reset();
        destroyedInsideWatcher = destroyed;
        seenAfterDrop = finished.value();
    });

    data->finishWithValue(QStringLiteral("alive"));

    EXPECT_FALSE(destroyedInsideWatcher);
    EXPECT_EQ(seenAfterDrop.toString(), QStringLiteral("alive"));
    EXPECT_TRUE(destroyed);
}

TEST(Reply, ContextDestroyedWhileItsContinuationIsDueDropsIt)
{
    CMReply<void> first;
    CMReply<void> second;
    QObject* context = new QObject;
    bool droppedRan = false;
    bool laterRan = false;
    second.onFinished(context, [&](const CMReply<void>&) { droppedRan = true; });
    second.onFinished([&](const CMReply<void>&) { laterRan = true; });
    first.onFinished([&](const CMReply<void>&) {
        // The second reply's watchers are now due, to run after this one.
        second.setValue();
        delete context;
    });

    first.setValue();
    drainEvents();

    EXPECT_FALSE(droppedRan);
    EXPECT_TRUE(laterRan);
}

// --- Watchers added after the finish --------------------------------------------

TEST(Reply, WatcherAddedAfterFinishRunsOnce)
{
    CMReply<QVariant> reply;
    reply.setValue(QStringLiteral("early"));
    int runs = 0;
    QVariant seen;
    reply.onFinished([&](const CMReply<QVariant>& finished) {
        ++runs;
        seen = finished.value();
    });
    // Automatic delivery on the finishing thread: at once.
    EXPECT_EQ(runs, 1);
    drainEvents();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(seen.toString(), QStringLiteral("early"));
}

TEST(Reply, WatchersAddedAfterFinishKeepTheirOrder)
{
    CMReply<void> reply;
    reply.setValue();
    QList<int> order;
    for (int i = 0; i < 4; ++i)
        reply.onFinished([&order, i](const CMReply<void>&) { order << i; });
    drainEvents();
    EXPECT_EQ(order, (QList<int>{0, 1, 2, 3}));
}

TEST(Reply, WatcherAddedAfterErrorSeesTheError)
{
    CMReply<QVariant> reply;
    reply.setError(failure(QStringLiteral("org.test.Before"), QStringLiteral("failed before watching")));
    QString seenName;
    reply.addWatcher(nullptr, [&](const CMVoidReply& finished) { seenName = finished.error().name(); });
    drainEvents();
    EXPECT_EQ(seenName, QStringLiteral("org.test.Before"));
}

// --- The QVariant setter of CMReplyData<QVariant> -------------------------------

TEST(Reply, SetVariantUnwrapsNestedVariant)
{
    CMReply<QVariant> reply;
    const QVariant inner(QStringLiteral("inner text"));
    const QVariant outer(QMetaType::QVariant, &inner);
    ASSERT_EQ(outer.userType(), static_cast<int>(QMetaType::QVariant));

    int runs = 0;
    reply.onFinished([&](const CMReply<QVariant>&) { ++runs; });
    dataOf(reply)->setVariant(outer);

    EXPECT_EQ(runs, 1);
    EXPECT_EQ(reply.value().userType(), static_cast<int>(QMetaType::QString));
    EXPECT_EQ(reply.value().toString(), QStringLiteral("inner text"));
}

TEST(Reply, SetVariantStoresPlainVariantAsIs)
{
    CMReply<QVariant> reply;
    const QVariant plain = QVariantHash{{QStringLiteral("key"), 4}};
    dataOf(reply)->setVariant(plain);
    EXPECT_TRUE(reply.isFinished());
    EXPECT_EQ(reply.value(), plain);
}

TEST(Reply, SetVariantFinishesOnlyOnce)
{
    CMReply<QVariant> reply;
    int runs = 0;
    reply.onFinished([&](const CMReply<QVariant>&) { ++runs; });
    dataOf(reply)->setVariant(QVariant(1));
    dataOf(reply)->setVariant(QVariant(2));
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(reply.value().toInt(), 1);
}

TEST(Reply, SetVariantOfOtherTypedDataConvertsTheVariant)
{
    CMReply<int> reply;
    static_cast<CMReplyData<int>*>(reply.data())->setVariant(QVariant(QStringLiteral("41")));
    EXPECT_TRUE(reply.isFinished());
    EXPECT_EQ(reply.value(), 41);
}

TEST(Reply, ValueGetterAndVariantSetterOfTheDataAreVirtual)
{
    auto* data = new InterceptingData;
    const CMReply<QVariant> reply(data);
    CMReplyData<QVariant>* base = data;

    base->setVariant(QVariant(8));
    EXPECT_EQ(data->setVariantCalls, 1);
    EXPECT_EQ(base->value().toInt(), 8);
    EXPECT_EQ(data->valueCalls, 1);
    // The handle's getter goes through the same virtual getter.
    EXPECT_EQ(reply.value().toInt(), 8);
    EXPECT_EQ(data->valueCalls, 2);
}

// --- whenAllFinished ------------------------------------------------------------

TEST(WhenAllFinished, EmptyListFinishesAtOnceWithSuccess)
{
    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished({});
    ASSERT_TRUE(all.isFinished());
    EXPECT_FALSE(all.error().isError());
    EXPECT_TRUE(all.value().isEmpty());

    int runs = 0;
    all.onFinished([&](const CMReply<QList<CMVoidReply>>&) { ++runs; });
    drainEvents();
    EXPECT_EQ(runs, 1);
}

TEST(WhenAllFinished, AllSuccessfulFinishesWithoutErrorAndListsTheReplies)
{
    CMReply<QVariant> a;
    CMReply<void> b;
    CMReply<QVariant> c;
    const QList<CMVoidReply> replies{a, b, c};
    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished(replies);
    int runs = 0;
    all.onFinished([&](const CMReply<QList<CMVoidReply>>&) { ++runs; });

    c.setValue(3);
    EXPECT_FALSE(all.isFinished());
    a.setValue(1);
    EXPECT_FALSE(all.isFinished());
    b.setValue();
    drainEvents();

    ASSERT_TRUE(all.isFinished());
    EXPECT_EQ(runs, 1);
    EXPECT_FALSE(all.error().isError());
    const QList<CMVoidReply> value = all.value();
    ASSERT_EQ(value.size(), 3);
    EXPECT_EQ(value.at(0), a);
    EXPECT_EQ(value.at(1), b);
    EXPECT_EQ(value.at(2), c);
    EXPECT_EQ(CMReply<QVariant>(value.at(2)).value().toInt(), 3);
}

TEST(WhenAllFinished, OneFailedReplyGivesItsErrorAndTheListStillHoldsAll)
{
    CMReply<QVariant> ok1;
    CMReply<void> failed;
    CMReply<QVariant> ok2;
    const QList<CMVoidReply> replies{ok1, failed, ok2};
    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished(replies);

    const CMError error = failure(QStringLiteral("org.test.Broken"), QStringLiteral("the middle one failed"));
    ok1.setValue(1);
    failed.setError(error);
    EXPECT_FALSE(all.isFinished());
    ok2.setValue(2);

    ASSERT_TRUE(all.isFinished());
    EXPECT_TRUE(all.error().isError());
    EXPECT_EQ(all.error().name(), QStringLiteral("org.test.Broken"));
    EXPECT_EQ(all.error().message().toString(), QStringLiteral("the middle one failed"));
    EXPECT_EQ(all.error().title(), error.title());
    EXPECT_EQ(all.value(), replies);
}

TEST(WhenAllFinished, SeveralFailedRepliesGiveTheFirstErrorInListOrder)
{
    CMReply<QVariant> first;
    CMReply<QVariant> second;
    CMReply<QVariant> third;
    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished({first, second, third});

    // Finished in the opposite order of the list.
    third.setError(failure(QStringLiteral("org.test.Third"), QStringLiteral("third")));
    second.setValue(2);
    first.setError(failure(QStringLiteral("org.test.First"), QStringLiteral("first")));

    ASSERT_TRUE(all.isFinished());
    EXPECT_EQ(all.error().name(), QStringLiteral("org.test.First"));
    EXPECT_EQ(all.error().message().toString(), QStringLiteral("first"));
    const QList<CMVoidReply> value = all.value();
    ASSERT_EQ(value.size(), 3);
    EXPECT_EQ(value.at(2).error().name(), QStringLiteral("org.test.Third"));
}

TEST(WhenAllFinished, AlreadyFinishedRepliesJoinAtOnce)
{
    CMReply<QVariant> a;
    CMReply<void> b;
    a.setValue(1);
    b.setValue();
    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished({a, b});
    ASSERT_TRUE(all.isFinished());
    EXPECT_FALSE(all.error().isError());
    EXPECT_EQ(all.value().size(), 2);
}

TEST(WhenAllFinished, ErrorWithEmptyNameCountsAsSuccess)
{
    CMReply<QVariant> quiet;
    CMReply<QVariant> noName;
    CMError nameless;
    nameless.insert(CMError::Message(), QVariant::fromValue(TrString("only a message")));
    nameless.insert(CMError::Title(), QVariant::fromValue(TrString("only a title")));
    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished({quiet, noName});
    quiet.setError(CMError());
    noName.setError(nameless);
    ASSERT_TRUE(all.isFinished());
    EXPECT_FALSE(all.error().isError());
}

TEST(WhenAllFinished, HandlesWithoutDataCountAsFinished)
{
    CMReply<QVariant> real;
    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished({CMVoidReply(), real});
    EXPECT_FALSE(all.isFinished());
    real.setValue(1);
    ASSERT_TRUE(all.isFinished());
    EXPECT_FALSE(all.error().isError());
    EXPECT_EQ(all.value().size(), 2);
}

TEST(WhenAllFinished, SameReplyListedTwiceFinishesOnce)
{
    CMReply<QVariant> reply;
    const CMReply<QList<CMVoidReply>> all = CMVoidReply::whenAllFinished({reply, reply});
    int runs = 0;
    all.onFinished([&](const CMReply<QList<CMVoidReply>>&) { ++runs; });
    reply.setValue(1);
    drainEvents();
    ASSERT_TRUE(all.isFinished());
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(all.value().size(), 2);
}

TEST(WhenAllFinished, JoinDoesNotKeepUnfinishedRepliesAlive)
{
    bool destroyed = false;
    CMReply<QList<CMVoidReply>> all;
    {
        CMReply<QVariant> unfinished(new TrackedData(&destroyed));
        all = CMVoidReply::whenAllFinished({unfinished});
    }
    // The only reference to the unfinished reply was the caller's.
    EXPECT_TRUE(destroyed);
    EXPECT_FALSE(all.isFinished());
}

TEST(WhenAllFinished, NestedJoinsFinishWhenTheInnerRepliesDo)
{
    CMReply<QVariant> a;
    CMReply<QVariant> b;
    const CMReply<QList<CMVoidReply>> inner = CMVoidReply::whenAllFinished({a});
    const CMReply<QList<CMVoidReply>> outer = CMVoidReply::whenAllFinished({inner, b});
    b.setValue(2);
    EXPECT_FALSE(outer.isFinished());
    a.setError(failure(QStringLiteral("org.test.Inner"), QStringLiteral("inner failed")));
    ASSERT_TRUE(outer.isFinished());
    EXPECT_EQ(outer.error().name(), QStringLiteral("org.test.Inner"));
}

TEST(Reply, ErrorTimeoutMessageIsNotEmpty)
{
    EXPECT_FALSE(CMVoidReply::ErrorTimeout().isEmpty());
    const CMError timedOut{TrString(CMVoidReply::ErrorTimeout())};
    EXPECT_TRUE(timedOut.isError());
    EXPECT_EQ(timedOut.message().toString(), CMVoidReply::ErrorTimeout());
}
