// The one reader of the library's "PowerManager" log: every text the library
// writes that the programs rely on, at the level it is written, taken apart
// into a kind and fields; the texts it must leave alone; and the records the
// running library really writes, decoded, so that a changed wording in the
// library shows here first.

#include "libraryrecords.h"

#include "capturingappender.h"
#include "eventloop.h"
#include "requestidentities.h"

#include "PowerHandler.h"
#include "PowerNode.h"
#include "PowerNodeRequest.h"

#include "cmerror.h"
#include "cmreply.h"
#include "cmrequest.h"
#include "cmrootworker.h"
#include "dbglog.h"
#include "velahash.h"
#include "velapowerenums.h"
#include "velapowermanagermoduleregister.h"
#include "velapowermanagerresourcerequest.h"
#include "velapowermanagertarget.h"

#include <QList>
#include <QString>
#include <QVariant>

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Kind = LibraryRecord::Kind;
using Step = LibraryRecord::Step;

const log4cplus::LogLevel kTrace = log4cplus::TRACE_LOG_LEVEL;
const log4cplus::LogLevel kDebug = log4cplus::DEBUG_LOG_LEVEL;
const log4cplus::LogLevel kInfo = log4cplus::INFO_LOG_LEVEL;
const log4cplus::LogLevel kError = log4cplus::ERROR_LOG_LEVEL;
const log4cplus::LogLevel kFatal = log4cplus::FATAL_LOG_LEVEL;

const char* kindText(Kind kind)
{
    switch (kind) {
    case Kind::Other:
        return "Other";
    case Kind::StateChanged:
        return "StateChanged";
    case Kind::ModuleActionSet:
        return "ModuleActionSet";
    case Kind::ActionDone:
        return "ActionDone";
    case Kind::ActionFailed:
        return "ActionFailed";
    case Kind::TransitionFailed:
        return "TransitionFailed";
    case Kind::EdgeRefused:
        return "EdgeRefused";
    case Kind::TargetUnreachable:
        return "TargetUnreachable";
    case Kind::RequestStarted:
        return "RequestStarted";
    case Kind::RequestFinished:
        return "RequestFinished";
    case Kind::InvalidRequestRemoved:
        return "InvalidRequestRemoved";
    case Kind::RequestRefused:
        return "RequestRefused";
    case Kind::UnknownModule:
        return "UnknownModule";
    case Kind::ModuleRefused:
        return "ModuleRefused";
    }
    return "?";
}

const char* stepText(Step step)
{
    switch (step) {
    case Step::None:
        return "None";
    case Step::Lock:
        return "Lock";
    case Step::Enable:
        return "Enable";
    case Step::Disable:
        return "Disable";
    case Step::Unlock:
        return "Unlock";
    }
    return "?";
}

// What a decoded record says, every field written out (empty ones too), so
// that one comparison checks the kind and all fields and a failure shows
// them all.
struct Fields {
    Kind kind = Kind::Other;
    std::string node;
    std::string state;
    std::string module;
    std::string action;
    std::string otherNode;
    std::string error;
    Step step = Step::None;
    qint64 requestId = 0;

    // The expected records below fill in only the fields of their kind, one
    // named setter each, so that each maker is a single line.
    Fields& withNode(const std::string& value) { return set(&Fields::node, value); }
    Fields& withState(const std::string& value) { return set(&Fields::state, value); }
    Fields& withModule(const std::string& value) { return set(&Fields::module, value); }
    Fields& withAction(const std::string& value) { return set(&Fields::action, value); }
    Fields& withOtherNode(const std::string& value) { return set(&Fields::otherNode, value); }
    Fields& withError(const std::string& value) { return set(&Fields::error, value); }
    Fields& withStep(Step value) { return set(&Fields::step, value); }
    Fields& withRequestId(qint64 value) { return set(&Fields::requestId, value); }

    std::string text() const
    {
        std::ostringstream out;
        out << kindText(kind) << " node=[" << node << "] state=[" << state << "] module=[" << module << "] action=["
            << action << "] otherNode=[" << otherNode << "] error=[" << error << "] step=" << stepText(step)
            << " requestId=" << requestId;
        return out.str();
    }

private:
    template <typename Value>
    Fields& set(Value Fields::*field, const Value& value)
    {
        this->*field = value;
        return *this;
    }
};

// Only `kind` set: the start of every expected record.
Fields ofKind(Kind kind)
{
    Fields fields;
    fields.kind = kind;
    return fields;
}

std::string fieldsOf(const LibraryRecord& record)
{
    Fields fields;
    fields.kind = record.kind;
    fields.node = record.node.toStdString();
    fields.state = record.state.toStdString();
    fields.module = record.module.toStdString();
    fields.action = record.action.toStdString();
    fields.otherNode = record.otherNode.toStdString();
    fields.error = record.error.toStdString();
    fields.step = record.step;
    fields.requestId = record.requestId;
    return fields.text();
}

// Expected field sets, one maker per kind.
std::string stateChanged(const std::string& node, const std::string& state)
{
    return ofKind(Kind::StateChanged).withNode(node).withState(state).text();
}

