// The stand-alone root worker: routing set-data and invoke calls to the
// handler registered for their path.

#include "cmabstractworker.h"
#include "cmrootworker.h"
#include "dbglog.h"
#include "eventloop.h"
#include "velahash.h"

#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <optional>

namespace {

class RootWorker : public ::testing::Test
{
protected:
    void TearDown() override { root()->clearHandlers(); }

    static CMRootWorker* root() { return static_cast<CMRootWorker*>(CMRoot()); }
};

} // namespace

TEST_F(RootWorker, CMRootIsTheProcessWideRootWorker)
{
    ASSERT_NE(CMRoot(), nullptr);
    EXPECT_EQ(CMRoot(), CMRootWorker::instance());
    EXPECT_EQ(CMRoot(), CMRoot());
    EXPECT_NE(dynamic_cast<CMRootWorker*>(CMRoot()), nullptr);
}

TEST_F(RootWorker, SetDataToUnknownPathIsAnsweredAtOnceWithNoHandlerError)
{
    const CMReply<QVariant> given;
    const CMReply<QVariant> returned =
        CMRoot()->setData(CMPath("/nobody/home"), QStringLiteral("key"), 1, given);
    EXPECT_EQ(returned, given);
    ASSERT_TRUE(returned.isFinished());
    const CMError error = returned.error();
    EXPECT_TRUE(error.isError());
    EXPECT_EQ(error.name(), CMRootWorker::NoHandlerError());
    EXPECT_TRUE(error.message().toString().contains(QStringLiteral("/nobody/home")))
        << error.message().toString().toStdString();
}

TEST_F(RootWorker, InvokeOfUnknownPathIsAnsweredAtOnceWithNoHandlerError)
{
    const CMReply<QVariant> returned =
        CMRoot()->invoke(CMPath("/nobody/invoked"), VelaHash(), CMReply<QVariant>());
    ASSERT_TRUE(returned.isFinished());
    EXPECT_EQ(returned.error().name(), CMRootWorker::NoHandlerError());
    EXPECT_TRUE(returned.error().message().toString().contains(QStringLiteral("/nobody/invoked")));
}

TEST_F(RootWorker, ContinuationOnUnknownPathReplyRunsOnce)
{
    int runs = 0;
    CMRoot()
        ->setData(CMPath("/nobody/else"), QStringLiteral("k"), QVariant(), CMReply<QVariant>())
        .onFinished([&](const CMReply<QVariant>& reply) {
            ++runs;
            EXPECT_TRUE(reply.error().isError());
        });
    drainEvents();
    EXPECT_EQ(runs, 1);
}

TEST_F(RootWorker, SetDataHandlerAnsweringAtOnce)
{
    CMPath seenPath;
    QString seenKey;
    QVariant seenValue;
    root()->registerSetDataHandler(CMPath("/display/power"),
                                   [&](const CMPath& path, const QString& key, const QVariant& value,
                                       CMReply<QVariant> reply) {
                                       seenPath = path;
                                       seenKey = key;
                                       seenValue = value;
                                       reply.setValue(QStringLiteral("written"));
                                   });

    const CMReply<QVariant> given;
    const CMReply<QVariant> returned = CMRoot()->setData(CMPath("/display/power"), QStringLiteral("on"), true, given);

    EXPECT_EQ(returned, given);
    ASSERT_TRUE(returned.isFinished());
    EXPECT_FALSE(returned.error().isError());
    EXPECT_EQ(returned.value().toString(), QStringLiteral("written"));
    EXPECT_EQ(seenPath, CMPath("/display/power"));
    EXPECT_EQ(seenKey, QStringLiteral("on"));
    EXPECT_EQ(seenValue, QVariant(true));
}

TEST_F(RootWorker, InvokeHandlerAnsweringAtOnceReceivesTheArguments)
{
    VelaHash seen;
    root()->registerInvokeHandler(CMPath("/media/revoke"),
                                  [&](const CMPath&, const VelaHash& arguments, CMReply<QVariant> reply) {
                                      seen = arguments;
                                      reply.setValue(arguments.size());
                                  });
    const VelaHash arguments(QHash<QString, QVariant>{{QStringLiteral("moduleName"), QStringLiteral("media")}});
    const CMReply<QVariant> reply = CMRoot()->invoke(CMPath("/media/revoke"), arguments, CMReply<QVariant>());
    ASSERT_TRUE(reply.isFinished());
    EXPECT_EQ(reply.value().toInt(), 1);
    EXPECT_EQ(seen, arguments);
}

