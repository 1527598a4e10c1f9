#ifndef VELA_TESTS_REQUESTFIXTURE_H
#define VELA_TESTS_REQUESTFIXTURE_H

// Shared set-up of the node request tests: nodes owned by the fixture,
// modules and resources played by handlers on the routing root worker, and
// one ordered log of everything those handlers saw and answered.

#include "PowerNode.h"
#include "PowerNodeRequest.h"
#include "requestidentities.h"
#include "capturingappender.h"
#include "cmerror.h"
#include "cmpath.h"
#include "cmreply.h"
#include "cmrequest.h"
#include "cmrootworker.h"
#include "eventloop.h"
#include "velahash.h"
#include "velapowerenums.h"
#include "velapowermanagermoduleregister.h"
#include "velapowermanagerrevokemessage.h"

#include <QCoreApplication>
#include <QHash>
#include <QList>
#include <QMetaObject>
#include <QString>
#include <QVariant>

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace requests {

// How a handler answers a call made to its path.
enum class Answer {
    AtOnce,    // success from inside the call
    Later,     // success from the event loop, after the call has returned
    Held,      // kept until the test answers it with answerHeld()
    WithError, // an error from inside the call
    Never      // kept unanswered; only for replies that nobody watches
};

// One invocation seen by a module handler.
struct Invocation {
    std::string label; // "pre <module>" or "post <module>"
    CMPath path;
    VelaHash arguments;
};

inline std::string str(const QString& text)
{
    return text.toStdString();
}

inline const char* requestSource()
{
    return "modules/powerManager/powerHandler/PowerNodeRequest.cpp";
}

// The revoke message a module is expected to receive.
inline VelaHash revokeMessage(const QString& module, VelaPowerManagerMessageTypes::Enum type,
                              const QList<const PowerResource*>& revoked)
{
    VelaPowerManagerRevokeMessage message{QHash<QString, QVariant>()};
    message.setModuleName(module).setMessageType(type);
    if (!revoked.isEmpty()) {
        VelaList<VelaPowerManagerResources::Enum> resources;
        for (const PowerResource* resource : revoked)
            resources.append(resource->resource());
        message.setRevokeResources(resources);
    }
    return message;
}

// The key under which a revoke message stores its list, as the record
// itself names it.
inline QString revokeResourcesKey()
{
    VelaPowerManagerRevokeMessage probe{QHash<QString, QVariant>()};
    probe.setRevokeResources(VelaList<VelaPowerManagerResources::Enum>());
    return probe.keys().value(0);
}

// Whether every listed resource travels as a plain integer.
inline ::testing::AssertionResult revokeListHoldsIntegers(const VelaHash& arguments)
{
    const QVariant list = arguments.value(revokeResourcesKey());
    if (list.userType() != QMetaType::QVariantList)
        return ::testing::AssertionFailure() << "the revoke list is a " << list.typeName();
    for (const QVariant& entry : list.toList()) {
        if (entry.userType() != QMetaType::Int)
            return ::testing::AssertionFailure() << "an entry is a " << entry.typeName();
    }
    return ::testing::AssertionSuccess();
}

inline std::string printed(const VelaHash& hash)
{
    std::ostringstream out;
    out << hash;
    return out.str();
}

// A node of the base kind: neither a resource nor a target. Its own
// switching step succeeds at once.
class PlainNode : public PowerNode
{
public:
    explicit PlainNode(const QString& name) : PowerNode(name) {}

    CMReply<void> onEnableAction() override { return done(); }
    CMReply<void> onDisableAction() override { return done(); }

private:
    static CMReply<void> done()
    {
        CMReply<void> reply;
        reply.setValue();
        return reply;
    }
};

/*
 * A target whose reachability and ordered dependencies are scripted, so that
 * resolution can be watched on answers the real graph never gives (a node
 * listed twice, a state other than enabled or disabled). It records how it
 * was asked.
 */
class ScriptedTarget : public PowerTarget
{
public:
    struct Query {
        VelaPowerNodeStates::Enum state;
        QString module;
        bool recursive;
    };

    explicit ScriptedTarget(VelaPowerManagerTargets::Enum target) : PowerTarget(target) {}

    DependencyList orderedDependencies(const VelaPowerNodeStates::Enum& state, const bool& recursive) const override
    {
        dependencyQueries.push_back(Query{state, QString(), recursive});
        return script;
    }

    bool isStateReachable(const VelaPowerNodeStates::Enum& state, const QString& module,
                          const bool& recursive) const override
    {
        reachabilityQueries.push_back(Query{state, module, recursive});
        return reachable;
    }

    DependencyList script;
    bool reachable = true;
    mutable std::vector<Query> dependencyQueries;
    mutable std::vector<Query> reachabilityQueries;
};

class RequestTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        // Answer whatever is still waiting, so that no continuation (and no
        // request it keeps alive) outlives the test; answering may let a
        // request go on and make further calls.
        for (int round = 0; round < 100 && !m_held.empty(); ++round) {
            const std::vector<std::pair<std::string, CMReply<QVariant>>> pending = m_held;
            m_held.clear();
            for (const auto& held : pending)
                held.second.setError(CMError(TrString(QStringLiteral("test finished"))));
            drainEvents();
        }
        drainEvents();
        // Nobody watches these: dropping the last handle frees them.
        m_never.clear();
        CMRootWorker::instance()->clearHandlers();
        m_nodes.clear();
    }

    // --- nodes -------------------------------------------------------------

    // A resource with a fresh name whose enable and disable writes are
    // answered as given.
    PowerResource* makeResource(Answer onEnable = Answer::AtOnce, Answer onDisable = Answer::AtOnce)
    {
        auto* node = new PowerResource(static_cast<VelaPowerManagerResources::Enum>(s_nextResource++));
        m_nodes.emplace_back(node);
        node->setOnEnableActionRequest(writeRequest(node, QStringLiteral("on"), true, onEnable));
        node->setOnDisableActionRequest(writeRequest(node, QStringLiteral("off"), false, onDisable));
        return node;
    }

    using Claims = QHash<QString, VelaPowerModuleActions::Enum>;

    // A fresh resource that carries these module actions.
    PowerResource* makeClaimedResource(const Claims& claims, Answer writes = Answer::AtOnce)
    {
        PowerResource* resource = makeResource(writes, writes);
        for (auto it = claims.cbegin(); it != claims.cend(); ++it)
            resource->addModule(it.key(), it.value());
        return resource;
    }

    // One module's action on one fresh resource, whose writes are answered
    // as given.
    struct Claim {
        QString module;
        VelaPowerModuleActions::Enum action;
        Answer writes = Answer::AtOnce;
    };

    struct DisablingTarget {
        PowerTarget* target;
        std::vector<PowerResource*> resources; // in the order of the claims
    };

    // A fresh target that disables one fresh resource per claim.
    DisablingTarget makeTargetDisabling(std::initializer_list<Claim> claims)
    {
        DisablingTarget made{makeTarget(), {}};
        for (const Claim& claim : claims) {
            PowerResource* resource = makeClaimedResource({{claim.module, claim.action}}, claim.writes);
            made.target->disables(resource);
            made.resources.push_back(resource);
        }
        return made;
    }

    // A target that no module can reach: it disables a resource that module
    // "C" holds.
    DisablingTarget makeUnreachableTarget()
    {
        const DisablingTarget made = makeTargetDisabling({{QStringLiteral("C"), VelaPowerModuleActions::hold}});
        EXPECT_FALSE(made.target->isStateReachable(VelaPowerNodeStates::enabled, VelaPowerManagerName(), true))
            << "the held resource no longer blocks the target";
        return made;
    }

    PowerTarget* makeTarget()
    {
        auto* node = new PowerTarget(static_cast<VelaPowerManagerTargets::Enum>(s_nextTarget++));
        m_nodes.emplace_back(node);
        return node;
    }

    ScriptedTarget* makeScriptedTarget()
    {
        auto* node = new ScriptedTarget(static_cast<VelaPowerManagerTargets::Enum>(s_nextTarget++));
        m_nodes.emplace_back(node);
        return node;
    }

    PlainNode* makePlainNode()
    {
        auto* node = new PlainNode(QStringLiteral("plain%1").arg(s_nextPlain++));
        m_nodes.emplace_back(node);
        return node;
    }

    static std::string writeLabel(const PowerNode* node, const char* direction)
    {
        return "write " + str(node->name()) + " " + direction;
    }

    // --- modules -----------------------------------------------------------

    static CMPath revokePath(const QString& module) { return CMPath(QStringLiteral("/modules/%1/revoke").arg(module)); }
    static CMPath postRevokePath(const QString& module)
    {
        return CMPath(QStringLiteral("/modules/%1/postRevoke").arg(module));
    }

    /*
     * Registers `module` in m_registrations with its two paths and puts a
     * handler at each: invocations at the revoke path are logged as
     * "pre <module>", at the post-revoke path as "post <module>".
     */
    VelaPowerManagerModuleRegister registerModule(const QString& module, Answer pre = Answer::AtOnce,
                                                  Answer post = Answer::AtOnce)
    {
        handleInvoke(revokePath(module), "pre " + str(module), pre);
        handleInvoke(postRevokePath(module), "post " + str(module), post);
        VelaPowerManagerModuleRegister registration(module, revokePath(module), postRevokePath(module));
        m_registrations.insert(module, registration);
        return registration;
    }

    void handleInvoke(const CMPath& path, const std::string& label, Answer answer)
    {
        CMRootWorker::instance()->registerInvokeHandler(
            path, [this, label, answer](const CMPath& at, const VelaHash& arguments, CMReply<QVariant> reply) {
                m_invocations.push_back(Invocation{label, at, arguments});
                m_events.push_back(label);
                answerAs(label, answer, reply);
            });
    }

    // Answers a held call with success; false when no call with that label
    // is held.
    bool answerHeld(const std::string& label)
    {
        CMReply<QVariant> reply;
        if (!takeHeld(label, reply))
            return false;
        m_events.push_back("answered " + label);
        reply.setValue(QVariant(true));
        return true;
    }

    // Answers a held call with an error; false when no call with that label
    // is held.
    bool failHeld(const std::string& label, const QString& message)
    {
        CMReply<QVariant> reply;
        if (!takeHeld(label, reply))
            return false;
        m_events.push_back("failed " + label);
        reply.setError(CMError(TrString(message)));
        return true;
    }

    std::vector<Invocation> invocationsAt(const CMPath& path) const
    {
        std::vector<Invocation> found;
        for (const Invocation& invocation : m_invocations) {
            if (invocation.path == path)
                found.push_back(invocation);
        }
        return found;
    }

    // Whether `module` was called exactly once at the path of `type` (its
    // registered paths) and given exactly the message that revokes
    // `revoked`.
    ::testing::AssertionResult toldOnce(const QString& module, VelaPowerManagerMessageTypes::Enum type,
                                        const QList<const PowerResource*>& revoked) const
    {
        const CMPath path =
            type == VelaPowerManagerMessageTypes::revoke ? revokePath(module) : postRevokePath(module);
        const std::vector<Invocation> seen = invocationsAt(path);
        if (seen.size() != 1) {
            return ::testing::AssertionFailure() << str(module) << " was called " << seen.size() << " times at "
                                                 << str(path.toString()) << "\n" << eventDump();
        }
        const VelaHash expected = revokeMessage(module, type, revoked);
        if (!(seen[0].arguments == expected)) {
            return ::testing::AssertionFailure() << str(module) << " was sent " << printed(seen[0].arguments)
                                                 << ", expected " << printed(expected);
        }
        return ::testing::AssertionSuccess();
    }

    // Whether `module` was called at neither of its registered paths.
    ::testing::AssertionResult toldNothing(const QString& module) const
    {
        const std::size_t calls =
            invocationsAt(revokePath(module)).size() + invocationsAt(postRevokePath(module)).size();
        if (calls != 0)
            return ::testing::AssertionFailure() << str(module) << " was called " << calls << " times\n" << eventDump();
        return ::testing::AssertionSuccess();
    }

    // --- requests ----------------------------------------------------------

    // A request of `module` on `node`, with the fixture's registrations.
    PowerNodeRequestPtr requestFor(PowerNode* node, const QString& module,
                                   VelaPowerModuleActions::Enum action) const
    {
        return PowerNodeRequest::create(node, module, action, m_registrations);
    }

    // A target request as the power manager makes it.
    PowerNodeRequestPtr targetRequest(PowerTarget* target) const
    {
        return requestFor(target, VelaPowerManagerName(), VelaPowerModuleActions::hold);
    }

    // Processes the request and drives the event loop until its reply has
    // finished.
    static CMReply<void> runToEnd(const PowerNodeRequestPtr& request)
    {
        const CMReply<void> reply = request->process();
        EXPECT_TRUE(waitUntil([&reply]() { return reply.isFinished(); })) << "the request never finished";
        return reply;
    }

    // --- the event log -----------------------------------------------------

    // Position of the first event equal to `event`, -1 when absent.
    int indexOf(const std::string& event) const
    {
        const auto it = std::find(m_events.begin(), m_events.end(), event);
        return it == m_events.end() ? -1 : static_cast<int>(it - m_events.begin());
    }

    std::vector<int> indicesStartingWith(const std::string& prefix) const
    {
        std::vector<int> found;
        for (std::size_t i = 0; i < m_events.size(); ++i) {
            if (m_events[i].compare(0, prefix.size(), prefix) == 0)
                found.push_back(static_cast<int>(i));
        }
        return found;
    }

    int countStartingWith(const std::string& prefix) const
    {
        return static_cast<int>(indicesStartingWith(prefix).size());
    }

    std::string eventDump() const
    {
        std::ostringstream out;
        for (std::size_t i = 0; i < m_events.size(); ++i)
            out << i << ": " << m_events[i] << '\n';
        return out.str();
    }

    QHash<QString, VelaPowerManagerModuleRegister> m_registrations;
    std::vector<Invocation> m_invocations;
    std::vector<std::string> m_events;
    std::vector<std::pair<std::string, CMReply<QVariant>>> m_held;
    std::vector<CMReply<QVariant>> m_never;