std::string moduleActionSet(const std::string& node, const std::string& module, const std::string& action)
{
    return ofKind(Kind::ModuleActionSet).withNode(node).withModule(module).withAction(action).text();
}

std::string actionDone(const std::string& node, const std::string& action)
{
    return ofKind(Kind::ActionDone).withNode(node).withAction(action).text();
}

std::string actionFailed(const std::string& node, const std::string& action, const std::string& error)
{
    return ofKind(Kind::ActionFailed).withNode(node).withAction(action).withError(error).text();
}

std::string transitionFailed(Step step, const std::string& node, const std::string& error)
{
    return ofKind(Kind::TransitionFailed).withStep(step).withNode(node).withError(error).text();
}

std::string edgeRefused(const std::string& node, const std::string& otherNode)
{
    return ofKind(Kind::EdgeRefused).withNode(node).withOtherNode(otherNode).text();
}

std::string targetUnreachable(const std::string& node)
{
    return ofKind(Kind::TargetUnreachable).withNode(node).text();
}

std::string requestKind(Kind kind, qint64 id)
{
    return ofKind(kind).withRequestId(id).text();
}

std::string requestRefused(const std::string& reason)
{
    return ofKind(Kind::RequestRefused).withError(reason).text();
}

std::string unknownModule(const std::string& module)
{
    return ofKind(Kind::UnknownModule).withModule(module).text();
}

std::string onlyKind(Kind kind)
{
    return ofKind(kind).text();
}

std::string decoded(log4cplus::LogLevel level, const std::string& message)
{
    return fieldsOf(LibraryRecord::decode(level, message));
}

// The entry line of a request's processing, as the library writes it.
std::string processEntry(qint64 id)
{
    return "Enter " + dbglog_scopedFunction("CMReply<void> PowerNodeRequest::process()", "PowerManager") +
           ": nodeRequest id: " + std::to_string(id);
}

// A record's text, however the record keeps it.
std::string plain(const std::string& text)
{
    return text;
}

[[maybe_unused]] std::string plain(const QString& text)
{
    return text.toStdString();
}

template <typename Record>
std::string recordText(const Record& record)
{
    std::ostringstream out;
    out << static_cast<const VelaHash&>(record);
    return out.str();
}

} // namespace

// --- Every text, at its level ---------------------------------------------------

TEST(LibraryRecordDecoding, StateLineGivesTheNodeAndTheStateEntered)
{
    EXPECT_EQ(decoded(kDebug, "Node: display enters state: enabled"), stateChanged("display", "enabled"));
    EXPECT_EQ(decoded(kDebug, "Node: standby enters state: disabled"), stateChanged("standby", "disabled"));
}

TEST(LibraryRecordDecoding, ModuleUpdateGivesTheNodeTheModuleAndTheAction)
{
    EXPECT_EQ(decoded(kDebug, "Node: audio updated by: media with action type: use"),
              moduleActionSet("audio", "media", "use"));
    EXPECT_EQ(decoded(kDebug, "Node: active updated by: PowerManager with action type: hold"),
              moduleActionSet("active", "PowerManager", "hold"));
    EXPECT_EQ(decoded(kDebug, "Node: wifi updated by: connectivity with action type: release"),
              moduleActionSet("wifi", "connectivity", "release"));
}

TEST(LibraryRecordDecoding, ActionResultGivesTheResourceAndTheBareActionName)
{
    EXPECT_EQ(decoded(kDebug, "backlight is now enable"), actionDone("backlight", "enable"));
    EXPECT_EQ(decoded(kDebug, "backlight is now disable"), actionDone("backlight", "disable"));
}

TEST(LibraryRecordDecoding, FailedActionGivesTheResourceTheActionAndThePlatformsMessage)
{
    EXPECT_EQ(decoded(kError, "camera failed to enable Message: The operation timed out"),
              actionFailed("camera", "enable", "The operation timed out"));
    EXPECT_EQ(decoded(kError, "codec failed to disable Message: No set-data handler registered for path: /hw/codec"),
              actionFailed("codec", "disable", "No set-data handler registered for path: /hw/codec"));
}

TEST(LibraryRecordDecoding, EachFatalTransitionFailureGivesItsStepTheNodeAndTheError)
{
    EXPECT_EQ(decoded(kFatal, "Failed to lock dependencies for display, error: gone"),
              transitionFailed(Step::Lock, "display", "gone"));
    EXPECT_EQ(decoded(kFatal, "Failed to enable resource camera, error: The operation timed out"),
              transitionFailed(Step::Enable, "camera", "The operation timed out"));
    EXPECT_EQ(decoded(kFatal, "Failed to disable resource standby, error: refused"),
              transitionFailed(Step::Disable, "standby", "refused"));
    EXPECT_EQ(decoded(kFatal, "Failed to unlock all dependencies for display, error: unlock broken"),
              transitionFailed(Step::Unlock, "display", "unlock broken"));
}

