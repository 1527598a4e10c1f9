// vela-power claim: holds or uses resources for as long as a command runs,
// in the manner of systemd-inhibit. It registers the module on its own
// connection, takes the claims, runs the command, and releases them when the
// command ends; its exit status is the command's. The service also releases
// them if vela-power itself is killed, since its connection then goes.
// Revoke messages for the module are printed to standard error as they come,
// and answered.

#include "clientcommand.h"
#include "exitcodes.h"
#include "stopsignals.h"
#include "verbs.h"

#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QEventLoop>
#include <QProcess>

#include <iostream>

#include <signal.h>

namespace {

// As shells report a command they cannot run.
constexpr int cannotRun = 127;

const char* const revokeObject = "/org/vela/Power1/Claim";

// Takes the module's revoke messages on the command's connection: prints
// each, and answers it at once.
class RevokePrinter : public QDBusVirtualObject
{
public:
    RevokePrinter(QString invocation, QString module)
        : m_invocation(std::move(invocation))
        , m_module(std::move(module))
    {
    }

    QString introspect(const QString&) const override { return QString(); }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        if (message.interface() != QLatin1String("org.vela.Power1.Module") ||
            message.member() != QLatin1String("Revoke"))
            return false;
        const QVariantList arguments = message.arguments();
        std::cerr << m_invocation.toStdString() << ": " << m_module.toStdString() << ": revoke message "
                  << (arguments.value(0).toUInt() == 0 ? "before" : "after") << " a change that takes "
                  << arguments.value(1).toStringList().join(QStringLiteral(", ")).toStdString() << std::endl;
        connection.send(message.createReply());
        return true;
    }

private:
    QString m_invocation;
    QString m_module;
};

struct Claim {
    QString resource;
    QString action;
};

class ClaimSession
{
public:
    ClaimSession(ClientCommand& command, ServiceClient& client, QString module)
        : m_command(command)
        , m_client(client)
        , m_module(std::move(module))
        , m_revokes(command.line().invocation(), m_module)
    {
    }

    // Registers the module, with its revoke messages coming here.
    bool registerModule()
    {
        QDBusConnection connection = m_client.connection();
        if (!connection.registerVirtualObject(QLatin1String(revokeObject), &m_revokes, QDBusConnection::SubPath))
            return report(QStringLiteral("cannot take revoke messages at %1").arg(QLatin1String(revokeObject)));
        const QVariantMap paths{{QStringLiteral("revokePath"),
                                 QVariant::fromValue(QDBusObjectPath(QStringLiteral("/org/vela/Power1/Claim/before")))},
                                {QStringLiteral("postRevokePath"),
                                 QVariant::fromValue(QDBusObjectPath(QStringLiteral("/org/vela/Power1/Claim/after")))}};
        return answered(m_client.call(QStringLiteral("RegisterModule"), {m_module, paths}),
                        QStringLiteral("registering %1").arg(m_module));
    }

    // Takes every claim in turn; at the first refusal, gives back those
    // taken.
    bool take(const QList<Claim>& claims)
    {
        for (const Claim& claim : claims) {
            if (!ask(claim.resource, claim.action)) {
                releaseAll();
                return false;
            }
            m_taken.append(claim.resource);
        }
        return true;
    }

    void releaseAll()
    {
        for (const QString& resource : qAsConst(m_taken))
            ask(resource, QStringLiteral("release"));
        m_taken.clear();
    }

private:
    bool ask(const QString& resource, const QString& action)
    {
        const QDBusMessage reply = m_client.call(QStringLiteral("RequestResource"), {resource, action, QVariantMap()},
                                                 ServiceClient::requestTimeoutMs);
        return answered(reply, QStringLiteral("%1 of %2").arg(action, resource));
    }

    bool answered(const QDBusMessage& reply, const QString& what)
    {
        if (reply.type() != QDBusMessage::ErrorMessage)
            return true;
        return report(QStringLiteral("%1: %2").arg(what, m_client.failure(reply)));
    }

    bool report(const QString& problem)
    {
        m_command.fail(problem);
        return false;
    }

