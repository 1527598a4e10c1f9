// vela-power explain: what the library does with one target switch or
// resource request, and why a node is in its state, asked of the library
// itself on a simulated platform that answers at once.

#include "commandline.h"
#include "exitcodes.h"
#include "explainer.h"
#include "graphfile.h"
#include "graphinput.h"
#include "safetext.h"
#include "verbs.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <iostream>

namespace {

QJsonObject mapJson(const QMap<QString, QString>& map)
{
    QJsonObject object;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it)
        object.insert(it.key(), it.value());
    return object;
}

QString mapText(const QMap<QString, QString>& map)
{
    QStringList entries;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it)
        entries.append(it.key() + "=" + it.value());
    return entries.isEmpty() ? QStringLiteral("none") : entries.join(QStringLiteral(", "));
}

QJsonArray revokesJson(const QList<Explainer::Revoke>& revokes)
{
    QJsonArray list;
    for (const Explainer::Revoke& revoke : revokes)
        list.append(QJsonObject{{"module", revoke.module},
                                {"path", revoke.path},
                                {"resources", QJsonArray::fromStringList(revoke.resources)}});
    return list;
}

QJsonObject changeJson(const Explainer::Change& change)
{
    QJsonArray transitions;
    for (const auto& transition : change.transitions)
        transitions.append(QJsonObject{{"node", transition.first}, {"state", transition.second}});
    QJsonArray nodes;
    for (const Explainer::NodeState& node : change.nodes)
        nodes.append(QJsonObject{{"node", node.node}, {"state", node.state}, {"actions", mapJson(node.actions)}});
    QJsonArray writes;
    for (const Explainer::Write& write : change.writes)
        writes.append(QJsonObject{{"path", write.path}, {"key", write.key}, {"value", write.value}});
    return QJsonObject{{"question", change.question},
                       {"allowed", change.allowed},
                       {"answer", change.answer},
                       {"reason", change.reason},
                       {"transitions", transitions},
                       {"nodes", nodes},
                       {"writes", writes},
                       {"revoke", QJsonObject{{"before", revokesJson(change.revokedBefore)},
                                              {"after", revokesJson(change.revokedAfter)}}}};
}

QString revokesText(const QList<Explainer::Revoke>& revokes)
{
    QString text;
    for (const Explainer::Revoke& revoke : revokes)
        text += QStringLiteral("  %1 at %2: %3\n").arg(revoke.module, revoke.path, revoke.resources.join(", "));
    return text.isEmpty() ? QStringLiteral("  none\n") : text;
}

QString changeText(const Explainer::Change& change, const QString& start)
{
    QString text =
        QStringLiteral("%1 (%2): %3\n")
            .arg(change.question, start, change.allowed ? QStringLiteral("allowed") : QStringLiteral("refused"));
    if (!change.allowed) {
        text += QStringLiteral("  the library answers: %1\n").arg(change.answer);
        if (!change.reason.isEmpty())
            text += QStringLiteral("  because: %1\n").arg(change.reason);
    }
    text += QStringLiteral("node changes, in order:\n");
    for (const auto& transition : change.transitions)
        text += QStringLiteral("  %1 -> %2\n").arg(transition.first, transition.second);
    if (change.transitions.isEmpty())
        text += QStringLiteral("  none\n");
    text += QStringLiteral("nodes afterwards:\n");
    for (const Explainer::NodeState& node : change.nodes)
        text += QStringLiteral("  %1: %2; actions: %3\n").arg(node.node, node.state, mapText(node.actions));
    if (change.nodes.isEmpty())
        text += QStringLiteral("  none changed\n");
    text += QStringLiteral("set-data writes, in order:\n");
    for (const Explainer::Write& write : change.writes)
        text += QStringLiteral("  %1 %2 = %3\n").arg(write.path, write.key, write.value);
    if (change.writes.isEmpty())
        text += QStringLiteral("  none\n");
    text += QStringLiteral("revoke messages before the change:\n") + revokesText(change.revokedBefore);
    text += QStringLiteral("revoke messages after the change:\n") + revokesText(change.revokedAfter);
    return text;
}

QJsonArray pairsJson(const QList<QPair<QString, QString>>& pairs)
{
    QJsonArray list;
    for (const auto& pair : pairs)
        list.append(QJsonObject{{"node", pair.first}, {"state", pair.second}});
    return list;
}

QJsonObject nodeJson(const Explainer::NodeReport& report, const QString& start)
{
    return QJsonObject{{"node", report.node},
                       {"kind", report.kind},
                       {"after", start},
                       {"state", report.state},
                       {"claims", mapJson(report.claims)},
                       {"lockedBy", QJsonArray::fromStringList(report.lockedBy)},
                       {"requiredBy", pairsJson(report.requiredBy)},
                       {"enabledBy", QJsonArray::fromStringList(report.enabledBy)},
                       {"enabledThroughRequires", QJsonArray::fromStringList(report.enabledThrough)},
                       {"disabledBy", QJsonArray::fromStringList(report.disabledBy)},
                       {"disabledThroughRequires", QJsonArray::fromStringList(report.disabledThrough)}};
}

QString namesOrNone(const QStringList& names)
{
    return names.isEmpty() ? QStringLiteral("none") : names.join(QStringLiteral(", "));
}

