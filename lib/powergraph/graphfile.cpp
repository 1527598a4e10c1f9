#include "graphfile.h"

#include "safetext.h"

#include <QFile>
#include <QSet>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

namespace {

constexpr int largestInteger = std::numeric_limits<int>::max();

/*
 * The path of keys to a value ("resources[1].requires[0]"), kept as links
 * to the enclosing paths and written out only when a message needs it: a
 * large file is mostly valid, and spelling out the path of every value read
 * would cost more than reading it.
 */
class Where
{
public:
    Where() = default;
    Where(const Where& parent, const char* key)
        : m_parent(&parent)
        , m_key(key)
    {
    }
    Where(const Where& parent, const QString& key)
        : m_parent(&parent)
        , m_name(&key)
    {
    }
    Where(const Where& parent, int index)
        : m_parent(&parent)
        , m_index(index)
    {
    }

    QString text() const
    {
        if (!m_parent)
            return QString();
        const QString above = m_parent->text();
        if (m_index >= 0)
            return QStringLiteral("%1[%2]").arg(above).arg(m_index);
        const QString key = m_key ? QString(QLatin1String(m_key)) : *m_name;
        return above.isEmpty() ? key : above + QLatin1Char('.') + key;
    }

private:
    const Where* m_parent = nullptr;
    const char* m_key = nullptr;
    const QString* m_name = nullptr;
    int m_index = -1;
};

const Where top;

// Walks the JSON tree of a graph file and fills a GraphFile, stopping at the
// first thing that is wrong.
class Parser
{
public:
    Parser(GraphFile* graph, GraphFile::Failure* failure, GraphFile::Naming naming)
        : m_graph(graph)
        , m_failure(failure)
        , m_naming(naming)
    {
    }

    bool parse(const JsonNode& root)
    {
        if (root.kind != JsonNode::Object)
            return fail(root.place, top, QStringLiteral("the file must hold one JSON object"));
        const bool valid =
            checkKeys(root, {"modules", "resources", "targets", "controls", "platform", "requests"}, top) &&
            parseModules(root.member(QLatin1String("modules"))) &&
            parseResources(root.member(QLatin1String("resources"))) &&
            parseTargets(root.member(QLatin1String("targets"))) &&
            parseControls(root.member(QLatin1String("controls"))) &&
            parsePlatform(root.member(QLatin1String("platform"))) &&
            parseRequests(root.member(QLatin1String("requests"))) && checkReferences();
        // Names are process-wide: only a file that is valid as a whole gives any.
        if (valid) {
            for (const auto& naming : qAsConst(m_namings))
                naming();
        }
        return valid;
    }

private:
    bool fail(const TextPlace& place, const Where& where, const QString& what)
    {
        m_failure->place = place;
        m_failure->where = where.text();
        m_failure->what = what;
        return false;
    }

    using KeyList = std::initializer_list<const char*>;

    bool checkKeys(const JsonNode& object, KeyList known, const Where& where)
    {
        for (const JsonMember& member : object.members) {
            const bool isKnown = std::any_of(known.begin(), known.end(),
                                             [&member](const char* key) { return member.key == QLatin1String(key); });
            if (isKnown)
                continue;
            QStringList names;
            for (const char* key : known)
                names.append(QLatin1String(key));
            return fail(member.place, where,
                        "unknown key " + SafeText::quoted(member.key) + " (expected one of: " + names.join(", ") + ")");
        }
        return true;
    }

    bool expectKind(const JsonNode& node, JsonNode::Kind kind, const Where& where)
    {
        if (node.kind != kind)
            return fail(node.place, where, "expected " + JsonNode::kindName(kind));
        return true;
    }

    // A list that may be left out.
    bool array(const JsonNode* node, const Where& where) { return !node || expectKind(*node, JsonNode::Array, where); }

    bool text(const JsonNode& node, const Where& where, int maximumLength, QString* out)
    {
        if (node.kind != JsonNode::String || node.text.isEmpty())
            return fail(node.place, where, QStringLiteral("expected a non-empty string"));
        const QString problem = SafeText::problem(node.text, maximumLength);
        if (!problem.isEmpty())
            return fail(node.place, where, SafeText::quoted(node.text) + ": " + problem);
        *out = node.text;
        return true;
    }

