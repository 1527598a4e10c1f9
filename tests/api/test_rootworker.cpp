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

#include <functional>
#include <optional>
#include <ostream>
#include <string>

namespace {

CMRootWorker* root()
{
    return CMRootWorker::instance();
}

// A set-data call or an invocation at `path`, each with a fresh reply.
CMReply<QVariant> setDataAt(const CMPath& path, const QVariant& value = 1)
{
    return CMRoot()->setData(path, QStringLiteral("k"), value, CMReply<QVariant>());
}

CMReply<QVariant> invokeAt(const CMPath& path, const VelaHash& arguments = VelaHash())
{
    return CMRoot()->invoke(path, arguments, CMReply<QVariant>());
}

// Handlers that answer every call at once with `answer`.
CMRootWorker::SetDataHandler setDataAnswering(const QVariant& answer)
{
    return [answer](const CMPath&, const QString&, const QVariant&, CMReply<QVariant> reply) {
        reply.setValue(answer);
    };
}

CMRootWorker::InvokeHandler invokeAnswering(const QVariant& answer)
{
    return [answer](const CMPath&, const VelaHash&, CMReply<QVariant> reply) { reply.setValue(answer); };
}

class RootWorker : public ::testing::Test
{
protected:
    void TearDown() override { root()->clearHandlers(); }
};

// The two kinds of call that the root worker routes, for the behaviour they
// share.
struct CallKind {
    const char* name;
    // Registers a handler at the path that counts its calls and answers 1.
    std::function<void(const CMPath&, int* calls)> registerCounting;
    std::function<void(const CMPath&)> unregister;
    // Makes the call at the path with the given reply; returns what the worker returned.
    std::function<CMReply<QVariant>(const CMPath&, const CMReply<QVariant>&)> call;
};

const CallKind kSetData{
    "setData",
    [](const CMPath& path, int* calls) {
        root()->registerSetDataHandler(path, [calls](const CMPath&, const QString&, const QVariant&,
                                                     CMReply<QVariant> reply) {
            ++*calls;
            reply.setValue(1);
        });
    },
    [](const CMPath& path) { root()->unregisterSetDataHandler(path); },
    [](const CMPath& path, const CMReply<QVariant>& reply) {
        return CMRoot()->setData(path, QStringLiteral("key"), 1, reply);
    }};

const CallKind kInvoke{
    "invoke",
    [](const CMPath& path, int* calls) {
        root()->registerInvokeHandler(path, [calls](const CMPath&, const VelaHash&, CMReply<QVariant> reply) {
            ++*calls;
            reply.setValue(1);
        });
    },
    [](const CMPath& path) { root()->unregisterInvokeHandler(path); },
    [](const CMPath& path, const CMReply<QVariant>& reply) { return CMRoot()->invoke(path, VelaHash(), reply); }};

class RootWorkerCall : public RootWorker, public ::testing::WithParamInterface<CallKind>
{
};

void PrintTo(const CallKind& kind, std::ostream* out)
{
    *out << kind.name;
}

std::string callKindName(const ::testing::TestParamInfo<CallKind>& info)
{
    return info.param.name;
}

} // namespace

TEST_F(RootWorker, CMRootIsTheProcessWideRootWorker)
{
    ASSERT_NE(CMRoot(), nullptr);
    EXPECT_EQ(CMRoot(), CMRootWorker::instance());
    EXPECT_EQ(CMRoot(), CMRoot());
    EXPECT_NE(dynamic_cast<CMRootWorker*>(CMRoot()), nullptr);
}

TEST_P(RootWorkerCall, CallToUnknownPathIsAnsweredAtOnceWithNoHandlerError)
{
    const CMReply<QVariant> given;
    const CMReply<QVariant> returned = GetParam().call(CMPath("/nobody/home"), given);
    EXPECT_EQ(returned, given);
    ASSERT_TRUE(returned.isFinished());
    const CMError error = returned.error();
    EXPECT_TRUE(error.isError());
    EXPECT_EQ(error.name(), CMRootWorker::NoHandlerError());
    EXPECT_TRUE(error.message().toString().contains(QStringLiteral("/nobody/home")))
        << error.message().toString().toStdString();
}