TEST(LibraryRecordDecoding, EachRefusedEdgeGivesBothNodes)
{
    EXPECT_EQ(decoded(kError, "Tried to make power node backlight require node display, but that would have "
                              "caused a cyclic dependency."),
              edgeRefused("backlight", "display"));
    EXPECT_EQ(decoded(kError, "Tried to make power node display be required by node backlight, but that would "
                              "have caused a cyclic dependency."),
              edgeRefused("display", "backlight"));
    EXPECT_EQ(decoded(kError, "Tried to make power target active enable node touch, but it already disables that "
                              "node."),
              edgeRefused("active", "touch"));
    EXPECT_EQ(decoded(kError, "Tried to make power target off disable node touch, but it already enables that node."),
              edgeRefused("off", "touch"));
}

TEST(LibraryRecordDecoding, UnreachableTargetGivesTheTarget)
{
    EXPECT_EQ(decoded(kInfo, "node unreachable: suspend"), targetUnreachable("suspend"));
}

TEST(LibraryRecordDecoding, ProcessEntryLineStartsTheRequestOfItsIdentity)
{
    EXPECT_EQ(decoded(kTrace, processEntry(17)), requestKind(Kind::RequestStarted, 17));
}

TEST(LibraryRecordDecoding, QueueLinesGiveTheRequestIdentity)
{
    EXPECT_EQ(decoded(kInfo, "request id: 42 finished"), requestKind(Kind::RequestFinished, 42));
    EXPECT_EQ(decoded(kInfo, "remove invalid request id: 7"), requestKind(Kind::InvalidRequestRemoved, 7));
}

TEST(LibraryRecordDecoding, IdentitiesBeyondThirtyTwoBitsAreKept)
{
    EXPECT_EQ(decoded(kInfo, "request id: 9223372036854775807 finished"),
              requestKind(Kind::RequestFinished, Q_INT64_C(9223372036854775807)));
    EXPECT_EQ(decoded(kInfo, "remove invalid request id: 5000000000"),
              requestKind(Kind::InvalidRequestRemoved, Q_INT64_C(5000000000)));
    EXPECT_EQ(decoded(kTrace, processEntry(Q_INT64_C(4294967296))),
              requestKind(Kind::RequestStarted, Q_INT64_C(4294967296)));
}

TEST(LibraryRecordDecoding, EveryRefusalOfTheEntryPointsGivesItsReason)
{
    const std::string target = recordText(VelaPowerManagerTarget(VelaPowerManagerTargets::standby));
    const std::string resource = recordText(
        VelaPowerManagerResourceRequest(VelaPowerManagerResources::audio, "media", VelaPowerModuleActions::use));
    for (const char* reason : {"Incorrect request", "Unknown target", "Cannot add request for requested target"})
        EXPECT_EQ(decoded(kError, std::string(reason) + ": " + target), requestRefused(reason)) << reason;
    for (const char* reason : {"Incorrect request", "Unknown resource", "Cannot add request for requested resource"})
        EXPECT_EQ(decoded(kError, std::string(reason) + ": " + resource), requestRefused(reason)) << reason;
    EXPECT_EQ(decoded(kError, "Incorrect request: {}"), requestRefused("Incorrect request"));
}

TEST(LibraryRecordDecoding, UnknownModuleGivesTheModule)
{
    EXPECT_EQ(decoded(kError, "unknown power module requested: camera-app"), unknownModule("camera-app"));
}

TEST(LibraryRecordDecoding, RefusedModuleRegistrationIsRecognised)
{
    EXPECT_EQ(decoded(kError, "Cannot register module: {}"), onlyKind(Kind::ModuleRefused));
}

TEST(LibraryRecordDecoding, DecodingKeepsTheLevelAndTheWholeMessage)
{
    const std::string text = "Node: display enters state: enabled";
    const LibraryRecord record = LibraryRecord::decode(kDebug, text);
    EXPECT_EQ(record.level, kDebug);
    EXPECT_EQ(plain(record.message), text);
    const LibraryRecord other = LibraryRecord::decode(kError, "Null node pointer.");
    EXPECT_EQ(other.level, kError);
    EXPECT_EQ(plain(other.message), "Null node pointer.");
}

// --- Texts that are none of the kinds ---------------------------------------

TEST(LibraryRecordDecoding, LibraryTextsWithoutAKindDecodeAsOther)
{
    const std::string other = onlyKind(Kind::Other);
    EXPECT_EQ(decoded(kError, "Null node pointer."), other);
    EXPECT_EQ(decoded(kError, "invalid power node requested"), other);
    EXPECT_EQ(decoded(kTrace, "Leave " + dbglog_scopedFunction("CMReply<void> PowerNode::enable()", "PowerManager") +
                                  ": powerNode: display already enabled or enable was already requested..."),
              other);
    EXPECT_EQ(decoded(kTrace, "Leave " + dbglog_scopedFunction("CMReply<void> PowerNode::disable()", "PowerManager") +
                                  ": powerNode: display already disabled or disable was already requested..."),
              other);
    EXPECT_EQ(decoded(kTrace, "Enter " +
                                  dbglog_scopedFunction("CMReply<void> PowerNodeRequest::execute()", "PowerManager") +
                                  ": nodeRequest id: 3"),
              other);
    EXPECT_EQ(decoded(kTrace, "Leave " + dbglog_scopedFunction("bool PowerNodeRequest::resolve()", "PowerManager") +
                                  ": nodeRequest id: 3"),
              other);
    EXPECT_EQ(decoded(kTrace, "nodeRequest id: 3 resolved ok"), other);
    EXPECT_EQ(decoded(kTrace, "nodeRequest id: 3 all actions finished"), other);
    EXPECT_EQ(decoded(kTrace, "Enter " +
                                  dbglog_scopedFunction("void PowerHandler::resolveNodeRequest(int64_t, const "
                                                        "CMError&)",
                                                        "PowerManager") +
                                  ": id: 3 success: 1"),
              other);
    EXPECT_EQ(decoded(kInfo, "something else entirely"), other);
    EXPECT_EQ(decoded(kDebug, ""), other);
}