    bool member(const JsonNode& object, const char* key, const Where& where, bool required, int maximumLength,
                QString* out, TextPlace* place = nullptr)
    {
        const JsonNode* value = object.member(QLatin1String(key));
        if (!value) {
            if (required)
                return fail(object.place, where, QStringLiteral("missing \"%1\"").arg(QLatin1String(key)));
            return true;
        }
        if (place)
            *place = value->place;
        return text(*value, Where(where, key), maximumLength, out);
    }

    bool integer(const JsonNode& object, const char* key, const Where& where, int* out)
    {
        const JsonNode* value = object.member(QLatin1String(key));
        if (!value)
            return true;
        if (value->kind != JsonNode::Number || value->number < 0 || value->number > largestInteger ||
            value->number != std::floor(value->number))
            return fail(value->place, Where(where, key),
                        QStringLiteral("expected an integer from 0 to %1").arg(largestInteger));
        *out = static_cast<int>(value->number);
        return true;
    }

    // Calls `parse` with the member `key` of `object` and its place when
    // there is one: an optional member left out is no refusal.
    template <typename Parse>
    bool ifMember(const JsonNode& object, const char* key, const Where& where, Parse parse)
    {
        const JsonNode* member = object.member(QLatin1String(key));
        return !member || parse(*member, Where(where, key));
    }

    bool references(const JsonNode& object, const char* key, const Where& where, GraphFile::ReferenceList* out)
    {
        return ifMember(object, key, where, [this, out](const JsonNode& list, const Where& here) {
            if (!array(&list, here))
                return false;
            for (size_t i = 0; i < list.members.size(); ++i) {
                GraphFile::Reference reference;
                reference.place = list.item(i).place;
                if (!text(list.item(i), Where(here, static_cast<int>(i)), SafeText::maximumNameLength, &reference.name))
                    return false;
                out->append(reference);
            }
            return true;
        });
    }

    bool action(const JsonNode& node, const Where& where, VelaPowerModuleActions::Enum* out)
    {
        if (node.kind != JsonNode::String || !VelaPowerModuleActions::fromString(node.text, out))
            return fail(node.place, where, QStringLiteral("expected one of \"hold\", \"use\", \"release\""));
        return true;
    }

    // An entry of a list of named things: an object with only `keys` whose
    // "name" is not taken yet by another entry of the list.
    bool namedEntry(const JsonNode& entry, const Where& where, KeyList keys, const char* kind, QSet<QString>* taken,
                    QString* name, TextPlace* place)
    {
        if (!expectKind(entry, JsonNode::Object, where) || !checkKeys(entry, keys, where) ||
            !member(entry, "name", where, true, SafeText::maximumNameLength, name, place))
            return false;
        if (taken->contains(*name))
            return fail(*place, Where(where, "name"),
                        QStringLiteral("%1 %2 is listed twice").arg(QLatin1String(kind), SafeText::quoted(*name)));
        taken->insert(*name);
        return true;
    }

    // Calls `parse` for each entry of the top-level list `key` (none when the
    // key is absent), with the entry's place; stops at the first refusal.
    template <typename Parse>
    bool forEachEntry(const JsonNode* list, const char* key, Parse parse)
    {
        const Where listWhere(top, key);
        if (!array(list, listWhere))
            return false;
        for (size_t i = 0; list && i < list->members.size(); ++i) {
            if (!parse(list->item(i), Where(listWhere, static_cast<int>(i))))
                return false;
        }
        return true;
    }

    bool parseModules(const JsonNode* list)
    {
        return forEachEntry(list, "modules", [this](const JsonNode& entry, const Where& where) {
            GraphFile::Module module;
            if (!namedEntry(entry, where, {"name", "revokePath", "postRevokePath"}, "module", &m_moduleNames,
                            &module.name, &module.place) ||
                !member(entry, "revokePath", where, false, SafeText::maximumPathLength, &module.revokePath) ||
                !member(entry, "postRevokePath", where, false, SafeText::maximumPathLength, &module.postRevokePath))
                return false;
            m_graph->modules.append(module);
            return true;
        });
    }

