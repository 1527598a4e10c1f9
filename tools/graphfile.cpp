#include "graphfile.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <cmath>
#include <functional>
#include <limits>

namespace {

// A parse failure: where in the file, and what is wrong there.
struct Failure {
    QString where;
    QString what;
};

class Parser
{
public:
    explicit Parser(GraphFile* graph) : m_graph(graph) {}

    bool parse(const QJsonObject& root, Failure* failure)
    {
        m_failure = failure;
        const bool valid = checkKeys(root, {"modules", "resources", "targets", "platform", "requests"}, QString())
            && parseModules(root.value("modules"))
            && parseResources(root.value("resources"))
            && parseTargets(root.value("targets"))
            && parsePlatform(root.value("platform"))
            && parseRequests(root.value("requests"))
            && checkReferences();
        // Names are process-wide: only a file that is valid as a whole gives any.
        if (valid) {
            for (const auto& naming : qAsConst(m_namings))
                naming();
        }
        return valid;
    }

private:
    bool fail(const QString& where, const QString& what)
    {
        *m_failure = Failure{where, what};
        return false;
    }

    bool checkKeys(const QJsonObject& object, const QStringList& known, const QString& where)
    {
        for (const QString& key : object.keys()) {
            if (!known.contains(key))
                return fail(where.isEmpty() ? key : where + "." + key,
                            "unknown key (expected one of: " + known.join(", ") + ")");
        }
        return true;
    }

    bool array(const QJsonValue& value, const QString& where, QJsonArray* out)
    {
        if (value.isUndefined()) {
            *out = QJsonArray();
            return true;
        }
        if (!value.isArray())
            return fail(where, "expected an array");
        *out = value.toArray();
        return true;
    }

    bool object(const QJsonValue& value, const QString& where, QJsonObject* out)
    {
        if (!value.isObject())
            return fail(where, "expected an object");
        *out = value.toObject();
        return true;
    }

    bool string(const QJsonObject& object, const QString& key, const QString& where, bool required, QString* out)
    {
        const QJsonValue value = object.value(key);
        if (value.isUndefined()) {
            if (required)
                return fail(where, "missing \"" + key + "\"");
            return true;
        }
        if (!value.isString() || (required && value.toString().isEmpty()))
            return fail(where + "." + key, "expected a non-empty string");
        *out = value.toString();
        return true;
    }

    bool integer(const QJsonObject& object, const QString& key, const QString& where, int minimum, int* out)
    {
        const QJsonValue value = object.value(key);
        if (value.isUndefined())
            return true;
        const double number = value.toDouble(-1.0);
        if (!value.isDouble() || number < minimum || number > std::numeric_limits<int>::max()
            || number != std::floor(number))
            return fail(where + "." + key, QStringLiteral("expected an integer >= %1").arg(minimum));
        *out = static_cast<int>(number);
        return true;
    }

    bool names(const QJsonObject& object, const QString& key, const QString& where, QStringList* out)
    {
        QJsonArray list;
        if (!array(object.value(key), where + "." + key, &list))
            return false;
        for (int i = 0; i < list.size(); ++i) {
            if (!list.at(i).isString())
                return fail(QStringLiteral("%1.%2[%3]").arg(where, key).arg(i), "expected a name");
            out->append(list.at(i).toString());
        }
        return true;
    }

    bool action(const QJsonValue& value, const QString& where, VelaPowerModuleActions::Enum* out)
    {
        if (!value.isString() || !VelaPowerModuleActions::fromString(value.toString(), out))
            return fail(where, "expected one of \"hold\", \"use\", \"release\"");
        return true;
    }

    // An entry of a list of named things: an object with only `keys` whose
    // "name" is not taken yet by another entry of the list.
    bool namedEntry(const QJsonValue& value, const QString& where, const QStringList& keys, const char* kind,
                    QSet<QString>* taken, QJsonObject* entry, QString* name)
    {
        if (!object(value, where, entry) || !checkKeys(*entry, keys, where) || !string(*entry, "name", where, true, name))
            return false;
        if (taken->contains(*name))
            return fail(where + ".name", QStringLiteral("%1 \"%2\" is listed twice").arg(QLatin1String(kind), *name));
        taken->insert(*name);
        return true;
    }

    bool parseModules(const QJsonValue& value)
    {
        QJsonArray list;
        if (!array(value, "modules", &list))
            return false;
        for (int i = 0; i < list.size(); ++i) {
            const QString where = QStringLiteral("modules[%1]").arg(i);
            QJsonObject entry;
            GraphFile::Module module;
            if (!namedEntry(list.at(i), where, {"name", "revokePath", "postRevokePath"}, "module", &m_moduleNames,
                            &entry, &module.name)
                || !string(entry, "revokePath", where, false, &module.revokePath)
                || !string(entry, "postRevokePath", where, false, &module.postRevokePath))
                return false;
            m_graph->modules.append(module);
        }
        return true;
    }