TEST_F(RootWorker, ContinuationOnUnknownPathReplyRunsOnce)
{
    int runs = 0;
    setDataAt(CMPath("/nobody/else")).onFinished([&](const CMReply<QVariant>& reply) {
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
    const CMReply<QVariant> reply = invokeAt(CMPath("/media/revoke"), arguments);
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
    const CMReply<QVariant> reply = setDataAt(CMPath("/slow"), 21);
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

    const CMReply<QVariant> reply = invokeAt(CMPath("/kept"));
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
    const CMReply<QVariant> reply = setDataAt(CMPath("/refusing"));
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
    const CMReply<QVariant> reply = setDataAt(CMPath("/silent"));
    reply.onFinished([&](const CMReply<QVariant>&) { continuationRan = true; });
    drainEvents();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(reply.isFinished());
    EXPECT_FALSE(continuationRan);
}

TEST_P(RootWorkerCall, UnregisteredHandlerIsNoLongerCalled)
{
    int calls = 0;
    GetParam().registerCounting(CMPath("/temp"), &calls);
    EXPECT_FALSE(GetParam().call(CMPath("/temp"), CMReply<QVariant>()).error().isError());
    GetParam().unregister(CMPath("/temp"));
    const CMReply<QVariant> reply = GetParam().call(CMPath("/temp"), CMReply<QVariant>());
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(reply.error().name(), CMRootWorker::NoHandlerError());
}

TEST_F(RootWorker, SetDataAndInvokeHandlersAreSeparate)
{
    root()->registerSetDataHandler(CMPath("/both"), setDataAnswering(1));
    const CMReply<QVariant> invoked = invokeAt(CMPath("/both"));
    EXPECT_EQ(invoked.error().name(), CMRootWorker::NoHandlerError());
    const CMReply<QVariant> written = setDataAt(CMPath("/both"));
    EXPECT_FALSE(written.error().isError());
}

TEST_F(RootWorker, RegisteringAgainReplacesTheHandler)
{
    root()->registerSetDataHandler(CMPath("/twice"), setDataAnswering(1));
    root()->registerSetDataHandler(CMPath("/twice"), setDataAnswering(2));
    const CMReply<QVariant> reply = setDataAt(CMPath("/twice"), 0);
    EXPECT_EQ(reply.value().toInt(), 2);
}

TEST_F(RootWorker, HandlerMayRegisterAndUnregisterHandlers)
{
    root()->registerInvokeHandler(CMPath("/once"), [](const CMPath& path, const VelaHash&, CMReply<QVariant> reply) {
        CMRootWorker* worker = CMRootWorker::instance();
        worker->unregisterInvokeHandler(path);
        worker->registerInvokeHandler(CMPath("/next"), invokeAnswering(QStringLiteral("next")));
        reply.setValue(QStringLiteral("once"));
    });
    EXPECT_EQ(invokeAt(CMPath("/once")).value().toString(), QStringLiteral("once"));
    EXPECT_EQ(invokeAt(CMPath("/once")).error().name(), CMRootWorker::NoHandlerError());
    EXPECT_EQ(invokeAt(CMPath("/next")).value().toString(), QStringLiteral("next"));
}

TEST_F(RootWorker, ClearHandlersForgetsEveryHandler)
{
    root()->registerSetDataHandler(CMPath("/a"), setDataAnswering(1));
    root()->registerInvokeHandler(CMPath("/b"), invokeAnswering(1));
    // Both answer before the clear, so that the refusals below come from it.
    ASSERT_FALSE(setDataAt(CMPath("/a")).error().isError());
    ASSERT_FALSE(invokeAt(CMPath("/b")).error().isError());
    root()->clearHandlers();
    EXPECT_EQ(setDataAt(CMPath("/a")).error().name(), CMRootWorker::NoHandlerError());
    EXPECT_EQ(invokeAt(CMPath("/b")).error().name(), CMRootWorker::NoHandlerError());
}

INSTANTIATE_TEST_SUITE_P(SetDataAndInvoke, RootWorkerCall, ::testing::Values(kSetData, kInvoke), callKindName);
