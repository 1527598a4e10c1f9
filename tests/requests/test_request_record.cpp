// The request record: identity, validity, the null node, the copies it
// takes at construction.

#include "requestfixture.h"

#include <QObject>
#include <QSharedPointer>
#include <QWeakPointer>

#include <cstdio>
#include <cstdlib>
#include <limits>

namespace requests {
namespace {

using RequestRecord = RequestTest;

constexpr int64_t kLargestId = std::numeric_limits<int64_t>::max();

TEST(RequestIdentity, FirstTwoRequestsAfterLoadHaveIdentities1And2)
{
    // Run in a freshly started process, where nothing has drawn an identity
    // yet, whatever ran before in this one.
    EXPECT_EXIT(
        {
            long long first = 0;
            long long second = 0;
            {
                PowerResource resource(VelaPowerManagerResources::display);
                const PowerNodeRequestPtr a =
                    PowerNodeRequest::create(&resource, QStringLiteral("m"), VelaPowerModuleActions::use, {});
                const PowerNodeRequestPtr b =
                    PowerNodeRequest::create(&resource, QStringLiteral("m"), VelaPowerModuleActions::use, {});
                first = a->id();
                second = b->id();
            }
            std::fprintf(stderr, "identities %lld %lld\n", first, second);
            std::exit(first == 1 && second == 2 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "identities 1 2");
}

TEST_F(RequestRecord, IdentityAfterTheLargestValueStartsAgainAt1)
{
    PowerResource* resource = makeResource();
    PowerNodeRequestTestAccess::setIdCounter(kLargestId - 1);
    const PowerNodeRequestPtr last = requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::use);
    const PowerNodeRequestPtr wrapped = requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::use);
    const PowerNodeRequestPtr next = requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::use);
    EXPECT_EQ(last->id(), kLargestId);
    EXPECT_EQ(wrapped->id(), 1);
    EXPECT_EQ(next->id(), 2);
}

TEST(RequestIdentity, NextIdAfterTheLargestValueIs1AndNeverZeroOrNegative)
{
    PowerNodeRequestTestAccess::setIdCounter(kLargestId);
    EXPECT_EQ(PowerNodeRequest::nextId(), 1);
    EXPECT_EQ(PowerNodeRequest::nextId(), 2);
    PowerNodeRequestTestAccess::setIdCounter(41);
    EXPECT_EQ(PowerNodeRequest::nextId(), 42);
}

TEST_F(RequestRecord, IdentityNeverChangesWhileTheRequestRuns)
{
    PowerResource* resource = makeResource();
    PowerNodeRequestTestAccess::setIdCounter(99);
    const PowerNodeRequestPtr request = requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::use);
    runToEnd(request);
    requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::use);
    EXPECT_EQ(request->id(), 100);
}

TEST_F(RequestRecord, NullNodeRequestIsCreatedInvalidAndBornFailed)
{
    LogCapture log;
    const PowerNodeRequestPtr request =
        PowerNodeRequest::create(nullptr, QStringLiteral("m"), VelaPowerModuleActions::use, m_registrations);
    ASSERT_FALSE(request.isNull());
    EXPECT_FALSE(request->isValid());
    EXPECT_FALSE(request->isProcessing());

    const CMReply<void> reply = request->reply();
    EXPECT_TRUE(reply.isFinished());
    const CMError error = reply.error();
    EXPECT_TRUE(error.isError());
    EXPECT_EQ(error.message().toString(), QStringLiteral("Invalid power node pointer"));
    EXPECT_EQ(error.name(), CMError::DefaultName());
    EXPECT_EQ(error.title().toString(), CMError::DefaultTitle());
    EXPECT_EQ(error.value(CMError::Message()).userType(), qMetaTypeId<TrString>());

    const std::vector<CapturedEvent> errors = log.withMessage("Null node pointer.");
    ASSERT_EQ(errors.size(), 1u) << log.dump();
    EXPECT_EQ(errors[0].level, log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(errors[0].file, requestSource());
}

TEST_F(RequestRecord, FreshRequestIsValidNotProcessingAndHasNoNodes)
{
    PowerResource* resource = makeResource();
    LogCapture log;
    const PowerNodeRequestPtr request = requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::hold);
    EXPECT_TRUE(request->isValid());
    EXPECT_FALSE(request->isProcessing());
    EXPECT_TRUE(request->nodes().isEmpty());
    EXPECT_FALSE(request->reply().isFinished());
    EXPECT_EQ(request->node(), resource);
    EXPECT_EQ(request->action(), VelaPowerModuleActions::hold);
    EXPECT_EQ(request->module(), QStringLiteral("m"));
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, "Null node pointer."), 0) << log.dump();
    // Making a request changes nothing on the graph and calls nobody.
    EXPECT_TRUE(m_events.empty()) << eventDump();
    EXPECT_EQ(resource->state(), VelaPowerNodeStates::initial);
}