TEST(LibraryRecordDecoding, ActionLineWithAnUnknownActionIsOther)
{
    EXPECT_EQ(decoded(kDebug, "backlight is now dimmed"), onlyKind(Kind::Other));
}

TEST(LibraryRecordDecoding, RequestIdentityThatIsNotANumberIsZero)
{
    EXPECT_EQ(decoded(kInfo, "request id: many finished"), requestKind(Kind::RequestFinished, 0));
}

// --- Names with spaces ------------------------------------------------------------

TEST(LibraryRecordDecoding, NamesWithSpacesAreTakenWhole)
{
    EXPECT_EQ(decoded(kDebug, "Node: main display enters state: enabled"), stateChanged("main display", "enabled"));
    EXPECT_EQ(decoded(kDebug, "Node: main display updated by: media player with action type: use"),
              moduleActionSet("main display", "media player", "use"));
    EXPECT_EQ(decoded(kDebug, "main display is now enable"), actionDone("main display", "enable"));
    EXPECT_EQ(decoded(kError, "main display failed to disable Message: bus is busy"),
              actionFailed("main display", "disable", "bus is busy"));
    EXPECT_EQ(decoded(kFatal, "Failed to enable resource main display, error: bus is busy"),
              transitionFailed(Step::Enable, "main display", "bus is busy"));
    EXPECT_EQ(decoded(kError, "Tried to make power node main display require node back light, but that would have "
                              "caused a cyclic dependency."),
              edgeRefused("main display", "back light"));
    EXPECT_EQ(decoded(kError, "Tried to make power target deep sleep disable node main display, but it already "
                              "enables that node."),
              edgeRefused("deep sleep", "main display"));
    EXPECT_EQ(decoded(kInfo, "node unreachable: deep sleep"), targetUnreachable("deep sleep"));
    EXPECT_EQ(decoded(kError, "unknown power module requested: media player"), unknownModule("media player"));
}

// --- The records of the running library ------------------------------------------

namespace {

// How the stand-in platform answers a write.
enum class Platform { AtOnce, WithError, Never };

const char* const kRefusal = "refused by the platform";

/*
 * A handler with nodes of its own, values far from the platform's lists and
 * names with spaces, whose writes are answered as each test says; the
 * library's log is captured at TRACE.
 */
class LibraryRecordsOfARun : public ::testing::Test
{
protected:
    void TearDown() override
    {
        // Writes still waiting are answered, so that no transition is left
        // running when the nodes go.
        m_finishing = true;
        for (int round = 0; round < 100 && !m_held.isEmpty(); ++round) {
            const QList<CMReply<QVariant>> held = m_held;
            m_held.clear();
            for (const CMReply<QVariant>& reply : held)
                reply.setValue(QVariant(true));
            drainEvents();
        }
        waitUntil([this] { return handler.pendingRequests() == 0; }, 5000);
        drainEvents();
        CMRootWorker::instance()->clearHandlers();
    }

    PowerResource* resource(int value, const QString& name, Platform onEnable, Platform onDisable, int timeoutMs = 5000)
    {
        const auto id = static_cast<VelaPowerManagerResources::Enum>(value);
        EXPECT_TRUE(VelaPowerManagerResources::registerName(id, name));
        auto* node = new PowerResource(id, timeoutMs);
        m_nodes.emplace_back(node);
        const QString on = QStringLiteral("/records/%1/on").arg(value);
        const QString off = QStringLiteral("/records/%1/off").arg(value);
        node->setOnEnableActionRequest(CMSetDataRequest(CMPath(on), QStringLiteral("power"), QVariant(true)));
        node->setOnDisableActionRequest(CMSetDataRequest(CMPath(off), QStringLiteral("power"), QVariant(false)));
        serve(on, onEnable);
        serve(off, onDisable);
        return node;
    }

    PowerTarget* target(int value, const QString& name)
    {
        const auto id = static_cast<VelaPowerManagerTargets::Enum>(value);
        EXPECT_TRUE(VelaPowerManagerTargets::registerName(id, name));
        auto* node = new PowerTarget(id);
        m_nodes.emplace_back(node);
        return node;
    }