private:
    bool takeHeld(const std::string& label, CMReply<QVariant>& reply)
    {
        auto it = std::find_if(m_held.begin(), m_held.end(),
                               [&label](const std::pair<std::string, CMReply<QVariant>>& held) {
                                   return held.first == label;
                               });
        if (it == m_held.end())
            return false;
        reply = it->second;
        m_held.erase(it);
        return true;
    }

    CMSetDataRequest writeRequest(PowerNode* node, const QString& direction, bool value, Answer answer)
    {
        const CMPath path(QStringLiteral("/resources/%1/%2").arg(node->name(), direction));
        const std::string label = "write " + str(node->name()) + " " + str(direction);
        CMRootWorker::instance()->registerSetDataHandler(
            path, [this, label, answer](const CMPath&, const QString&, const QVariant&, CMReply<QVariant> reply) {
                m_events.push_back(label);
                answerAs(label, answer, reply);
            });
        return CMSetDataRequest(path, QStringLiteral("powered"), value);
    }

    void answerAs(const std::string& label, Answer answer, const CMReply<QVariant>& reply)
    {
        switch (answer) {
        case Answer::AtOnce:
            m_events.push_back("answered " + label);
            reply.setValue(QVariant(true));
            break;
        case Answer::Later:
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [this, label, reply]() {
                    m_events.push_back("answered " + label);
                    reply.setValue(QVariant(true));
                },
                Qt::QueuedConnection);
            break;
        case Answer::Held:
            m_held.emplace_back(label, reply);
            break;
        case Answer::WithError:
            m_events.push_back("failed " + label);
            reply.setError(CMError(TrString(QStringLiteral("refused by the test"))));
            break;
        case Answer::Never:
            m_never.push_back(reply);
            break;
        }
    }

    std::vector<std::unique_ptr<PowerNode>> m_nodes;
    // Values outside the platform's own lists, so every node gets a fresh
    // "resource<N>" / "target<N>" name.
    static inline int s_nextResource = 100;
    static inline int s_nextTarget = 100;
    static inline int s_nextPlain = 1;
};

} // namespace requests

#endif