    bool write(const JsonNode& resource, const char* key, const Where& where, GraphFile::Write* out)
    {
        return ifMember(resource, key, where, [this, out](const JsonNode& entry, const Where& here) {
            if (!expectKind(entry, JsonNode::Object, here) || !checkKeys(entry, {"path", "key", "value"}, here) ||
                !member(entry, "path", here, true, SafeText::maximumPathLength, &out->path) ||
                !member(entry, "key", here, true, SafeText::maximumPathLength, &out->key))
                return false;
            const JsonNode* value = entry.member(QLatin1String("value"));
            if (!value)
                return fail(entry.place, here, QStringLiteral("missing \"value\""));
            out->value = value->toVariant();
            out->present = true;
            return true;
        });
    }

    // Calls `parse` for each member of the optional object `object` at
    // `where`, whose keys are names (`keyKind`, at most `maximumLength`
    // characters) with a value each; stops at the first refusal.
    template <typename Parse>
    bool forEachKey(const JsonNode* object, const Where& where, const char* keyKind, int maximumLength, Parse parse)
    {
        if (!object)
            return true;
        if (!expectKind(*object, JsonNode::Object, where))
            return false;
        for (const JsonMember& entry : object->members) {
            const QString problem = SafeText::problem(entry.key, maximumLength);
            if (!problem.isEmpty())
                return fail(entry.place, where,
                            QLatin1String(keyKind) + ' ' + SafeText::quoted(entry.key) + ": " + problem);
            if (!parse(entry, Where(where, entry.key)))
                return false;
        }
        return true;
    }

    bool claims(const JsonNode& node, const Where& where, QList<GraphFile::Claim>* out)
    {
        const Where here(where, "modules");
        return forEachKey(node.member(QLatin1String("modules")), here, "module name", SafeText::maximumNameLength,
                          [this, out](const JsonMember& entry, const Where& claimWhere) {
                              GraphFile::Claim claim;
                              claim.module = entry.key;
                              claim.place = entry.place;
                              if (!action(entry.value, claimWhere, &claim.action))
                                  return false;
                              out->append(claim);
                              return true;
                          });
    }

    // The lowest value from *candidate up that the file has not used. The
    // candidate only moves forward, so a file of many new names costs one
    // pass, not one search from the start per name.
    static int nextFree(const QSet<int>& used, int* candidate)
    {
        while (used.contains(*candidate))
            ++*candidate;
        return (*candidate)++;
    }

    template <typename Enumeration, typename Enum>
    bool nodeValue(const JsonNode& node, const QString& name, const TextPlace& namePlace, const Where& where,
                   QSet<int>* used, int* nextCandidate, Enum* out)
    {
        int number = -1;
        if (!integer(node, "value", where, &number))
            return false;
        const JsonNode* given = node.member(QLatin1String("value"));
        if (number < 0) {
            Enum known;
            if (Enumeration::fromString(name, &known) && !used->contains(known))
                number = known;
            else
                number = nextFree(*used, nextCandidate);
        }
        if (used->contains(number))
            return fail(given ? given->place : namePlace, Where(where, "value"),
                        QStringLiteral("value %1 is used twice").arg(number));
        Enum named;
        if (Enumeration::fromString(name, &named) && named != number)
            return fail(namePlace, Where(where, "name"),
                        "the name " + SafeText::quoted(name) + " already stands for another value");
        if (m_naming == GraphFile::Naming::Register && Enumeration::toString(static_cast<Enum>(number)) != name)
            m_namings.append([number, name]() { Enumeration::registerName(static_cast<Enum>(number), name); });
        used->insert(number);
        *out = static_cast<Enum>(number);
        return true;
    }