    void registerModule(const QString& name)
    {
        ASSERT_TRUE(handler.registerModule(VelaPowerManagerModuleRegister(name, CMPath(), CMPath())));
    }

    CMReply<QVariant> askResource(PowerResource* node, const QString& module, VelaPowerModuleActions::Enum action)
    {
        CMReply<QVariant> reply;
        handler.requestResource(VelaPowerManagerResourceRequest(node->resource(), module, action), reply);
        return reply;
    }

    CMReply<QVariant> askTarget(VelaPowerManagerTargets::Enum target)
    {
        CMReply<QVariant> reply;
        handler.requestTarget(VelaPowerManagerTarget(target), reply);
        return reply;
    }

    // Answers the oldest write still waiting; false when none is.
    bool answerOldestWrite()
    {
        if (m_held.isEmpty())
            return false;
        m_held.takeFirst().setValue(QVariant(true));
        return true;
    }

    // The decoded records of kinds other than Other, in the order the
    // library wrote them. Every record at DEBUG or above must decode to a
    // kind, except the texts in `expectedOther`; a record the decoder no
    // longer recognises fails the test here.
    std::vector<std::string> decodedRecords(const LogCapture& log, const std::set<std::string>& expectedOther = {})
    {
        std::vector<std::string> result;
        for (const CapturedEvent& event : log.events()) {
            const LibraryRecord record = LibraryRecord::decode(event.level, event.message);
            if (record.kind != Kind::Other) {
                result.push_back(fieldsOf(record));
                continue;
            }
            if (event.level >= kDebug && !expectedOther.count(event.message))
                ADD_FAILURE() << "not decoded, at level " << event.level << ": " << event.message;
        }
        return result;
    }

    std::vector<std::unique_ptr<PowerNode>> m_nodes;
    // After the nodes: it goes first.
    PowerHandler handler;

private:
    void serve(const QString& path, Platform answer)
    {
        CMRootWorker::instance()->registerSetDataHandler(
            CMPath(path),
            [this, answer](const CMPath&, const QString&, const QVariant& value, CMReply<QVariant> reply) {
                if (m_finishing || answer == Platform::AtOnce)
                    reply.setValue(value);
                else if (answer == Platform::WithError)
                    reply.setError(CMError(TrString(QString::fromLatin1(kRefusal))));
                else
                    m_held.append(reply);
            });
    }

    QList<CMReply<QVariant>> m_held;
    bool m_finishing = false;
};

bool finished(const CMVoidReply& reply)
{
    return waitUntil([&reply] { return reply.isFinished(); });
}

std::string errorMessage(const CMVoidReply& reply)
{
    return reply.error().message().toString().toStdString();
}

} // namespace

TEST_F(LibraryRecordsOfARun, ClaimAndReleaseAnsweredAtOnceGiveUpdateActionDoneAndState)
{
    PowerResource* lamp = resource(7101, QStringLiteral("reading lamp"), Platform::AtOnce, Platform::AtOnce);
    handler.registerResource(lamp);
    registerModule(QStringLiteral("media player"));
    LogCapture log;

    PowerNodeRequestTestAccess::setIdCounter(4999);
    ASSERT_TRUE(finished(askResource(lamp, QStringLiteral("media player"), VelaPowerModuleActions::use)));
    ASSERT_TRUE(finished(askResource(lamp, QStringLiteral("media player"), VelaPowerModuleActions::release)));

    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       requestKind(Kind::RequestStarted, 5000),
                                       moduleActionSet("reading lamp", "media player", "use"),
                                       actionDone("reading lamp", "enable"),
                                       stateChanged("reading lamp", "enabled"),
                                       requestKind(Kind::RequestFinished, 5000),
                                       requestKind(Kind::RequestStarted, 5001),
                                       moduleActionSet("reading lamp", "media player", "release"),
                                       actionDone("reading lamp", "disable"),
                                       stateChanged("reading lamp", "disabled"),
                                       requestKind(Kind::RequestFinished, 5001),
                                   }))
        << log.dump();
}

TEST_F(LibraryRecordsOfARun, RequestIdentitiesBeyondThirtyTwoBitsComeThroughFromTheLog)
{
    PowerResource* lamp = resource(7102, QStringLiteral("desk lamp"), Platform::AtOnce, Platform::AtOnce);
    handler.registerResource(lamp);
    registerModule(QStringLiteral("media player"));
    LogCapture log;

    PowerNodeRequestTestAccess::setIdCounter(Q_INT64_C(4999999999));
    ASSERT_TRUE(finished(askResource(lamp, QStringLiteral("media player"), VelaPowerModuleActions::hold)));

    const std::vector<std::string> records = decodedRecords(log);
    ASSERT_FALSE(records.empty()) << log.dump();
    EXPECT_EQ(records.front(), requestKind(Kind::RequestStarted, Q_INT64_C(5000000000)));
    EXPECT_EQ(records.back(), requestKind(Kind::RequestFinished, Q_INT64_C(5000000000)));
}

