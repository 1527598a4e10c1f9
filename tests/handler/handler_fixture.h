#ifndef VELA_TESTS_HANDLER_FIXTURE_H
#define VELA_TESTS_HANDLER_FIXTURE_H

// Shared set-up of the handler tests: nodes owned by the fixture (they
// outlive the handler), a simulated platform on the routing root worker that
// answers writes and revoke messages at once, later, with an error or only
// when the test says so, and one ordered event log into which writes,
// invocations, signals and the callers' answers are all written.

#include "PowerHandler.h"
#include "PowerNode.h"
#include "PowerNodeRequest.h"
#include "requestidentities.h"

#include "capturingappender.h"
#include "cmerror.h"
#include "cmreply.h"
#include "cmrequest.h"
#include "cmrootworker.h"
#include "dbglog.h"
#include "eventloop.h"
#include "velahash.h"
#include "velapowerenums.h"
#include "velapowermanagermoduleregister.h"
#include "velapowermanagerresourcerequest.h"
#include "velapowermanagerrevokemessage.h"
#include "velapowermanagertarget.h"

#include <QCoreApplication>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVariant>

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace handlertest {

inline const char* handlerSource()
{
    return "modules/powerManager/powerHandler/PowerHandler.cpp";
}

inline VelaPowerManagerResources::Enum resourceValue(int value)
{
    return static_cast<VelaPowerManagerResources::Enum>(value);
}

inline VelaPowerManagerTargets::Enum targetValue(int value)
{
    return static_cast<VelaPowerManagerTargets::Enum>(value);
}

inline std::string str(const QString& text)
{
    return text.toStdString();
}

// The log form of a record, as the handler writes it after ": ".
template <typename Record>
std::string recordText(const Record& record)
{
    std::ostringstream out;
    out << static_cast<const VelaHash&>(record);
    return out.str();
}

// The text of an entry line: "Enter [PowerManager] <name>(): <tail>".
inline std::string enterLine(const std::string& signature, const std::string& tail)
{
    return "Enter " + dbglog_scopedFunction(signature, "PowerManager") + ": " + tail;
}

inline std::string errorText(const CMVoidReply& reply)
{
    const CMError error = reply.error();
    return str(error.name()) + " / " + str(error.message().toString());
}

// Exactly one record with this message, at `level`, written from the
// handler's source file.
inline void expectSingleRecord(const LogCapture& log, log4cplus::LogLevel level, const std::string& message)
{
    const std::vector<CapturedEvent> records = log.withMessage(message);
    ASSERT_EQ(records.size(), 1u) << message << "\n" << log.dump();
    EXPECT_EQ(records.front().level, level) << message;
    EXPECT_EQ(records.front().file, handlerSource()) << message;
}

/*
 * Sets the "PowerManager" logger to a level for as long as it lives and then
 * restores the previous one: long runs keep the log quiet without leaving
 * the level changed for the tests that follow.
 */
class LoggerLevel
{
public:
    explicit LoggerLevel(log4cplus::LogLevel level)
        : m_previous(vela::powerManagerLogger().getLogLevel())
    {
        vela::powerManagerLogger().setLogLevel(level);
    }
    ~LoggerLevel() { vela::powerManagerLogger().setLogLevel(m_previous); }
    LoggerLevel(const LoggerLevel&) = delete;
    LoggerLevel& operator=(const LoggerLevel&) = delete;

private:
    log4cplus::LogLevel m_previous;
};

// An error that fails a request (any non-empty name will do).
inline CMError withdrawn()
{
    return CMError(TrString("withdrawn by the test"));
}

/*
 * A resource that a test can put into any state directly, to look at how
 * the handler treats a node that is already enabled or disabled without
 * running the transitions that would bring it there.
 */
class ProbeResource : public PowerResource
{
public:
    using PowerResource::PowerResource;
    void forceState(VelaPowerNodeStates::Enum state) { m_state = state; }
};

// How the simulated platform answers the calls at one path.
enum class Answer {
    AtOnce,    // success from inside the call
    Later,     // success from the event loop, after the call returned
    WithError, // an error from inside the call
    Held       // kept until the test answers it (or the fixture, at the end)
};

class HandlerTest : public ::testing::Test
{
protected:
    HandlerTest()
    {
        QObject::connect(&handler, &PowerHandler::nextTargetChanged, &m_context,
                         [this](const VelaPowerManagerTarget& target) {
                             note("nextTargetChanged " + str(VelaPowerManagerTargets::toString(target.target())));
                         });
        QObject::connect(&handler, &PowerHandler::targetChanged, &m_context,
                         [this](const VelaPowerManagerTarget& target) {
                             note("targetChanged " + str(VelaPowerManagerTargets::toString(target.target())));
                         });
    }

    void TearDown() override
    {
        // Whatever is still waiting is answered (and answers from now on
        // come at once), so that every continuation runs while the nodes
        // exist and nothing that a handler kept is leaked.
        m_finishing = true;
        for (int round = 0; round < 1000; ++round) {
            answerAllHeld();
            waitUntil([this] { return m_later == 0; }, 5000);
            drainEvents();
            if (m_held.isEmpty() && m_later == 0 && handler.pendingRequests() == 0)
                break;
        }
        EXPECT_EQ(handler.pendingRequests(), 0) << "the queue did not drain at the end of the test";
        CMRootWorker::instance()->clearHandlers();
        drainEvents();
    }

    // --- Event log ------------------------------------------------------

    // Appends an event; callers whose reply has finished since the last
    // event are written first, so the log shows when each answer was given.
    void note(const std::string& event)
    {
        sweepAnswers();
        m_events.push_back(event);
    }

    // A caller's reply whose answer goes into the event log as
    // "answer <label> ok" or "answer <label> error <name> / <message>".
    CMReply<QVariant> caller(const std::string& label)
    {
        CMReply<QVariant> reply;
        m_callers.push_back(Caller{label, reply, false});
        reply.onFinished([this](const CMReply<QVariant>&) { sweepAnswers(); });
        return reply;
    }

    void sweepAnswers()
    {
        for (Caller& caller : m_callers) {
            if (caller.noted || !caller.reply.isFinished())
                continue;
            caller.noted = true;
            const CMError error = caller.reply.error();
            m_events.push_back("answer " + caller.label +
                               (error.isError() ? " error " + errorText(caller.reply) : std::string(" ok")));
        }
    }

    // Index of the first event equal to `event`, or -1.
    int indexOf(const std::string& event) const
    {
        const auto found = std::find(m_events.begin(), m_events.end(), event);
        return found == m_events.end() ? -1 : static_cast<int>(found - m_events.begin());
    }

    int countOf(const std::string& event) const
    {
        return static_cast<int>(std::count(m_events.begin(), m_events.end(), event));
    }

    std::string eventDump() const
    {
        std::string text;
        for (const std::string& event : m_events)
            text += "  " + event + "\n";
        return text;
    }

    // --- Simulated platform --------------------------------------------

    // Writes at `path` are logged as "write <path> <key>=<value>" and
    // answered as given.
    void serveWrites(const QString& path, Answer answer)
    {
        CMRootWorker::instance()->registerSetDataHandler(
            CMPath(path),
            [this, answer](const CMPath& at, const QString& key, const QVariant& value, CMReply<QVariant> reply) {
                note("write " + str(at.toString()) + " " + str(key) + "=" + str(value.toString()));
                respond(at, reply, answer, QVariant(true));
            });
    }

    // Invocations at `path` are logged as
    // "invoke <path> <module> type=<n> revoke=[<values>]" and answered as given.
    void serveInvocations(const QString& path, Answer answer)
    {
        CMRootWorker::instance()->registerInvokeHandler(
            CMPath(path), [this, answer](const CMPath& at, const VelaHash& arguments, CMReply<QVariant> reply) {
                const VelaPowerManagerRevokeMessage message(arguments);
                std::string revoked;
                for (const auto resource : message.revokeResources())
                    revoked += (revoked.empty() ? "" : ",") + std::to_string(static_cast<int>(resource));
                note("invoke " + str(at.toString()) + " " + str(message.moduleName()) +
                     " type=" + std::to_string(static_cast<int>(message.messageType())) + " revoke=[" + revoked + "]");
                respond(at, reply, answer, QVariant());
            });
    }

    void respond(const CMPath& at, const CMReply<QVariant>& reply, Answer answer, const QVariant& value)
    {
        if (m_finishing)
            answer = Answer::AtOnce;
        switch (answer) {
        case Answer::AtOnce:
            reply.setValue(value);
            break;
        case Answer::WithError:
            reply.setError(CMError(TrString("refused by the test platform")));
            break;
        case Answer::Later:
            ++m_later;
            QTimer::singleShot(0, &m_context, [this, reply, value]() {
                --m_later;
                reply.setValue(value);
            });
            break;
        case Answer::Held:
            m_held.append(reply);
            m_heldPaths.append(at.toString());
            break;
        }
    }

    // Answers the oldest held call at `path` with success; false when none.
    bool answerHeld(const QString& path)
    {
        for (int i = 0; i < m_held.size(); ++i) {
            if (m_heldPaths.at(i) != path)
                continue;
            const CMReply<QVariant> reply = m_held.takeAt(i);
            m_heldPaths.removeAt(i);
            note("platform answers " + str(path));
            reply.setValue(QVariant(true)); // may hold further calls
            return true;
        }
        return false;
    }

    int heldAt(const QString& path) const { return static_cast<int>(m_heldPaths.count(path)); }

    void answerAllHeld()
    {
        while (!m_held.isEmpty()) {
            const CMReply<QVariant> reply = m_held.takeFirst();
            m_heldPaths.removeFirst();
            reply.setValue(QVariant(true));
        }
    }

    // --- Requests --------------------------------------------------------

    // A caller's resource wish, tracked in the event log under `label`.
    CMReply<QVariant> askResource(const std::string& label, PowerResource* resource, const QString& module,
                                  VelaPowerModuleActions::Enum action)
    {
        CMReply<QVariant> reply = caller(label);
        handler.requestResource(wish(resource, module, action), reply);
        return reply;
    }

    // A caller's target wish, tracked in the event log under `label`.
    CMReply<QVariant> askTarget(const std::string& label, PowerTarget* target)
    {
        CMReply<QVariant> reply = caller(label);
        handler.requestTarget(targetRecord(target), reply);
        return reply;
    }

    // A request of the test's own, queued without a caller and without
    // kicking the queue.
    PowerNodeRequestPtr queueOwn(PowerNode* node, const QString& module,
                                 VelaPowerModuleActions::Enum action = VelaPowerModuleActions::use)
    {
        PowerNodeRequestPtr request = handler.makeRequest(node, module, action);
        EXPECT_FALSE(request.isNull());
        EXPECT_TRUE(handler.addRequest(request));
        return request;
    }

    // A queued request turns invalid: its reply gets an error.
    static void invalidate(const PowerNodeRequestPtr& request)
    {
        request->reply().setError(withdrawn());
        EXPECT_FALSE(request->isValid());
    }

    // The next request made takes the identity of `request` again, so that
    // a caller's wish is stored under it: when `request` is resolved, that
    // caller is the one answered. (No entry point makes a caller's own
    // request turn invalid while it waits; this is how a test gets there.)
    static void reuseIdentityOf(const PowerNodeRequestPtr& request) { PowerNodeRequestTestAccess::setIdCounter(request->id() - 1); }

    // A target that cannot be reached: `module` holds a resource that the
    // target switches off. The hold is answered before this returns.
    struct UnreachableTarget {
        ProbeResource* held;
        PowerTarget* target;
    };
    UnreachableTarget addUnreachableTarget(const QString& module)
    {
        ProbeResource* held = addResource();
        PowerTarget* target = makeTarget();
        target->disables(held);
        handler.registerTarget(target);
        const CMReply<QVariant> hold = askResource("hold", held, module, VelaPowerModuleActions::hold);
        EXPECT_TRUE(waitUntil([&] { return hold.isFinished(); }));
        EXPECT_FALSE(hold.error().isError()) << errorText(hold);
        EXPECT_EQ(held->state(), VelaPowerNodeStates::enabled);
        return UnreachableTarget{held, target};
    }

    // --- Nodes -----------------------------------------------------------

    // A resource of its own value whose enable and disable writes go to
    // "/res/<name>/on" and "/res/<name>/off" (key "power", true / false),
    // answered as given. Not registered.
    ProbeResource* makeResource(Answer onEnable = Answer::AtOnce, Answer onDisable = Answer::AtOnce)
    {
        auto* node = new ProbeResource(resourceValue(s_nextResource++));
        m_nodes.emplace_back(node);
        node->setOnEnableActionRequest(
            CMSetDataRequest(CMPath(onPath(node)), QStringLiteral("power"), QVariant(true)));
        node->setOnDisableActionRequest(
            CMSetDataRequest(CMPath(offPath(node)), QStringLiteral("power"), QVariant(false)));
        serveWrites(onPath(node), onEnable);
        serveWrites(offPath(node), onDisable);
        return node;
    }

    ProbeResource* addResource(Answer onEnable = Answer::AtOnce, Answer onDisable = Answer::AtOnce)
    {
        ProbeResource* node = makeResource(onEnable, onDisable);
        handler.registerResource(node);
        return node;
    }

    PowerTarget* makeTarget()
    {
        auto* node = new PowerTarget(targetValue(s_nextTarget++));
        m_nodes.emplace_back(node);
        return node;
    }

    PowerTarget* addTarget()
    {
        PowerTarget* node = makeTarget();
        handler.registerTarget(node);
        return node;
    }

    static QString onPath(const PowerNode* node) { return QStringLiteral("/res/%1/on").arg(node->name()); }
    static QString offPath(const PowerNode* node) { return QStringLiteral("/res/%1/off").arg(node->name()); }
    static std::string writeOn(const PowerNode* node) { return "write " + str(onPath(node)) + " power=true"; }
    static std::string writeOff(const PowerNode* node) { return "write " + str(offPath(node)) + " power=false"; }

    // A module registered with revoke paths "/mod/<name>/revoke" and
    // "/mod/<name>/postRevoke", answered as given.
    void addModule(const QString& name, Answer revoke = Answer::AtOnce, Answer postRevoke = Answer::AtOnce)
    {
        serveInvocations(revokePath(name), revoke);
        serveInvocations(postRevokePath(name), postRevoke);
        ASSERT_TRUE(handler.registerModule(
            VelaPowerManagerModuleRegister(name, CMPath(revokePath(name)), CMPath(postRevokePath(name)))));
    }

    // The power manager's own module, without revoke paths.
    void addPowerManagerModule()
    {
        ASSERT_TRUE(handler.registerModule(VelaPowerManagerModuleRegister(VelaPowerManagerName(), CMPath(), CMPath())));
    }

    static QString revokePath(const QString& module) { return QStringLiteral("/mod/%1/revoke").arg(module); }
    static QString postRevokePath(const QString& module) { return QStringLiteral("/mod/%1/postRevoke").arg(module); }

    static VelaPowerManagerResourceRequest wish(const PowerResource* resource, const QString& module,
                                                VelaPowerModuleActions::Enum action)
    {
        return VelaPowerManagerResourceRequest(resource->resource(), module, action);
    }

    static VelaPowerManagerTarget targetRecord(const PowerTarget* target)
    {
        return VelaPowerManagerTarget(target->target());
    }

    static std::string nameOf(const PowerNode* node) { return str(node->name()); }

    // Declared before the handler: the nodes outlive it.
    std::deque<std::unique_ptr<PowerNode>> m_nodes;
    PowerHandler handler;
    // Context of the signal connections and of the delayed answers.
    QObject m_context;

    std::vector<std::string> m_events;

private:
    struct Caller {
        std::string label;
        CMReply<QVariant> reply;
        bool noted;
    };

    std::vector<Caller> m_callers;
    QList<CMReply<QVariant>> m_held;
    QStringList m_heldPaths;
    int m_later = 0;
    bool m_finishing = false;

    // Values above the platform's own keep the names of the tests apart
    // from built-in ones; they only grow, so names never repeat in one run.
    static inline int s_nextResource = 1000;
    static inline int s_nextTarget = 1000;
};

} // namespace handlertest

#endif