TEST_F(RootWorker, HandlerAnsweringLaterFromTheEventLoop)
{
    root()->registerSetDataHandler(CMPath("/slow"), [](const CMPath&, const QString&, const QVariant& value,
                                                       CMReply<QVariant> reply) {
        QTimer::singleShot(0, [reply, value] { reply.setValue(value.toInt() * 2); });
    });

    QThread* continuationThread = nullptr;
    QVariant answer;
    const CMReply<QVariant> reply = CMRoot()->setData(CMPath("/slow"), QStringLiteral("k"), 21, CMReply<QVariant>());
    reply.onFinished([&](const CMReply<QVariant>& finished) {
        continuationThread = QThread::currentThread();
        answer = finished.value();
    });
    EXPECT_FALSE(reply.isFinished()) << "the handler was meant to answer after the call returned";

    ASSERT_TRUE(waitUntil([&] { return continuationThread != nullptr; }));
    EXPECT_EQ(continuationThread, QThread::currentThread());
    EXPECT_EQ(answer.toInt(), 42);
}

TEST_F(RootWorker, HandlerKeepingTheReplyForTheCallerToAnswer)
{
    std::optional<CMReply<QVariant>> kept;
    root()->registerInvokeHandler(CMPath("/kept"), [&](const CMPath&, const VelaHash&, CMReply<QVariant> reply) {
        kept = reply;
    });

    const CMReply<QVariant> reply = CMRoot()->invoke(CMPath("/kept"), VelaHash(), CMReply<QVariant>());
    ASSERT_TRUE(kept.has_value());
    EXPECT_EQ(*kept, reply);
    EXPECT_FALSE(reply.isFinished());

    int runs = 0;
    reply.onFinished([&](const CMReply<QVariant>&) { ++runs; });
    kept->setValue(QStringLiteral("answered by the test"));
    EXPECT_TRUE(reply.isFinished());
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(reply.value().toString(), QStringLiteral("answered by the test"));
}

TEST_F(RootWorker, HandlerAnsweringWithAnError)
{
    root()->registerSetDataHandler(CMPath("/refusing"), [](const CMPath&, const QString&, const QVariant&,
                                                           CMReply<QVariant> reply) {
        reply.setError(CMError(QStringLiteral("org.test.Refused"), TrString("not now")));
    });
    const CMReply<QVariant> reply = CMRoot()->setData(CMPath("/refusing"), QStringLiteral("k"), 1, CMReply<QVariant>());
    ASSERT_TRUE(reply.isFinished());
    EXPECT_EQ(reply.error().name(), QStringLiteral("org.test.Refused"));
    EXPECT_EQ(reply.error().message().toString(), QStringLiteral("not now"));
}

TEST_F(RootWorker, HandlerNeverAnswering)
{
    int calls = 0;
    root()->registerSetDataHandler(CMPath("/silent"),
                                   [&](const CMPath&, const QString&, const QVariant&, CMReply<QVariant>) { ++calls; });
    bool continuationRan = false;
    const CMReply<QVariant> reply = CMRoot()->setData(CMPath("/silent"), QStringLiteral("k"), 1, CMReply<QVariant>());
    reply.onFinished([&](const CMReply<QVariant>&) { continuationRan = true; });
    drainEvents();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(reply.isFinished());
    EXPECT_FALSE(continuationRan);
}

TEST_F(RootWorker, UnregisteredSetDataHandlerIsNoLongerCalled)
{
    int calls = 0;
    root()->registerSetDataHandler(CMPath("/temp"), [&](const CMPath&, const QString&, const QVariant&,
                                                        CMReply<QVariant> reply) {
        ++calls;
        reply.setValue(1);
    });
    EXPECT_FALSE(CMRoot()->setData(CMPath("/temp"), QStringLiteral("k"), 1, CMReply<QVariant>()).error().isError());
    root()->unregisterSetDataHandler(CMPath("/temp"));
    const CMReply<QVariant> reply = CMRoot()->setData(CMPath("/temp"), QStringLiteral("k"), 1, CMReply<QVariant>());
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(reply.error().name(), CMRootWorker::NoHandlerError());
}