TEST_F(LibraryRecordsOfARun, RefusedWriteGivesTheFailedActionWithThePlatformsErrorThenTheFatalStep)
{
    PowerResource* fan = resource(7103, QStringLiteral("ceiling fan"), Platform::WithError, Platform::AtOnce);
    LogCapture log;

    ASSERT_TRUE(finished(fan->enable()));

    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       actionFailed("ceiling fan", "enable", kRefusal),
                                       transitionFailed(Step::Enable, "ceiling fan", kRefusal),
                                       stateChanged("ceiling fan", "enabled"),
                                   }))
        << log.dump();
    EXPECT_EQ(log.count(kError, std::string("ceiling fan failed to enable Message: ") + kRefusal), 1) << log.dump();
    EXPECT_EQ(log.count(kFatal, std::string("Failed to enable resource ceiling fan, error: ") + kRefusal), 1)
        << log.dump();
}

TEST_F(LibraryRecordsOfARun, RefusedDisableGivesTheFailedActionAndTheFatalDisableStep)
{
    PowerResource* fan = resource(7104, QStringLiteral("attic fan"), Platform::AtOnce, Platform::WithError);
    ASSERT_TRUE(finished(fan->enable()));
    LogCapture log;

    ASSERT_TRUE(finished(fan->disable()));

    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       actionFailed("attic fan", "disable", kRefusal),
                                       transitionFailed(Step::Disable, "attic fan", kRefusal),
                                       stateChanged("attic fan", "disabled"),
                                   }))
        << log.dump();
}

TEST_F(LibraryRecordsOfARun, WriteNeverAnsweredTimesOutAsAFailedActionWithTheTimeoutText)
{
    PowerResource* heater = resource(7105, QStringLiteral("water heater"), Platform::Never, Platform::AtOnce, 0);
    LogCapture log;

    ASSERT_TRUE(finished(heater->enable()));

    const std::string timeout = CMVoidReply::ErrorTimeout().toStdString();
    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       actionFailed("water heater", "enable", timeout),
                                       transitionFailed(Step::Enable, "water heater", timeout),
                                       stateChanged("water heater", "enabled"),
                                   }))
        << log.dump();
}

TEST_F(LibraryRecordsOfARun, LockFailureNamesTheNodeThatWasLocking)
{
    PowerTarget* evening = target(7101, QStringLiteral("evening mode"));
    PowerResource* lamp = resource(7106, QStringLiteral("floor lamp"), Platform::Never, Platform::AtOnce);
    evening->enables(lamp);
    // The lamp's running enable, finished with an error by someone holding it.
    lamp->enable().setError(CMError(TrString(QStringLiteral("lamp gone"))));
    LogCapture log;

    ASSERT_TRUE(finished(evening->enable()));

    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       transitionFailed(Step::Lock, "evening mode", "lamp gone"),
                                       stateChanged("evening mode", "enabled"),
                                   }))
        << log.dump();
}

TEST_F(LibraryRecordsOfARun, UnlockFailureNamesTheNodeThatWasReleasing)
{
    PowerResource* top = resource(7107, QStringLiteral("sound bar"), Platform::AtOnce, Platform::AtOnce);
    PowerResource* bottom = resource(7108, QStringLiteral("power strip"), Platform::AtOnce, Platform::Never);
    top->requiresResource(bottom);
    ASSERT_TRUE(finished(top->enable()));
    LogCapture log;

    const CMReply<void> off = top->disable();
    ASSERT_TRUE(waitUntil([&] { return bottom->state() == VelaPowerNodeStates::disabling; }));
    // The bottom's running disable, finished with an error by its holder.
    bottom->disable().setError(CMError(TrString(QStringLiteral("unlock broken"))));
    ASSERT_TRUE(finished(off));

    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       actionDone("sound bar", "disable"),
                                       stateChanged("sound bar", "disabled"),
                                       transitionFailed(Step::Unlock, "sound bar", "unlock broken"),
                                   }))
        << log.dump();
}

TEST_F(LibraryRecordsOfARun, RefusedEdgesNameBothNodes)
{
    PowerResource* speaker = resource(7109, QStringLiteral("left speaker"), Platform::AtOnce, Platform::AtOnce);
    PowerResource* amplifier = resource(7110, QStringLiteral("main amplifier"), Platform::AtOnce, Platform::AtOnce);
    PowerTarget* party = target(7102, QStringLiteral("party mode"));
    PowerTarget* quiet = target(7103, QStringLiteral("quiet mode"));
    speaker->requiresResource(amplifier);
    party->enables(speaker);
    quiet->disables(speaker);
    LogCapture log;

    amplifier->requiresResource(speaker); // a cycle
    speaker->requiredBy(amplifier); // the same cycle, from the other side
    party->disables(speaker); // already enabled by it
    quiet->enables(speaker); // already disabled by it

    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       edgeRefused("main amplifier", "left speaker"),
                                       edgeRefused("left speaker", "main amplifier"),
                                       edgeRefused("party mode", "left speaker"),
                                       edgeRefused("quiet mode", "left speaker"),
                                   }))
        << log.dump();
    EXPECT_TRUE(log.containsFragment(kError, "Tried to make power node main amplifier require node left speaker, "))
        << log.dump();
    EXPECT_TRUE(log.containsFragment(kError, "Tried to make power node left speaker be required by node main "
                                             "amplifier, "))
        << log.dump();
    EXPECT_TRUE(log.containsFragment(kError, "Tried to make power target party mode disable node left speaker, "))
        << log.dump();
    EXPECT_TRUE(log.containsFragment(kError, "Tried to make power target quiet mode enable node left speaker, "))
        << log.dump();
}

