#include "callercredentials.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace {

// The group database's entries fit in far less; a larger one is refused.
constexpr size_t entryBufferSize = 1 << 16;

bool groupId(const QString& name, gid_t* gid)
{
    std::vector<char> buffer(entryBufferSize);
    group entry{};
    group* found = nullptr;
    const QByteArray latin = name.toLocal8Bit();
    if (getgrnam_r(latin.constData(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
        return false;
    *gid = found->gr_gid;
    return true;
}

} // namespace

QString CallerCredentials::Caller::describe() const
{
    if (!known)
        return QStringLiteral("uid and pid unknown");
    return QStringLiteral("uid %1, pid %2").arg(uid).arg(pid);
}

CallerCredentials::CallerCredentials(const QDBusConnection& bus, const QString& targetGroup)
    : m_bus(bus)
{
    m_groupExists = groupId(targetGroup, &m_targetGroup);
}

void CallerCredentials::whenKnown(const QString& caller, Then then)
{
    const auto known = m_known.constFind(caller);
    if (known != m_known.constEnd()) {
        then(*known);
        return;
    }
    const bool asking = m_waiting.contains(caller);
    m_waiting[caller].append(std::move(then));
    if (!asking)
        ask(caller);
}

void CallerCredentials::inTurn(const QString& caller, std::function<void()> then)
{
    const auto waiting = m_waiting.find(caller);
    if (waiting == m_waiting.end()) {
        then();
        return;
    }
    waiting->append([then](const Caller&) { then(); });
}

void CallerCredentials::forget(const QString& caller)
{
    m_known.remove(caller);
    // The bus may answer for it still, if it was asked before it went.
    if (m_waiting.contains(caller))
        m_forgotten.insert(caller);
}

void CallerCredentials::ask(const QString& caller)
{
    QDBusMessage question = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetConnectionCredentials"));
    question << caller;
    auto* answer = new QDBusPendingCallWatcher(m_bus.asyncCall(question), this);
    connect(answer, &QDBusPendingCallWatcher::finished, this, [this, caller](QDBusPendingCallWatcher* watcher) {
        const QDBusPendingReply<QVariantMap> reply = *watcher;
        watcher->deleteLater();
        answered(caller, reply.isValid() ? reply.value() : QVariantMap(), reply.isValid());
    });
}

// Keeps what the bus said while the connection is there (not once it has
// gone), and runs what waited for it, in the order it came.
void CallerCredentials::answered(const QString& caller, const QVariantMap& credentials, bool valid)
{
    Caller who;
    const QVariant uid = credentials.value(QStringLiteral("UnixUserID"));
    const QVariant pid = credentials.value(QStringLiteral("ProcessID"));
    who.known = valid && uid.isValid();
    if (who.known) {
        who.uid = static_cast<uid_t>(uid.toUInt());
        who.pid = static_cast<pid_t>(pid.toUInt());
        who.mayRequestTargets = who.uid == 0 || inGroup(who.uid);
    }
    const bool gone = m_forgotten.remove(caller);
    if (who.known && !gone)
        m_known.insert(caller, who);
    const QList<Then> waiting = m_waiting.take(caller);
    for (const Then& then : waiting)
        then(who);
}

// The user's groups as the group database lists them: the primary group of
// its passwd entry and every group that names it.
bool CallerCredentials::inGroup(uid_t uid) const
{
    if (!m_groupExists)
        return false;
    std::vector<char> buffer(entryBufferSize);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
        return false;
    if (found->pw_gid == m_targetGroup)
        return true;
    int count = 64;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    if (getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<size_t>(count));
        if (getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) < 0)
            return false;
    }
    for (int index = 0; index < count; ++index) {
        if (groups[static_cast<size_t>(index)] == m_targetGroup)
            return true;
    }
    return false;
}