TEST_F(RootWorker, UnregisteredInvokeHandlerIsNoLongerCalled)
{
    int calls = 0;
    root()->registerInvokeHandler(CMPath("/temp"), [&](const CMPath&, const VelaHash&, CMReply<QVariant> reply) {
        ++calls;
        reply.setValue(1);
    });
    EXPECT_FALSE(CMRoot()->invoke(CMPath("/temp"), VelaHash(), CMReply<QVariant>()).error().isError());
    root()->unregisterInvokeHandler(CMPath("/temp"));
    const CMReply<QVariant> reply = CMRoot()->invoke(CMPath("/temp"), VelaHash(), CMReply<QVariant>());
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(reply.error().name(), CMRootWorker::NoHandlerError());
}

TEST_F(RootWorker, SetDataAndInvokeHandlersAreSeparate)
{
    root()->registerSetDataHandler(CMPath("/both"), [](const CMPath&, const QString&, const QVariant&,
                                                       CMReply<QVariant> reply) { reply.setValue(1); });
    const CMReply<QVariant> invoked = CMRoot()->invoke(CMPath("/both"), VelaHash(), CMReply<QVariant>());
    EXPECT_EQ(invoked.error().name(), CMRootWorker::NoHandlerError());
    const CMReply<QVariant> written = CMRoot()->setData(CMPath("/both"), QStringLiteral("k"), 1, CMReply<QVariant>());
    EXPECT_FALSE(written.error().isError());
}

TEST_F(RootWorker, RegisteringAgainReplacesTheHandler)
{
    root()->registerSetDataHandler(CMPath("/twice"), [](const CMPath&, const QString&, const QVariant&,
                                                        CMReply<QVariant> reply) { reply.setValue(1); });
    root()->registerSetDataHandler(CMPath("/twice"), [](const CMPath&, const QString&, const QVariant&,
                                                        CMReply<QVariant> reply) { reply.setValue(2); });
    const CMReply<QVariant> reply = CMRoot()->setData(CMPath("/twice"), QStringLiteral("k"), 0, CMReply<QVariant>());
    EXPECT_EQ(reply.value().toInt(), 2);
}

TEST_F(RootWorker, HandlerMayRegisterAndUnregisterHandlers)
{
    root()->registerInvokeHandler(CMPath("/once"), [](const CMPath& path, const VelaHash&, CMReply<QVariant> reply) {
        CMRootWorker* worker = CMRootWorker::instance();
        worker->unregisterInvokeHandler(path);
        worker->registerInvokeHandler(CMPath("/next"), [](const CMPath&, const VelaHash&, CMReply<QVariant> next) {
            next.setValue(QStringLiteral("next"));
        });
        reply.setValue(QStringLiteral("once"));
    });
    EXPECT_EQ(CMRoot()->invoke(CMPath("/once"), VelaHash(), CMReply<QVariant>()).value().toString(),
              QStringLiteral("once"));
    EXPECT_EQ(CMRoot()->invoke(CMPath("/once"), VelaHash(), CMReply<QVariant>()).error().name(),
              CMRootWorker::NoHandlerError());
    EXPECT_EQ(CMRoot()->invoke(CMPath("/next"), VelaHash(), CMReply<QVariant>()).value().toString(),
              QStringLiteral("next"));
}

TEST_F(RootWorker, ClearHandlersForgetsEveryHandler)
{
    root()->registerSetDataHandler(CMPath("/a"), [](const CMPath&, const QString&, const QVariant&,
                                                    CMReply<QVariant> reply) { reply.setValue(1); });
    root()->registerInvokeHandler(CMPath("/b"), [](const CMPath&, const VelaHash&, CMReply<QVariant> reply) {
        reply.setValue(1);
    });
    root()->clearHandlers();
    EXPECT_EQ(CMRoot()->setData(CMPath("/a"), QStringLiteral("k"), 1, CMReply<QVariant>()).error().name(),
              CMRootWorker::NoHandlerError());
    EXPECT_EQ(CMRoot()->invoke(CMPath("/b"), VelaHash(), CMReply<QVariant>()).error().name(),
              CMRootWorker::NoHandlerError());
}