// The verifier quotes the refusal before the library makes it: the text it
// quotes is the one the library logs. (Names of their own: a name is
// registered once per process, and RefusedEdgesNameBothNodes has taken
// "left speaker" and "party mode" for other values.)
TEST_F(LibraryRecordsOfARun, PredictedDisableRefusalIsTheLibrarysOwnText)
{
    PowerResource* speaker = resource(7121, QStringLiteral("rear speaker"), Platform::AtOnce, Platform::AtOnce);
    PowerTarget* party = target(7122, QStringLiteral("dance mode"));
    party->enables(speaker);
    LogCapture log;

    party->disables(speaker);

    const std::string predicted =
        LibraryRecord::disableEdgeRefusal(QStringLiteral("dance mode"), QStringLiteral("rear speaker")).toStdString();
    EXPECT_EQ(log.count(kError, predicted), 1) << predicted << "\n" << log.dump();
    const LibraryRecord decoded = LibraryRecord::decode(kError, predicted);
    EXPECT_EQ(decoded.kind, LibraryRecord::Kind::EdgeRefused);
    EXPECT_EQ(decoded.node, QStringLiteral("dance mode"));
    EXPECT_EQ(decoded.otherNode, QStringLiteral("rear speaker"));
}

TEST_F(LibraryRecordsOfARun, UnreachableTargetIsNamedBetweenTheRequestsStartAndFinish)
{
    registerModule(VelaPowerManagerName());
    registerModule(QStringLiteral("media player"));
    PowerResource* held = resource(7111, QStringLiteral("music box"), Platform::AtOnce, Platform::AtOnce);
    PowerTarget* night = target(7104, QStringLiteral("night mode"));
    night->disables(held);
    handler.registerResource(held);
    handler.registerTarget(night);
    ASSERT_TRUE(finished(askResource(held, QStringLiteral("media player"), VelaPowerModuleActions::hold)));
    LogCapture log;

    PowerNodeRequestTestAccess::setIdCounter(6999);
    const CMReply<QVariant> reply = askTarget(night->target());
    ASSERT_TRUE(finished(reply));

    EXPECT_EQ(errorMessage(reply), "Failed to resolve dependencies");
    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       requestKind(Kind::RequestStarted, 7000),
                                       targetUnreachable("night mode"),
                                       requestKind(Kind::RequestFinished, 7000),
                                   }))
        << log.dump();
}

TEST_F(LibraryRecordsOfARun, RefusalsAtTheEntryPointsGiveTheirReasons)
{
    registerModule(VelaPowerManagerName());
    PowerResource* lamp = resource(7112, QStringLiteral("porch lamp"), Platform::AtOnce, Platform::AtOnce);
    handler.registerResource(lamp);
    LogCapture log;

    const CMReply<QVariant> unknownTarget = askTarget(static_cast<VelaPowerManagerTargets::Enum>(7199));
    const CMReply<QVariant> unknownResource = [&] {
        CMReply<QVariant> reply;
        handler.requestResource(VelaPowerManagerResourceRequest(static_cast<VelaPowerManagerResources::Enum>(7199),
                                                                QStringLiteral("media player"),
                                                                VelaPowerModuleActions::use),
                                reply);
        return reply;
    }();
    const CMReply<QVariant> emptyTarget = [&] {
        CMReply<QVariant> reply;
        handler.requestTarget(VelaPowerManagerTarget(), reply);
        return reply;
    }();
    const CMReply<QVariant> undeclaredModule =
        askResource(lamp, QStringLiteral("night watch"), VelaPowerModuleActions::use);

    ASSERT_TRUE(finished(unknownTarget));
    ASSERT_TRUE(finished(unknownResource));
    ASSERT_TRUE(finished(emptyTarget));
    ASSERT_TRUE(finished(undeclaredModule));
    EXPECT_EQ(errorMessage(unknownTarget), "Unknown target");
    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       requestRefused("Unknown target"),
                                       requestRefused("Unknown resource"),
                                       requestRefused("Incorrect request"),
                                       unknownModule("night watch"),
                                       requestRefused("Cannot add request for requested resource"),
                                   }))
        << log.dump();
}

TEST_F(LibraryRecordsOfARun, TargetRequestWithoutThePowerManagersModuleGivesTheUnknownModuleAndTheRefusal)
{
    PowerTarget* day = target(7105, QStringLiteral("day mode"));
    handler.registerTarget(day);
    LogCapture log;

    const CMReply<QVariant> reply = askTarget(day->target());

    ASSERT_TRUE(finished(reply));
    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       unknownModule(VelaPowerManagerName().toStdString()),
                                       requestRefused("Cannot add request for requested target"),
                                   }))
        << log.dump();
}