    bool parseResources(const JsonNode* list)
    {
        return forEachEntry(list, "resources", [this](const JsonNode& entry, const Where& where) {
            GraphFile::Resource resource;
            if (!namedEntry(entry, where, {"name", "value", "timeoutMs", "enable", "disable", "requires", "modules"},
                            "resource", &m_resourceNames, &resource.name, &resource.place))
                return false;
            if (!nodeValue<VelaPowerManagerResources>(entry, resource.name, resource.place, where, &m_resourceValues,
                                                      &m_nextResourceValue, &resource.value) ||
                !integer(entry, "timeoutMs", where, &resource.timeoutMs) ||
                !write(entry, "enable", where, &resource.enable) ||
                !write(entry, "disable", where, &resource.disable) ||
                !references(entry, "requires", where, &resource.required) || !claims(entry, where, &resource.modules))
                return false;
            m_graph->resources.append(resource);
            return true;
        });
    }

    bool parseTargets(const JsonNode* list)
    {
        return forEachEntry(list, "targets", [this](const JsonNode& entry, const Where& where) {
            GraphFile::Target target;
            if (!namedEntry(entry, where, {"name", "value", "enables", "disables", "reachable"}, "target",
                            &m_targetNames, &target.name, &target.place))
                return false;
            target.reachableGiven = entry.member(QLatin1String("reachable")) != nullptr;
            if (!nodeValue<VelaPowerManagerTargets>(entry, target.name, target.place, where, &m_targetValues,
                                                    &m_nextTargetValue, &target.value) ||
                !references(entry, "enables", where, &target.enables) ||
                !references(entry, "disables", where, &target.disables) ||
                !references(entry, "reachable", where, &target.reachable))
                return false;
            m_graph->targets.append(target);
            return true;
        });
    }

    bool answer(const JsonNode& node, const Where& where, GraphFile::Answer* parsed)
    {
        if (node.kind == JsonNode::String) {
            if (node.text == "immediate")
                parsed->kind = GraphFile::Answer::Immediate;
            else if (node.text == "never")
                parsed->kind = GraphFile::Answer::Never;
            else if (node.text == "absent")
                parsed->kind = GraphFile::Answer::Absent;
            else
                return fail(node.place, where,
                            "expected \"immediate\", \"never\", \"absent\", {\"delayMs\": n} or {\"error\": \"text\"}");
            return true;
        }
        if (!expectKind(node, JsonNode::Object, where) || !checkKeys(node, {"delayMs", "error"}, where))
            return false;
        if (node.member(QLatin1String("error"))) {
            parsed->kind = GraphFile::Answer::Error;
            if (!member(node, "error", where, true, SafeText::maximumPathLength, &parsed->error))
                return false;
        } else {
            parsed->kind = GraphFile::Answer::Delayed;
            if (!node.member(QLatin1String("delayMs")))
                return fail(node.place, where, QStringLiteral("missing \"delayMs\" or \"error\""));
        }
        return integer(node, "delayMs", where, &parsed->delayMs);
    }

    bool parsePlatform(const JsonNode* paths)
    {
        return forEachKey(paths, Where(top, "platform"), "path", SafeText::maximumPathLength,
                          [this](const JsonMember& entry, const Where& where) {
                              GraphFile::Answer parsed;
                              if (!answer(entry.value, where, &parsed))
                                  return false;
                              m_graph->platform.insert(entry.key, parsed);
                              return true;
                          });
    }

    // "controls": {PATH: {"sysfs": DIRECTORY} | {"dbus": {...}} | {"log": true}}.
    // Whether a directory is absolute and D-Bus names are valid is verify's
    // to say (with the place), not a refusal: the file still runs simulated.
    bool parseControls(const JsonNode* controls)
    {
        if (controls) {
            m_graph->controlsGiven = true;
            m_graph->controlsPlace = controls->place;
        }
        return forEachKey(controls, Where(top, "controls"), "path", SafeText::maximumPathLength,
                          [this](const JsonMember& entry, const Where& where) {
                              GraphSpec::Control control;
                              if (!this->control(entry.value, where, &control))
                                  return false;
                              m_graph->controls.insert(entry.key, control);
                              return true;
                          });
    }

