#ifndef VELA_TESTS_SWITCHINGFIXTURE_H
#define VELA_TESTS_SWITCHINGFIXTURE_H

// Shared set-up of the switching tests: nodes owned by the fixture, and
// set-data handlers on the routing root worker that answer a resource's
// writes at once, later, with an error, or never.

#include "PowerNode.h"
#include "capturingappender.h"
#include "cmerror.h"
#include "cmreply.h"
#include "cmrequest.h"
#include "cmrootworker.h"
#include "dbglog.h"
#include "eventloop.h"
#include "velapowerenums.h"

#include <QCoreApplication>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace switching {

// How the platform answers the writes at one path.
enum class Answer {
    AtOnce,    // success from inside setData
    Later,     // success from the event loop, after setData has returned
    WithError, // an error from inside setData
    Never,     // kept unanswered (the fixture answers it when the test ends)
    NoRequest  // no set-data request for this direction at all
};

// One write seen by a handler.
struct Write {
    CMPath path;
    QString key;
    QVariant value;
};

inline const char* nodeSource()
{
    return "modules/powerManager/powerHandler/PowerNode.cpp";
}

inline std::string str(const QString& text)
{
    return text.toStdString();
}

// The function texts that the log records of the switching carry.
constexpr const char* kEnableSignature = "CMReply<void> PowerNode::enable()";
constexpr const char* kDisableSignature = "CMReply<void> PowerNode::disable()";
constexpr const char* kSetModuleActionSignature =
    "CMReply<void> PowerNode::setModuleAction(const QString&, const VelaPowerModuleActions::Enum&)";
constexpr const char* kLockContinuation = "PowerNode::enable()::<lambda(const CMReply<QList<CMVoidReply> >&)> mutable";
constexpr const char* kEnableActionContinuation =
    "PowerNode::enable()::<lambda(const CMReply<QList<CMVoidReply> >&)> mutable::<lambda(const CMReply<void>&)> mutable";
constexpr const char* kDisableActionContinuation = "PowerNode::disable()::<lambda(const CMReply<void>&)> mutable";
constexpr const char* kUnlockContinuation =
    "PowerNode::disable()::<lambda(const CMReply<void>&)> mutable::<lambda(const CMReply<QList<CMVoidReply> >&)> mutable";
constexpr const char* kActionContinuation =
    "PowerResource::executeAction(const QString&, const CMSetDataRequest&)::<lambda(const CMReply<QVariant>&)> mutable";

// The "Leave" trace line of `signature` with the given tail.
inline std::string leaveLine(const char* signature, const std::string& tail)
{
    return "Leave " + dbglog_scopedFunction(signature, "PowerManager") + ": " + tail;
}

// Drives the event loop until `reply` has finished; false when it never does.
inline bool finishes(const CMVoidReply& reply)
{
    return waitUntil([&reply] { return reply.isFinished(); });
}

// Whether `reply` has finished, with success, at the moment of the call.
inline ::testing::AssertionResult succeeded(const CMVoidReply& reply)
{
    if (!reply.isFinished())
        return ::testing::AssertionFailure() << "not finished";
    const CMError error = reply.error();
    if (error.isError())
        return ::testing::AssertionFailure() << "error " << str(error.name()) << ": "
                                             << str(error.message().toString());
    return ::testing::AssertionSuccess();
}

/*
 * The source lines that the node records carry. Log consumers key records on
 * file and line, so these numbers are fixed by the log contract: written out
 * here, not looked up in the source, so that a record that moves is caught.
 */
namespace documentedLine {
constexpr int enableAlreadyRequested = 38;
constexpr int enableWhileDisabling = 42;
constexpr int lockFailed = 56;
constexpr int enableActionFailed = 63;
constexpr int enabledState = 67;
constexpr int disableAlreadyRequested = 78;
constexpr int disableWhileEnabling = 92;
constexpr int disableActionFailed = 101;
constexpr int disabledState = 105;
constexpr int unlockFailed = 116;
constexpr int moduleActionUpdated = 324;
constexpr int actionFailed = 432;
constexpr int actionSucceeded = 436;
} // namespace documentedLine

// The single event with this message, checked for level, source file,
// function and documented line.
inline ::testing::AssertionResult loggedOnce(const LogCapture& log, const std::string& message,
                                             log4cplus::LogLevel level, const std::string& function, int line)
{
    const auto lines = log.withMessage(message);
    if (lines.size() != 1)
        return ::testing::AssertionFailure() << lines.size() << " events \"" << message << "\" in\n" << log.dump();
    if (lines[0].level != level)
        return ::testing::AssertionFailure() << "level " << lines[0].level << " of \"" << message << "\"";
    if (lines[0].file != nodeSource())
        return ::testing::AssertionFailure() << "file " << lines[0].file << " of \"" << message << "\"";
    if (lines[0].function != function)
        return ::testing::AssertionFailure() << "function " << lines[0].function << " of \"" << message << "\"";
    if (lines[0].line != line)
        return ::testing::AssertionFailure() << "line " << lines[0].line << " instead of " << line << " of \""
                                             << message << "\"";
    return ::testing::AssertionSuccess();
}