    bool write(const QJsonObject& resource, const QString& key, const QString& where, GraphFile::Write* out)
    {
        const QJsonValue value = resource.value(key);
        if (value.isUndefined())
            return true;
        const QString here = where + "." + key;
        QJsonObject entry;
        if (!object(value, here, &entry) || !checkKeys(entry, {"path", "key", "value"}, here)
            || !string(entry, "path", here, true, &out->path) || !string(entry, "key", here, true, &out->key))
            return false;
        if (!entry.contains("value"))
            return fail(here, "missing \"value\"");
        out->value = entry.value("value").toVariant();
        out->present = true;
        return true;
    }

    bool moduleActions(const QJsonObject& node, const QString& where,
                       QList<QPair<QString, VelaPowerModuleActions::Enum>>* out)
    {
        const QJsonValue value = node.value("modules");
        if (value.isUndefined())
            return true;
        QJsonObject entries;
        if (!object(value, where + ".modules", &entries))
            return false;
        for (const QString& module : entries.keys()) {
            VelaPowerModuleActions::Enum start = VelaPowerModuleActions::release;
            if (!action(entries.value(module), where + ".modules." + module, &start))
                return false;
            out->append(qMakePair(module, start));
        }
        return true;
    }

    template <typename Enumeration, typename Enum>
    bool nodeValue(const QJsonObject& node, const QString& name, const QString& where, QSet<int>* used, Enum* out)
    {
        int number = -1;
        if (!integer(node, "value", where, 0, &number))
            return false;
        if (number < 0) {
            Enum known;
            if (Enumeration::fromString(name, &known) && !used->contains(known))
                number = known;
            else
                for (number = 1000; used->contains(number); ++number) {
                }
        }
        if (used->contains(number))
            return fail(where + ".value", QStringLiteral("value %1 is used twice").arg(number));
        Enum named;
        if (Enumeration::fromString(name, &named) && named != number)
            return fail(where + ".name", "the name \"" + name + "\" already stands for another value");
        if (Enumeration::toString(static_cast<Enum>(number)) != name)
            m_namings.append([number, name]() { Enumeration::registerName(static_cast<Enum>(number), name); });
        used->insert(number);
        *out = static_cast<Enum>(number);
        return true;
    }

    bool parseResources(const QJsonValue& value)
    {
        QJsonArray list;
        if (!array(value, "resources", &list))
            return false;
        for (int i = 0; i < list.size(); ++i) {
            const QString where = QStringLiteral("resources[%1]").arg(i);
            QJsonObject entry;
            GraphFile::Resource resource;
            if (!namedEntry(list.at(i), where,
                            {"name", "value", "timeoutMs", "enable", "disable", "requires", "modules"}, "resource",
                            &m_resourceNames, &entry, &resource.name))
                return false;
            if (!nodeValue<VelaPowerManagerResources>(entry, resource.name, where, &m_resourceValues, &resource.value)
                || !integer(entry, "timeoutMs", where, 0, &resource.timeoutMs)
                || !write(entry, "enable", where, &resource.enable) || !write(entry, "disable", where, &resource.disable)
                || !names(entry, "requires", where, &resource.required)
                || !moduleActions(entry, where, &resource.modules))
                return false;
            m_graph->resources.append(resource);
        }
        return true;
    }

    bool parseTargets(const QJsonValue& value)
    {
        QJsonArray list;
        if (!array(value, "targets", &list))
            return false;
        for (int i = 0; i < list.size(); ++i) {
            const QString where = QStringLiteral("targets[%1]").arg(i);
            QJsonObject entry;
            GraphFile::Target target;
            if (!namedEntry(list.at(i), where, {"name", "value", "enables", "disables", "reachable"}, "target",
                            &m_targetNames, &entry, &target.name))
                return false;
            target.reachableGiven = entry.contains("reachable");
            if (!nodeValue<VelaPowerManagerTargets>(entry, target.name, where, &m_targetValues, &target.value)
                || !names(entry, "enables", where, &target.enables) || !names(entry, "disables", where, &target.disables)
                || !names(entry, "reachable", where, &target.reachable))
                return false;
            m_graph->targets.append(target);
        }
        return true;
    }

    bool parsePlatform(const QJsonValue& value)
    {
        if (value.isUndefined())
            return true;
        QJsonObject paths;
        if (!object(value, "platform", &paths))
            return false;
        for (const QString& path : paths.keys()) {
            const QString where = "platform." + path;
            const QJsonValue answer = paths.value(path);
            GraphFile::Answer parsed;
            if (answer.isString()) {
                const QString kind = answer.toString();
                if (kind == "immediate")
                    parsed.kind = GraphFile::Answer::Immediate;
                else if (kind == "never")
                    parsed.kind = GraphFile::Answer::Never;
                else if (kind == "absent")
                    parsed.kind = GraphFile::Answer::Absent;
                else
                    return fail(where, "expected \"immediate\", \"never\", \"absent\", {\"delayMs\": n} or "
                                       "{\"error\": \"text\"}");
            } else {
                QJsonObject entry;
                if (!object(answer, where, &entry) || !checkKeys(entry, {"delayMs", "error"}, where))
                    return false;
                if (entry.contains("error")) {
                    parsed.kind = GraphFile::Answer::Error;
                    if (!string(entry, "error", where, true, &parsed.error))
                        return false;
                } else {
                    parsed.kind = GraphFile::Answer::Delayed;
                    if (!entry.contains("delayMs"))
                        return fail(where, "missing \"delayMs\" or \"error\"");
                }
                if (!integer(entry, "delayMs", where, 0, &parsed.delayMs))
                    return false;
            }
            m_graph->platform.insert(path, parsed);
        }
        return true;
    }