TEST_F(LibraryRecordsOfARun, EmptyModuleRegistrationIsRefused)
{
    LogCapture log;

    EXPECT_FALSE(handler.registerModule(VelaPowerManagerModuleRegister()));

    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{onlyKind(Kind::ModuleRefused)})) << log.dump();
}

TEST_F(LibraryRecordsOfARun, RequestThatTurnedInvalidWhileQueuedIsRemovedByItsIdentity)
{
    registerModule(QStringLiteral("media player"));
    PowerResource* first = resource(7113, QStringLiteral("hall light"), Platform::Never, Platform::AtOnce);
    PowerResource* second = resource(7114, QStringLiteral("garden light"), Platform::AtOnce, Platform::AtOnce);
    handler.registerResource(first);
    handler.registerResource(second);
    PowerNodeRequestTestAccess::setIdCounter(7999);
    const CMReply<QVariant> running = askResource(first, QStringLiteral("media player"), VelaPowerModuleActions::use);
    const PowerNodeRequestPtr queued =
        handler.makeRequest(second, QStringLiteral("media player"), VelaPowerModuleActions::use);
    ASSERT_FALSE(queued.isNull());
    ASSERT_EQ(queued->id(), 8001);
    ASSERT_TRUE(handler.addRequest(queued));
    queued->reply().setError(CMError(TrString(QStringLiteral("withdrawn"))));
    LogCapture log;

    ASSERT_TRUE(answerOldestWrite());
    ASSERT_TRUE(finished(running));
    ASSERT_TRUE(waitUntil([this] { return handler.pendingRequests() == 0; }));

    EXPECT_EQ(decodedRecords(log), (std::vector<std::string>{
                                       actionDone("hall light", "enable"),
                                       stateChanged("hall light", "enabled"),
                                       requestKind(Kind::RequestFinished, 8000),
                                       requestKind(Kind::InvalidRequestRemoved, 8001),
                                   }))
        << log.dump();
}

TEST_F(LibraryRecordsOfARun, NullNodesAndRepeatedEnablesWriteOnlyRecordsOfNoKind)
{
    registerModule(QStringLiteral("media player"));
    PowerResource* lamp = resource(7115, QStringLiteral("night light"), Platform::AtOnce, Platform::AtOnce);
    ASSERT_TRUE(finished(lamp->enable()));
    LogCapture log;

    EXPECT_TRUE(handler.makeRequest(nullptr, QStringLiteral("media player"), VelaPowerModuleActions::use).isNull());
    const PowerNodeRequestPtr born =
        PowerNodeRequest::create(nullptr, QStringLiteral("media player"), VelaPowerModuleActions::use, {});
    ASSERT_FALSE(born.isNull());
    EXPECT_FALSE(born->isValid());
    lamp->enable();

    EXPECT_EQ(log.count(kError, "invalid power node requested"), 1) << log.dump();
    EXPECT_EQ(log.count(kError, "Null node pointer."), 1) << log.dump();
    EXPECT_TRUE(log.containsFragment(kTrace, " already enabled or enable was already requested...")) << log.dump();
    EXPECT_TRUE(decodedRecords(log, {"invalid power node requested", "Null node pointer."}).empty()) << log.dump();
}

TEST_F(LibraryRecordsOfARun, WatcherHandsOnEachRecordDecodedAndOnlyWhileItLives)
{
    registerModule(QStringLiteral("media player"));
    PowerResource* lamp = resource(7116, QStringLiteral("wall lamp"), Platform::AtOnce, Platform::AtOnce);
    handler.registerResource(lamp);
    log4cplus::Logger& logger = vela::powerManagerLogger();
    const log4cplus::LogLevel previous = logger.getLogLevel();
    logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
    std::vector<std::string> heard;
    {
        LibraryLogWatcher watcher([&heard](const LibraryRecord& record) {
            if (record.kind != Kind::Other)
                heard.push_back(fieldsOf(record));
        });
        // State changes are DEBUG: the watcher lowers the level to see them.
        EXPECT_EQ(logger.getLogLevel(), kDebug);
        ASSERT_TRUE(finished(lamp->enable()));
        EXPECT_EQ(heard,
                  (std::vector<std::string>{actionDone("wall lamp", "enable"), stateChanged("wall lamp", "enabled")}));
        heard.clear();
        watcher.lowerLevel(kTrace);
        EXPECT_EQ(logger.getLogLevel(), kTrace);
        PowerNodeRequestTestAccess::setIdCounter(8999);
        ASSERT_TRUE(finished(askResource(lamp, QStringLiteral("media player"), VelaPowerModuleActions::release)));
        ASSERT_FALSE(heard.empty());
        EXPECT_EQ(heard.front(), requestKind(Kind::RequestStarted, 9000));
        EXPECT_EQ(heard.back(), requestKind(Kind::RequestFinished, 9000));
        heard.clear();
    }
    ASSERT_TRUE(finished(lamp->enable()));
    EXPECT_TRUE(heard.empty());
    logger.setLogLevel(previous);
}
