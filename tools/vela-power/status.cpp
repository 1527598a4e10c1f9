// vela-power status: what vela-powerd says of itself: the current and next
// target, and every node's state and claims (its ListNodes), as a table or
// as JSON.

#include "clientcommand.h"
#include "exitcodes.h"
#include "verbs.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <iostream>

namespace {

// "ui (use), media (hold)": the modules that claim a node.
QString claimsOf(const QVariantMap& node)
{
    QStringList claims;
    const QVariantMap actions = node.value(QStringLiteral("actions")).toMap();
    for (auto action = actions.constBegin(); action != actions.constEnd(); ++action) {
        if (action.value().toString() != QLatin1String("release"))
            claims.append(QStringLiteral("%1 (%2)").arg(action.key(), action.value().toString()));
    }
    return claims.join(QStringLiteral(", "));
}

QString withoutTrailingSpaces(QString line)
{
    while (line.endsWith(QLatin1Char(' ')))
        line.chop(1);
    return line;
}

// One table of a kind of node; enabled nodes are marked with a star.
void printNodes(const QString& kind, const QVariantMap& nodes)
{
    int width = kind.size();
    for (auto node = nodes.constBegin(); node != nodes.constEnd(); ++node)
        width = std::max(width, node.key().size());
    const QString row = QStringLiteral("%1 %2  %3  %4");
    std::cout << withoutTrailingSpaces(row.arg(QLatin1Char(' '))
                                           .arg(kind, -width)
                                           .arg(QStringLiteral("STATE"), -8)
                                           .arg(QStringLiteral("CLAIMS")))
                     .toStdString()
              << '\n';
    for (auto node = nodes.constBegin(); node != nodes.constEnd(); ++node) {
        const QVariantMap entry = node.value().toMap();
        const bool enabled = entry.value(QStringLiteral("isEnabled")).toBool();
        const QString line = row.arg(enabled ? QLatin1Char('*') : QLatin1Char(' '))
                                 .arg(node.key(), -width)
                                 .arg(enabled ? QStringLiteral("enabled") : QStringLiteral("disabled"), -8)
                                 .arg(claimsOf(entry));
        std::cout << withoutTrailingSpaces(line).toStdString() << '\n';
    }
}

void printText(const QString& current, const QString& next, const QVariantMap& nodes)
{
    std::cout << "Current target: " << (current.isEmpty() ? "(none)" : current.toStdString()) << '\n'
              << "Next target:    " << (next.isEmpty() ? "(none)" : next.toStdString()) << "\n\n";
    printNodes(QStringLiteral("TARGET"), nodes.value(QStringLiteral("targets")).toMap());
    std::cout << '\n';
    printNodes(QStringLiteral("RESOURCE"), nodes.value(QStringLiteral("resources")).toMap());
    std::cout << "(* enabled)" << std::endl;
}

} // namespace

int verbStatus(const QStringList& arguments)
{
    ClientCommand command(QStringLiteral("status"), QString(),
                          QStringLiteral("Shows vela-powerd's current and next target and every node's state and "
                                         "claims."));
    int exitCode = 0;
    if (!command.parse(arguments, &exitCode))
        return exitCode;
    if (!command.line().parser().positionalArguments().isEmpty())
        return command.line().usageError(QStringLiteral("status takes no arguments"));
    ServiceClient* client = command.connect(&exitCode);
    if (!client)
        return exitCode;
    const QDBusMessage nodes = client->call(QStringLiteral("ListNodes"), {});
    if (nodes.type() == QDBusMessage::ErrorMessage)
        return command.fail(client->failure(nodes));
    const QDBusMessage properties = client->properties();
    if (properties.type() == QDBusMessage::ErrorMessage)
        return command.fail(client->failure(properties));
    const QVariantMap nodeMap = ServiceClient::plain(nodes.arguments().value(0)).toMap();
    const QVariantMap propertyMap = ServiceClient::plain(properties.arguments().value(0)).toMap();
    const QString current = propertyMap.value(QStringLiteral("CurrentTarget")).toString();
    const QString next = propertyMap.value(QStringLiteral("NextTarget")).toString();
    if (!command.isJson()) {
        printText(current, next, nodeMap);
        return ExitCodes::Success;
    }
    QJsonObject json = QJsonObject::fromVariantMap(nodeMap);
    json.insert(QStringLiteral("currentTarget"), current);
    json.insert(QStringLiteral("nextTarget"), next);
    std::cout << QJsonDocument(json).toJson(QJsonDocument::Indented).toStdString();
    return ExitCodes::Success;
}