    bool control(const JsonNode& node, const Where& where, GraphSpec::Control* out)
    {
        if (!expectKind(node, JsonNode::Object, where) || !checkKeys(node, {"sysfs", "dbus", "log"}, where))
            return false;
        if (node.members.size() != 1)
            return fail(node.place, where, QStringLiteral("give exactly one of \"sysfs\", \"dbus\" and \"log\""));
        out->place = node.place;
        const JsonMember& kind = node.members.front();
        const Where here(where, kind.key);
        if (kind.key == QLatin1String("sysfs")) {
            out->kind = GraphSpec::Control::Sysfs;
            return text(kind.value, here, SafeText::maximumPathLength, &out->directory);
        }
        if (kind.key == QLatin1String("log")) {
            out->kind = GraphSpec::Control::Log;
            if (kind.value.kind != JsonNode::Bool || !kind.value.boolean)
                return fail(kind.value.place, here, QStringLiteral("expected true"));
            return true;
        }
        out->kind = GraphSpec::Control::DBus;
        out->bus = QStringLiteral("system");
        return expectKind(kind.value, JsonNode::Object, here) &&
               checkKeys(kind.value, {"bus", "service", "path", "interface"}, here) &&
               member(kind.value, "bus", here, false, SafeText::maximumPathLength, &out->bus) &&
               member(kind.value, "service", here, true, SafeText::maximumPathLength, &out->service) &&
               member(kind.value, "path", here, true, SafeText::maximumPathLength, &out->objectPath) &&
               member(kind.value, "interface", here, true, SafeText::maximumPathLength, &out->interface);
    }

    bool parseRequests(const JsonNode* list)
    {
        return forEachEntry(list, "requests", [this](const JsonNode& entry, const Where& where) {
            GraphFile::Request request;
            if (!expectKind(entry, JsonNode::Object, where) ||
                !checkKeys(entry, {"target", "resource", "module", "action", "atMs"}, where) ||
                !integer(entry, "atMs", where, &request.atMs))
                return false;
            const bool isTarget = entry.member(QLatin1String("target")) != nullptr;
            if (isTarget == (entry.member(QLatin1String("resource")) != nullptr))
                return fail(entry.place, where, QStringLiteral("give exactly one of \"target\" and \"resource\""));
            if (isTarget) {
                request.kind = GraphFile::Request::Target;
                if (!member(entry, "target", where, true, SafeText::maximumNameLength, &request.name, &request.place))
                    return false;
            } else {
                request.kind = GraphFile::Request::Resource;
                const JsonNode* action = entry.member(QLatin1String("action"));
                if (!member(entry, "resource", where, true, SafeText::maximumNameLength, &request.name,
                            &request.place) ||
                    !member(entry, "module", where, true, SafeText::maximumNameLength, &request.module,
                            &request.modulePlace))
                    return false;
                if (!action)
                    return fail(entry.place, Where(where, "action"),
                                QStringLiteral("expected one of \"hold\", \"use\", \"release\""));
                if (!this->action(*action, Where(where, "action"), &request.action))
                    return false;
            }
            m_graph->requests.append(request);
            return true;
        });
    }

    bool checkNames(const GraphFile::ReferenceList& list, const QSet<QString>& known, const Where& where,
                    const char* kind, const QString& self = QString())
    {
        for (int i = 0; i < list.size(); ++i) {
            const QString& name = list.at(i).name;
            if (!known.contains(name) && name != self)
                return fail(list.at(i).place, Where(where, i),
                            QStringLiteral("unknown %1 %2").arg(QLatin1String(kind), SafeText::quoted(name)));
        }
        return true;
    }