    bool parseRequests(const QJsonValue& value)
    {
        QJsonArray list;
        if (!array(value, "requests", &list))
            return false;
        for (int i = 0; i < list.size(); ++i) {
            const QString where = QStringLiteral("requests[%1]").arg(i);
            QJsonObject entry;
            GraphFile::Request request;
            if (!object(list.at(i), where, &entry)
                || !checkKeys(entry, {"target", "resource", "module", "action", "atMs"}, where)
                || !integer(entry, "atMs", where, 0, &request.atMs))
                return false;
            if (entry.contains("target") == entry.contains("resource"))
                return fail(where, "give exactly one of \"target\" and \"resource\"");
            if (entry.contains("target")) {
                request.kind = GraphFile::Request::Target;
                if (!string(entry, "target", where, true, &request.name))
                    return false;
            } else {
                request.kind = GraphFile::Request::Resource;
                if (!string(entry, "resource", where, true, &request.name)
                    || !string(entry, "module", where, true, &request.module)
                    || !action(entry.value("action"), where + ".action", &request.action))
                    return false;
            }
            m_graph->requests.append(request);
        }
        return true;
    }

    bool checkNames(const QStringList& list, const QSet<QString>& known, const QString& where, const char* kind)
    {
        for (int i = 0; i < list.size(); ++i) {
            if (!known.contains(list.at(i)))
                return fail(QStringLiteral("%1[%2]").arg(where).arg(i),
                            QStringLiteral("unknown %1 \"%2\"").arg(QLatin1String(kind), list.at(i)));
        }
        return true;
    }

    // Edges, reachable targets and requests may only name what the file
    // defines. A resource request may name a module the file does not list:
    // the handler then refuses it, which is part of what a scenario shows.
    bool checkReferences()
    {
        for (int i = 0; i < m_graph->resources.size(); ++i) {
            if (!checkNames(m_graph->resources.at(i).required, m_resourceNames,
                            QStringLiteral("resources[%1].requires").arg(i), "resource"))
                return false;
        }
        for (int i = 0; i < m_graph->targets.size(); ++i) {
            const GraphFile::Target& target = m_graph->targets.at(i);
            const QString where = QStringLiteral("targets[%1]").arg(i);
            if (!checkNames(target.enables, m_resourceNames, where + ".enables", "resource")
                || !checkNames(target.disables, m_resourceNames, where + ".disables", "resource")
                || !checkNames(target.reachable, m_targetNames, where + ".reachable", "target"))
                return false;
        }
        for (int i = 0; i < m_graph->requests.size(); ++i) {
            const GraphFile::Request& request = m_graph->requests.at(i);
            const bool isTarget = request.kind == GraphFile::Request::Target;
            if (!(isTarget ? m_targetNames : m_resourceNames).contains(request.name))
                return fail(QStringLiteral("requests[%1].%2").arg(i).arg(isTarget ? "target" : "resource"),
                            QStringLiteral("unknown %1 \"%2\"").arg(isTarget ? "target" : "resource", request.name));
        }
        return true;
    }

    GraphFile* m_graph;
    Failure* m_failure = nullptr;
    QList<std::function<void()>> m_namings;
    QSet<QString> m_moduleNames;
    QSet<QString> m_resourceNames;
    QSet<QString> m_targetNames;
    QSet<int> m_resourceValues;
    QSet<int> m_targetValues;
};

} // namespace

bool GraphFile::parse(const QByteArray& json, GraphFile* graph, QString* error)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = QStringLiteral("invalid JSON at offset %1: %2").arg(parseError.offset).arg(parseError.errorString());
        return false;
    }
    if (!document.isObject()) {
        *error = QStringLiteral("the file must hold one JSON object");
        return false;
    }
    *graph = GraphFile();
    Failure failure;
    if (!Parser(graph).parse(document.object(), &failure)) {
        *error = failure.where + ": " + failure.what;
        return false;
    }
    return true;
}

bool GraphFile::load(const QString& fileName, GraphFile* graph, QString* error)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = fileName + ": " + file.errorString();
        return false;
    }
    if (!parse(file.readAll(), graph, error)) {
        *error = fileName + ": " + *error;
        return false;
    }
    return true;
}