/*
 * A resource that also shows the replies of its latest transitions, so that
 * a test can tell a fresh reply from the one the node keeps.
 */
class TestResource : public PowerResource
{
public:
    using PowerResource::PowerResource;

    CMReply<void> enableReply() const { return m_enableReply; }
    CMReply<void> disableReply() const { return m_disableReply; }
};

class SwitchingTest : public ::testing::Test
{
public:
    // Where the fixture's resources write when switched on and off.
    static QString enablePath(const PowerNode* node) { return QStringLiteral("/switching/%1/on").arg(node->name()); }
    static QString disablePath(const PowerNode* node) { return QStringLiteral("/switching/%1/off").arg(node->name()); }

protected:
    static constexpr int kDefaultTimeout = -1;

    void TearDown() override
    {
        // Answer what is still waiting, so that no continuation outlives the
        // node it belongs to; answering may start further writes.
        for (int round = 0; round < 100 && !m_unanswered.isEmpty(); ++round) {
            const QList<CMReply<QVariant>> pending = m_unanswered;
            m_unanswered.clear();
            m_unansweredPaths.clear();
            for (const CMReply<QVariant>& reply : pending)
                reply.setError(CMError(TrString(QStringLiteral("test finished"))));
            drainEvents();
        }
        drainEvents();
        CMRootWorker::instance()->clearHandlers();
        m_nodes.clear();
    }

    // A resource with a name of its own. `timeout` < 0 uses the one-argument
    // constructor (the default time limit).
    TestResource* makeResource(int timeout = kDefaultTimeout)
    {
        const auto value = static_cast<VelaPowerManagerResources::Enum>(s_nextResource++);
        TestResource* node = timeout < 0 ? new TestResource(value) : new TestResource(value, timeout);
        m_nodes.emplace_back(node);
        return node;
    }

    // A resource whose enable and disable writes are answered as given.
    TestResource* makeResource(Answer onEnable, Answer onDisable, int timeout = kDefaultTimeout)
    {
        TestResource* node = makeResource(timeout);
        if (onEnable != Answer::NoRequest)
            node->setOnEnableActionRequest(setDataRequest(enablePath(node), true, onEnable));
        if (onDisable != Answer::NoRequest)
            node->setOnDisableActionRequest(setDataRequest(disablePath(node), false, onDisable));
        return node;
    }

    PowerTarget* makeTarget()
    {
        auto* node = new PowerTarget(static_cast<VelaPowerManagerTargets::Enum>(s_nextTarget++));
        m_nodes.emplace_back(node);
        return node;
    }

    // A request writing `value` under the key "powered" at `path`, with a
    // handler that answers as given.
    CMSetDataRequest setDataRequest(const QString& path, const QVariant& value, Answer answer)
    {
        handle(path, answer);
        return CMSetDataRequest(CMPath(path), QStringLiteral("powered"), value);
    }

    void handle(const QString& path, Answer answer, const QString& errorMessage = QStringLiteral("refused"))
    {
        if (answer == Answer::NoRequest)
            return;
        CMRootWorker::instance()->registerSetDataHandler(
            CMPath(path), [this, answer, errorMessage](const CMPath& at, const QString& key, const QVariant& value,
                                                       CMReply<QVariant> reply) {
                m_writes.push_back(Write{at, key, value});
                switch (answer) {
                case Answer::AtOnce:
                    reply.setValue(QVariant(true));
                    break;
                case Answer::WithError:
                    reply.setError(CMError(TrString(errorMessage)));
                    break;
                case Answer::Later:
                    keep(at, reply);
                    QMetaObject::invokeMethod(
                        QCoreApplication::instance(), [reply]() { reply.setValue(QVariant(true)); },
                        Qt::QueuedConnection);
                    break;
                case Answer::Never:
                case Answer::NoRequest:
                    keep(at, reply);
                    break;
                }
            });
    }

    int writesTo(const QString& path) const
    {
        int n = 0;
        for (const Write& write : m_writes) {
            if (write.path.toString() == path)
                ++n;
        }
        return n;
    }

    // Answers the oldest write at `path` that is still unanswered; false
    // when there is none.
    bool answerPending(const QString& path, const QVariant& value = QVariant(true))
    {
        for (int i = 0; i < m_unanswered.size(); ++i) {
            if (m_unansweredPaths.at(i) == path && !m_unanswered.at(i).isFinished()) {
                const CMReply<QVariant> reply = m_unanswered.at(i); // answering may grow the list
                reply.setValue(value);
                return true;
            }
        }
        return false;
    }