    // Edges, reachable targets and requests may only name what the file
    // defines, and a target may name itself (the library drops that edge;
    // verify says so). Modules are not checked here: a module the file does
    // not declare is refused by the handler, which a scenario may want to
    // show, and verify warns about it.
    bool checkReferences()
    {
        const Where resourcesWhere(top, "resources");
        const Where targetsWhere(top, "targets");
        for (int i = 0; i < m_graph->resources.size(); ++i) {
            const Where entry(resourcesWhere, i);
            if (!checkNames(m_graph->resources.at(i).required, m_resourceNames, Where(entry, "requires"), "resource"))
                return false;
        }
        for (int i = 0; i < m_graph->targets.size(); ++i) {
            const GraphFile::Target& target = m_graph->targets.at(i);
            const Where where(targetsWhere, i);
            if (!checkNames(target.enables, m_resourceNames, Where(where, "enables"), "resource", target.name) ||
                !checkNames(target.disables, m_resourceNames, Where(where, "disables"), "resource", target.name) ||
                !checkNames(target.reachable, m_targetNames, Where(where, "reachable"), "target"))
                return false;
        }
        for (int i = 0; i < m_graph->requests.size(); ++i) {
            const GraphFile::Request& request = m_graph->requests.at(i);
            const bool isTarget = request.kind == GraphFile::Request::Target;
            if (!(isTarget ? m_targetNames : m_resourceNames).contains(request.name))
                return fail(request.place, Where(Where(Where(top, "requests"), i), isTarget ? "target" : "resource"),
                            QStringLiteral("unknown %1 %2")
                                .arg(isTarget ? "target" : "resource", SafeText::quoted(request.name)));
        }
        return true;
    }

    GraphFile* m_graph;
    GraphFile::Failure* m_failure;
    GraphFile::Naming m_naming;
    QList<std::function<void()>> m_namings;
    QSet<QString> m_moduleNames;
    QSet<QString> m_resourceNames;
    QSet<QString> m_targetNames;
    QSet<int> m_resourceValues;
    QSet<int> m_targetValues;
    // Values for names the platform does not know start here, clear of its own.
    int m_nextResourceValue = 1000;
    int m_nextTargetValue = 1000;
};

template <typename Entry>
const Entry* findNamed(const QList<Entry>& list, const QString& name)
{
    for (const Entry& entry : list) {
        if (entry.name == name)
            return &entry;
    }
    return nullptr;
}

} // namespace

QString Scenario::Request::describe() const
{
    if (kind == Target)
        return QStringLiteral("target ") + name;
    return QLatin1String("resource ") + name + QLatin1Char(' ') + VelaPowerModuleActions::toString(action) +
           QLatin1String(" by ") + module;
}

QString GraphFile::Failure::message() const
{
    QString text = fileName;
    if (place.line > 0)
        text += QStringLiteral(":%1:%2").arg(place.line).arg(place.column);
    if (!where.isEmpty())
        text += (text.isEmpty() ? QString() : QStringLiteral(": ")) + where;
    return (text.isEmpty() ? QString() : text + QStringLiteral(": ")) + what;
}

bool GraphFile::parse(const QByteArray& json, const QString& fileName, GraphFile* graph, Failure* failure,
                      Naming naming)
{
    *graph = GraphFile();
    *failure = Failure();
    failure->fileName = fileName;
    JsonNode root;
    JsonNode::Failure jsonFailure;
    if (!JsonNode::parse(json, &root, &jsonFailure)) {
        failure->place = jsonFailure.place;
        failure->what = jsonFailure.message;
        return false;
    }
    if (!Parser(graph, failure, naming).parse(root)) {
        *graph = GraphFile();
        return false;
    }
    return true;
}

bool GraphFile::load(const QString& fileName, GraphFile* graph, Failure* failure, Naming naming)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        *failure = Failure();
        failure->fileName = fileName;
        failure->what = file.errorString();
        return false;
    }
    return parse(file.readAll(), fileName, graph, failure, naming);
}

GraphSpec::EdgeEnd GraphSpec::targetEdgeEnd(const Target& target, const QString& name, bool isResource)
{
    if (isResource)
        return EdgeEnd::Resource;
    return name == target.name ? EdgeEnd::TargetItself : EdgeEnd::Unknown;
}

const GraphSpec::Resource* GraphSpec::resource(const QString& name) const
{
    return findNamed(resources, name);
}

const GraphSpec::Target* GraphSpec::target(const QString& name) const
{
    return findNamed(targets, name);
}

const GraphSpec::Module* GraphSpec::module(const QString& name) const
{
    return findNamed(modules, name);
}