QString nodeText(const Explainer::NodeReport& report, const QString& start)
{
    QStringList dependants;
    for (const auto& pair : report.requiredBy)
        dependants.append(pair.first + " (" + pair.second + ")");
    QString text = QStringLiteral("%1 %2 (%3) is %4\n").arg(report.kind, report.node, start, report.state);
    if (report.state == QLatin1String("initial"))
        text += QStringLiteral("  initial: never switched yet (not the same as disabled)\n");
    text += QStringLiteral("  claims: %1\n").arg(mapText(report.claims));
    text += QStringLiteral("  held locked by: %1\n").arg(namesOrNone(report.lockedBy));
    text += QStringLiteral("  required by: %1\n").arg(namesOrNone(dependants));
    text += QStringLiteral("  enabled by: %1\n").arg(namesOrNone(report.enabledBy));
    text += QStringLiteral("  enabled through requires by: %1\n").arg(namesOrNone(report.enabledThrough));
    text += QStringLiteral("  disabled by: %1\n").arg(namesOrNone(report.disabledBy));
    text += QStringLiteral("  disabled through requires by: %1\n").arg(namesOrNone(report.disabledThrough));
    return text;
}

struct Question {
    QString to;
    QString from;
    QString resource;
    QString module;
    VelaPowerModuleActions::Enum action = VelaPowerModuleActions::use;
    QString node;
    bool json = false;
};

// Checks the combination of options and the names against the file; an
// empty result means the question can be asked.
QString checkQuestion(const Question& question, const QString& actionText, const GraphFile& file)
{
    const int kinds = int(!question.to.isEmpty()) + int(!question.resource.isEmpty()) + int(!question.node.isEmpty());
    if (kinds != 1)
        return QStringLiteral("give exactly one of --to, --resource and --node");
    if (!question.resource.isEmpty() && (question.module.isEmpty() || actionText.isEmpty()))
        return QStringLiteral("--resource needs --module and --action");
    VelaPowerModuleActions::Enum action;
    if (!actionText.isEmpty() && !VelaPowerModuleActions::fromString(actionText, &action))
        return QStringLiteral("--action takes hold, use or release");
    for (const QString& target : {question.to, question.from}) {
        if (!target.isEmpty() && !file.target(target))
            return QStringLiteral("the file has no target %1").arg(SafeText::quoted(target));
    }
    if (!question.resource.isEmpty() && !file.resource(question.resource))
        return QStringLiteral("the file has no resource %1").arg(SafeText::quoted(question.resource));
    if (!question.node.isEmpty() && !file.resource(question.node) && !file.target(question.node))
        return QStringLiteral("the file has no node %1").arg(SafeText::quoted(question.node));
    return QString();
}

void print(const QString& text, const QJsonObject& json, bool asJson)
{
    if (asJson)
        std::cout << QJsonDocument(json).toJson(QJsonDocument::Indented).toStdString();
    else
        std::cout << text.toStdString();
}

} // namespace

int verbExplain(const QStringList& arguments)
{
    CommandLine line(QStringLiteral("explain"),
                     QStringLiteral("GRAPH (--to TARGET [--from TARGET] | --resource R --module M --action A | "
                                    "--node N)"),
                     QStringLiteral("Explains, as the library decides it on a platform that answers at once, a "
                                    "target switch, a resource request, or why a node is in its state. Questions "
                                    "start after --from (a switch from the file's starting state), else after the "
                                    "file's requests."));
    const QCommandLineOption to = CommandLine::valueOption("to", "Explain a switch to <target>.", "target");
    const QCommandLineOption from =
        CommandLine::valueOption("from", "Start from <target> instead of the scenario.", "target");
    const QCommandLineOption resource =
        CommandLine::valueOption("resource", "Explain a request for <resource>.", "resource");
    const QCommandLineOption module = CommandLine::valueOption("module", "The module making the request.", "module");
    const QCommandLineOption action = CommandLine::valueOption("action", "The request's action.", "hold|use|release");
    const QCommandLineOption node = CommandLine::valueOption("node", "Explain why <node> is in its state.", "node");
    line.parser().addOptions({to, from, resource, module, action, node});
    line.addFormatOption();
    line.parser().addPositionalArgument(QStringLiteral("GRAPH"), QStringLiteral("The graph file (JSON)."));
    int exitCode = ExitCodes::Success;
    QString fileName;
    GraphFile file;
    if (!line.parseWithOneGraph(arguments, &exitCode, &fileName) || !loadGraphFile(line, fileName, &file, &exitCode))
        return exitCode;
    QCommandLineParser& parser = line.parser();
    Question question{parser.value(to),     parser.value(from),          parser.value(resource),
                      parser.value(module), VelaPowerModuleActions::use, parser.value(node),
                      line.isJson()};
    const QString problem = checkQuestion(question, parser.value(action), file);
    if (!problem.isEmpty())
        return line.usageError(problem);
    VelaPowerModuleActions::fromString(parser.value(action), &question.action);

    Explainer explainer(file);
    QString start = QStringLiteral("after the file's requests");
    if (!question.from.isEmpty()) {
        start = QStringLiteral("from %1").arg(question.from);
        const Explainer::Change started = explainer.startFrom(question.from);
        if (!started.allowed) {
            std::cerr << "vela-power explain: cannot start from " << question.from.toStdString() << ": "
                      << started.answer.toStdString()
                      << (started.reason.isEmpty() ? std::string() : " (" + started.reason.toStdString() + ")")
                      << std::endl;
            return ExitCodes::Problems;
        }
    } else {
        explainer.startAfterScenario();
    }

    if (!question.node.isEmpty()) {
        const Explainer::NodeReport report = explainer.node(question.node);
        print(nodeText(report, start), nodeJson(report, start), question.json);
        return ExitCodes::Success;
    }
    const Explainer::Change change = question.to.isEmpty()
                                         ? explainer.request(question.resource, question.module, question.action)
                                         : explainer.switchTo(question.to);
    QJsonObject json = changeJson(change);
    json.insert("after", start);
    print(changeText(change, start), json, question.json);
    return ExitCodes::Success;
}