TEST_F(RequestRecord, ModuleKeepsTheNameGivenAtConstructionAfterTheCallerChangedIt)
{
    PowerResource* resource = makeResource();
    QString name = QStringLiteral("camera-app");
    const PowerNodeRequestPtr request =
        requestFor(resource, name, VelaPowerModuleActions::use);
    name.append(QStringLiteral("-changed"));
    name[0] = QLatin1Char('X');
    EXPECT_EQ(request->module(), QStringLiteral("camera-app"));
}

TEST_F(RequestRecord, SuccessfulRequestStaysValid)
{
    PowerResource* resource = makeResource();
    const PowerNodeRequestPtr request = requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::use);
    const CMReply<void> reply = runToEnd(request);
    EXPECT_FALSE(reply.error().isError());
    EXPECT_TRUE(request->isValid());
    EXPECT_TRUE(request->isProcessing()) << "the processing flag is never reset";
}

TEST_F(RequestRecord, OnExecuteFinishedFinishesTheReplyWithSuccess)
{
    PowerResource* resource = makeResource();
    const PowerNodeRequestPtr request = requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::use);
    request->onExecuteFinished();
    EXPECT_TRUE(request->reply().isFinished());
    EXPECT_FALSE(request->reply().error().isError());
    EXPECT_TRUE(request->isValid());
    // Nothing was run on the graph.
    EXPECT_TRUE(m_events.empty()) << eventDump();
}

TEST_F(RequestRecord, CreatedRequestLivesAsLongAsItsSharesAndWeakPointersFollowIt)
{
    PowerResource* resource = makeResource();
    PowerNodeRequestPtr request = requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::use);
    bool destroyed = false;
    QObject::connect(request.data(), &QObject::destroyed, [&destroyed]() { destroyed = true; });

    const QWeakPointer<PowerNodeRequest> weak = request;
    QSharedPointer<QObject> asObject = qSharedPointerObjectCast<QObject>(request);
    ASSERT_FALSE(asObject.isNull());
    request.reset();
    EXPECT_FALSE(destroyed) << "another share is still held";
    EXPECT_FALSE(weak.isNull());
    asObject.reset();
    EXPECT_TRUE(destroyed);
    EXPECT_TRUE(weak.isNull());
}

TEST_F(RequestRecord, RequestIsAPlainQObjectWithoutSignalsSlotsOrProperties)
{
    PowerResource* resource = makeResource();
    const PowerNodeRequestPtr request = requestFor(resource, QStringLiteral("m"), VelaPowerModuleActions::use);
    const QMetaObject* meta = request->metaObject();
    EXPECT_STREQ(meta->className(), "PowerNodeRequest");
    EXPECT_EQ(meta->superClass(), &QObject::staticMetaObject);
    EXPECT_EQ(meta->methodCount(), QObject::staticMetaObject.methodCount());
    EXPECT_EQ(meta->propertyCount(), QObject::staticMetaObject.propertyCount());
    EXPECT_EQ(request->parent(), nullptr);
}

} // namespace
} // namespace requests