    bool answerPendingWithError(const QString& path, const CMError& error)
    {
        for (int i = 0; i < m_unanswered.size(); ++i) {
            if (m_unansweredPaths.at(i) == path && !m_unanswered.at(i).isFinished()) {
                const CMReply<QVariant> reply = m_unanswered.at(i);
                reply.setError(error);
                return true;
            }
        }
        return false;
    }

    // The writes that the handlers did not answer from inside setData,
    // oldest first, with their paths.
    QList<CMReply<QVariant>> m_unanswered;
    QStringList m_unansweredPaths;
    std::vector<Write> m_writes;

private:
    void keep(const CMPath& path, const CMReply<QVariant>& reply)
    {
        m_unanswered.append(reply);
        m_unansweredPaths.append(path.toString());
    }

    std::vector<std::unique_ptr<PowerNode>> m_nodes;
    static int s_nextResource;
    static int s_nextTarget;
};

/*
 * One direction of a node's transitions, so that a behaviour that the
 * machine has in both directions is checked by one test run for each.
 */
struct Direction {
    const char* name;                                // "Enable" or "Disable"
    CMReply<void> (PowerNode::*request)();           // enable() or disable()
    CMReply<void> (PowerNode::*oppositeRequest)();   // the other one
    VelaPowerNodeStates::Enum running;               // enabling or disabling
    VelaPowerNodeStates::Enum reached;               // enabled or disabled
    VelaPowerNodeStates::Enum oppositeEnd;           // disabled or enabled
    CMReply<void> (TestResource::*keptReply)() const; // the reply the node keeps for it
    QString (*path)(const PowerNode*);               // where its write goes
    const char* actionName;                          // "enable" or "disable"
    const char* signature;                           // of enable() or disable()
    const char* alreadyTail;                         // tail of the "already ..." trace line
    const char* actionContinuation;                  // function of the records after the action
    int alreadyLine;                                 // source line of the "already ..." trace line
    int actionFailedLine;                            // source line of the FATAL after a failed action
    int stateLine;                                   // source line of the "enters state" line
    int assertionLine;                               // source line of the opposite-direction assertion
};

extern const Direction kEnabling;
extern const Direction kDisabling;

inline void PrintTo(const Direction& direction, std::ostream* out)
{
    *out << direction.name;
}

inline std::string directionName(const ::testing::TestParamInfo<Direction>& info)
{
    return info.param.name;
}

class EachDirection : public SwitchingTest, public ::testing::WithParamInterface<Direction>
{
protected:
    const Direction& direction() const { return GetParam(); }

    // A resource whose writes in this direction are answered `own`, and in
    // the other direction `opposite`.
    TestResource* makeDirected(Answer own, Answer opposite, int timeout = kDefaultTimeout)
    {
        return direction().request == &PowerNode::enable ? makeResource(own, opposite, timeout)
                                                         : makeResource(opposite, own, timeout);
    }

    CMReply<void> request(PowerNode* node) const { return (node->*direction().request)(); }
    CMReply<void> keptReply(const TestResource* node) const { return (node->*direction().keptReply)(); }
    QString ownPath(const PowerNode* node) const { return direction().path(node); }

    // Runs the other direction to its end (its writes must be answered).
    ::testing::AssertionResult bringToOppositeEnd(PowerNode* node) const
    {
        if (!finishes((node->*direction().oppositeRequest)()))
            return ::testing::AssertionFailure() << "the opposite transition never finished";
        if (node->state() != direction().oppositeEnd)
            return ::testing::AssertionFailure() << "state " << node->state();
        return ::testing::AssertionSuccess();
    }

    std::string alreadyLine(const PowerNode* node) const
    {
        return leaveLine(direction().signature, "powerNode: " + str(node->name()) + direction().alreadyTail);
    }
};

// Whether `error` is the time-out error of a resource action.
inline ::testing::AssertionResult isTimeoutError(const CMError& error)
{
    if (!error.isError())
        return ::testing::AssertionFailure() << "no error";
    if (error.name() != CMError::DefaultName())
        return ::testing::AssertionFailure() << "name " << str(error.name());
    if (error.message().toString() != CMVoidReply::ErrorTimeout())
        return ::testing::AssertionFailure() << "message " << str(error.message().toString());
    if (error.title().toString() != CMError::DefaultTitle())
        return ::testing::AssertionFailure() << "title " << str(error.title().toString());
    if (error.value(CMError::Message()).userType() != qMetaTypeId<TrString>()
        || error.value(CMError::Title()).userType() != qMetaTypeId<TrString>())
        return ::testing::AssertionFailure() << "message or title is not a TrString";
    if (error.size() != 3)
        return ::testing::AssertionFailure() << error.size() << " entries instead of 3";
    return ::testing::AssertionSuccess();
}

} // namespace switching

#endif
