// vela-power request: asks vela-powerd for a target, or for a module's hold,
// use or release of a resource, and says how the service answered. A
// resource request registers the module on this command's connection first;
// its claim ends with the connection, when the command does (vela-power
// claim keeps one for as long as a command runs).

#include "clientcommand.h"
#include "exitcodes.h"
#include "verbs.h"

#include "velapowerenums.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <iostream>

namespace {

struct Answer {
    QString request;
    bool done = false;
    QString errorName;
    QString message;
};

void print(const Answer& answer, bool json)
{
    if (json) {
        const QJsonObject object{{"request", answer.request},
                                 {"done", answer.done},
                                 {"error", answer.done ? QJsonValue() : QJsonValue(answer.errorName)},
                                 {"message", answer.done ? QJsonValue() : QJsonValue(answer.message)}};
        std::cout << QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString() << std::endl;
        return;
    }
    if (answer.done)
        std::cout << answer.request.toStdString() << ": done" << std::endl;
    else
        std::cout << answer.request.toStdString() << ": refused: " << answer.message.toStdString() << " ("
                  << answer.errorName.toStdString() << ")" << std::endl;
}

// The service's answer to `reply`'s call; a failure to reach it is not an
// answer (false, with `problem`).
bool answerOf(const ServiceClient& client, const QDBusMessage& reply, Answer* answer, QString* problem)
{
    answer->done = reply.type() != QDBusMessage::ErrorMessage;
    if (answer->done)
        return true;
    answer->errorName = reply.errorName();
    answer->message = reply.errorMessage();
    if (!answer->errorName.startsWith(QLatin1String("org.vela.Power1.Error.")) &&
        answer->errorName != QLatin1String("org.freedesktop.DBus.Error.AccessDenied") &&
        answer->errorName != QLatin1String("org.freedesktop.DBus.Error.InvalidArgs") &&
        answer->errorName != QLatin1String("org.freedesktop.DBus.Error.LimitsExceeded")) {
        *problem = client.failure(reply);
        return false;
    }
    return true;
}

} // namespace

int verbRequest(const QStringList& arguments)
{
    ClientCommand command(QStringLiteral("request"), QString(),
                          QStringLiteral("Asks vela-powerd for a target (--target), or for a module's hold, use or "
                                         "release of a resource (--resource, --action, --module), and prints the "
                                         "answer; exit 0 when done, 1 when refused."));
    QCommandLineParser& parser = command.line().parser();
    const QCommandLineOption target(QStringLiteral("target"), QStringLiteral("The target to switch to."),
                                    QStringLiteral("target"));
    const QCommandLineOption resource(QStringLiteral("resource"), QStringLiteral("The resource to claim or release."),
                                      QStringLiteral("resource"));
    const QCommandLineOption action(QStringLiteral("action"), QStringLiteral("hold, use or release."),
                                    QStringLiteral("action"));
    const QCommandLineOption module(QStringLiteral("module"),
                                    QStringLiteral("The module that asks (registered for the request)."),
                                    QStringLiteral("module"));
    parser.addOptions({target, resource, action, module});
    int exitCode = 0;
    if (!command.parse(arguments, &exitCode))
        return exitCode;
    if (!parser.positionalArguments().isEmpty())
        return command.line().usageError(QStringLiteral("request takes no arguments"));
    const bool forTarget = parser.isSet(target);
    if (forTarget == parser.isSet(resource))
        return command.line().usageError(QStringLiteral("give --target, or --resource with --action and --module"));
    if (forTarget && (parser.isSet(action) || parser.isSet(module)))
        return command.line().usageError(QStringLiteral("--action and --module go with --resource, not --target"));
    VelaPowerModuleActions::Enum actionValue = VelaPowerModuleActions::release;
    if (!forTarget && (!parser.isSet(action) || !parser.isSet(module)))
        return command.line().usageError(QStringLiteral("--resource needs --action and --module"));
    if (!forTarget && !VelaPowerModuleActions::fromString(parser.value(action), &actionValue))
        return command.line().usageError(
            QStringLiteral("--action: expected hold, use or release, not %1").arg(parser.value(action)));

    ServiceClient* client = command.connect(&exitCode);
    if (!client)
        return exitCode;
    Answer answer;
    QString problem;
    if (forTarget) {
        answer.request = QStringLiteral("target ") + parser.value(target);
        if (!answerOf(
                *client,
                client->call(QStringLiteral("RequestTarget"), {parser.value(target)}, ServiceClient::requestTimeoutMs),
                &answer, &problem))
            return command.fail(problem);
    } else {
        answer.request = QStringLiteral("resource %1 %2 by %3")
                             .arg(parser.value(resource), parser.value(action), parser.value(module));
        const QDBusMessage registration =
            client->call(QStringLiteral("RegisterModule"), {parser.value(module), QVariantMap()});
        if (!answerOf(*client, registration, &answer, &problem))
            return command.fail(problem);
        if (answer.done && !answerOf(*client,
                                     client->call(QStringLiteral("RequestResource"),
                                                  {parser.value(resource), parser.value(action), QVariantMap()},
                                                  ServiceClient::requestTimeoutMs),
                                     &answer, &problem))
            return command.fail(problem);
    }
    print(answer, command.isJson());
    return answer.done ? ExitCodes::Success : ExitCodes::Problems;
}
