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
#include "eventloop.h"
#include "velapowerenums.h"

#include <QCoreApplication>
#include <QList>
#include <QString>
#include <QVariant>

#include <gtest/gtest.h>

#include <memory>
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

class SwitchingTest : public ::testing::Test
{
protected:
    static constexpr int kDefaultTimeout = -1;

    void TearDown() override
    {
        // Answer what is still waiting, so that no continuation outlives the
        // node it belongs to; answering may start further writes.
        for (int round = 0; round < 100 && !m_unanswered.isEmpty(); ++round) {
            const QList<CMReply<QVariant>> pending = m_unanswered;
            m_unanswered.clear();
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
    PowerResource* makeResource(int timeout = kDefaultTimeout)
    {
        const auto value = static_cast<VelaPowerManagerResources::Enum>(s_nextResource++);
        PowerResource* node = timeout < 0 ? new PowerResource(value) : new PowerResource(value, timeout);
        m_nodes.emplace_back(node);
        return node;
    }

    // A resource whose enable and disable writes are answered as given.
    PowerResource* makeResource(Answer onEnable, Answer onDisable, int timeout = kDefaultTimeout)
    {
        PowerResource* node = makeResource(timeout);
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

    static QString enablePath(const PowerNode* node) { return QStringLiteral("/switching/%1/on").arg(node->name()); }
    static QString disablePath(const PowerNode* node) { return QStringLiteral("/switching/%1/off").arg(node->name()); }

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
                    m_unanswered.append(reply);
                    QMetaObject::invokeMethod(
                        QCoreApplication::instance(), [reply]() { reply.setValue(QVariant(true)); },
                        Qt::QueuedConnection);
                    break;
                case Answer::Never:
                case Answer::NoRequest:
                    m_unanswered.append(reply);
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

    // The writes that were never answered by a handler, oldest first.
    QList<CMReply<QVariant>> m_unanswered;
    std::vector<Write> m_writes;

private:
    std::vector<std::unique_ptr<PowerNode>> m_nodes;
    static int s_nextResource;
    static int s_nextTarget;
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