    ClientCommand& m_command;
    ServiceClient& m_client;
    QString m_module;
    RevokePrinter m_revokes;
    QStringList m_taken;
};

// Runs the command with this program's standard input, output and error;
// SIGINT and SIGTERM are passed on to it. Its exit code, or -1 when it could
// not be started (with `problem`).
int runCommand(const QStringList& commandLine, QString* problem)
{
    QProcess command;
    command.setProcessChannelMode(QProcess::ForwardedChannels);
    command.setInputChannelMode(QProcess::ForwardedInputChannel);
    StopSignals stop;
    QObject::connect(&stop, &StopSignals::stopRequested, [&command](int signal) {
        if (command.state() == QProcess::Running)
            ::kill(static_cast<pid_t>(command.processId()), signal);
    });
    QEventLoop loop;
    QObject::connect(&command, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &loop, &QEventLoop::quit);
    QObject::connect(&command, &QProcess::errorOccurred, &loop, [&loop](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            loop.quit();
    });
    command.start(commandLine.constFirst(), commandLine.mid(1));
    if (command.state() != QProcess::NotRunning || command.error() != QProcess::FailedToStart)
        loop.exec();
    if (command.error() == QProcess::FailedToStart) {
        *problem = QStringLiteral("cannot run %1: %2").arg(commandLine.constFirst(), command.errorString());
        return -1;
    }
    if (command.exitStatus() == QProcess::CrashExit) {
        *problem = QStringLiteral("%1 was ended by a signal").arg(commandLine.constFirst());
        return ExitCodes::Problems;
    }
    return command.exitCode();
}

QList<Claim> claimsOf(const QCommandLineParser& parser, const QCommandLineOption& use, const QCommandLineOption& hold)
{
    QList<Claim> claims;
    for (const QString& resource : parser.values(use))
        claims.append({resource, QStringLiteral("use")});
    for (const QString& resource : parser.values(hold))
        claims.append({resource, QStringLiteral("hold")});
    return claims;
}

} // namespace

int verbClaim(const QStringList& arguments)
{
    ClientCommand command(QStringLiteral("claim"), QStringLiteral("-- COMMAND [ARGUMENTS...]"),
                          QStringLiteral("Holds or uses resources for MODULE while COMMAND runs, releases them when "
                                         "it ends, and exits with its exit code (127 when it cannot be run)."));
    QCommandLineParser& parser = command.line().parser();
    const QCommandLineOption module(QStringLiteral("module"), QStringLiteral("The module that claims."),
                                    QStringLiteral("module"));
    const QCommandLineOption use(QStringLiteral("use"), QStringLiteral("A resource to use (repeatable)."),
                                 QStringLiteral("resource"));
    const QCommandLineOption hold(QStringLiteral("hold"), QStringLiteral("A resource to hold (repeatable)."),
                                  QStringLiteral("resource"));
    parser.addOptions({module, use, hold});
    parser.addPositionalArgument(QStringLiteral("COMMAND"), QStringLiteral("The command to run, after --."));
    int exitCode = 0;
    if (!command.parse(arguments, &exitCode))
        return exitCode;
    if (!parser.isSet(module))
        return command.line().usageError(QStringLiteral("--module is needed"));
    const QList<Claim> claims = claimsOf(parser, use, hold);
    if (claims.isEmpty())
        return command.line().usageError(QStringLiteral("give at least one --use or --hold"));
    const QStringList commandLine = parser.positionalArguments();
    if (commandLine.isEmpty())
        return command.line().usageError(QStringLiteral("give the command to run after --"));

    ServiceClient* client = command.connect(&exitCode);
    if (!client)
        return exitCode;
    ClaimSession session(command, *client, parser.value(module));
    if (!session.registerModule() || !session.take(claims))
        return ExitCodes::Problems;
    QString problem;
    const int commandExit = runCommand(commandLine, &problem);
    session.releaseAll();
    if (!problem.isEmpty())
        command.fail(problem);
    return commandExit < 0 ? cannotRun : commandExit;
}
