#include "graphverifier.h"

#include "dbusnames.h"
#include "libraryrecords.h"

#include <QSet>

#include <algorithm>

namespace {

const char* const powerManagerModule = "PowerManager";

QString chain(const QStringList& names)
{
    return names.join(QStringLiteral(" -> "));
}

bool isClaim(VelaPowerModuleActions::Enum action)
{
    return action != VelaPowerModuleActions::release;
}

} // namespace

GraphVerifier::GraphVerifier(const GraphFile& file)
    : m_file(file)
{
    index();
    checkSelfEdgesAndDuplicates();
    checkCycles();
    checkConflicts();
    checkSelfReferences();
    checkModules();
    checkUnreachableTargets();
    checkBlockedTargets();
    checkUntouchedResources();
    checkSilentUse();
    checkNameClashes();
    checkDormantClaims();
    checkControls();
    std::stable_sort(m_findings.begin(), m_findings.end(), [](const Finding& left, const Finding& right) {
        return std::make_pair(left.place.line, left.place.column) <
               std::make_pair(right.place.line, right.place.column);
    });
}

QList<Finding> GraphVerifier::findings() const
{
    return m_findings;
}

QStringList GraphVerifier::errorLines(const QString& fileName) const
{
    QStringList lines;
    for (const Finding& finding : m_findings) {
        if (finding.severity == Finding::Error)
            lines.append(QStringLiteral("%1:%2:%3: error: %4: %5")
                             .arg(fileName, QString::number(finding.place.line), QString::number(finding.place.column),
                                  finding.code, finding.message));
    }
    return lines;
}

void GraphVerifier::index()
{
    const int resources = m_file.resources.size();
    m_resourceIndex.reserve(resources);
    for (int i = 0; i < resources; ++i)
        m_resourceIndex.insert(m_file.resources.at(i).name, i);
    for (int i = 0; i < m_file.targets.size(); ++i)
        m_targetIndex.insert(m_file.targets.at(i).name, i);
    m_requires.resize(static_cast<size_t>(resources));
    m_requiredBy.resize(static_cast<size_t>(resources));
    m_stamps.assign(static_cast<size_t>(resources), 0);
    // lastFrom[r]: the latest resource whose list named r, to see repeated
    // entries without a set per list.
    std::vector<int> lastFrom(static_cast<size_t>(resources), -1);
    for (int i = 0; i < resources; ++i) {
        for (const GraphFile::Reference& required : m_file.resources.at(i).required) {
            const int to = m_resourceIndex.value(required.name);
            // Self-edges and repeated entries are findings of their own; the
            // walks see each edge once.
            if (to == i || lastFrom[static_cast<size_t>(to)] == i)
                continue;
            lastFrom[static_cast<size_t>(to)] = i;
            m_requires[static_cast<size_t>(i)].push_back(Edge{to, required.place});
            m_requiredBy[static_cast<size_t>(to)].push_back(Edge{i, required.place});
        }
    }
    for (const GraphFile::Target& target : m_file.targets) {
        TargetEdges edges;
        for (const GraphFile::Reference& name : target.enables) {
            if (m_resourceIndex.contains(name.name))
                edges.enables.append(m_resourceIndex.value(name.name));
        }
        for (const GraphFile::Reference& name : target.disables) {
            if (m_resourceIndex.contains(name.name)) {
                edges.disables.append(m_resourceIndex.value(name.name));
                edges.disablePlaces.append(name.place);
            }
        }
        m_targetEdges.push_back(edges);
    }
}

void GraphVerifier::add(Finding::Code code, const QStringList& nodes, const TextPlace& place, const QString& message)
{
    m_findings.append(Finding::make(code, nodes, place, message));
}

QString GraphVerifier::resourceName(int index) const
{
    return m_file.resources.at(index).name;
}

template <typename Visit>
void GraphVerifier::forEachTarget(Visit visit)
{
    // One parent array for all walks: each walk marks what it reaches with a
    // stamp of its own, so nothing is cleared between targets.
    std::vector<int> parent(m_requires.size(), -1);
    for (int t = 0; t < m_file.targets.size(); ++t)
        visit(m_file.targets.at(t), m_targetEdges[static_cast<size_t>(t)], parent);
}

std::vector<int> GraphVerifier::walk(const QList<int>& starts, const std::vector<std::vector<Edge>>& edges,
                                     std::vector<int>* parent, int* stamp)
{
    *stamp = ++m_lastStamp;
    std::vector<int> reached;
    for (int start : starts) {
        if (m_stamps[static_cast<size_t>(start)] == *stamp)
            continue;
        m_stamps[static_cast<size_t>(start)] = *stamp;
        (*parent)[static_cast<size_t>(start)] = -1;
        reached.push_back(start);
    }
    for (size_t next = 0; next < reached.size(); ++next) {
        const int from = reached[next];
        for (const Edge& edge : edges[static_cast<size_t>(from)]) {
            if (m_stamps[static_cast<size_t>(edge.to)] == *stamp)
                continue;
            m_stamps[static_cast<size_t>(edge.to)] = *stamp;
            (*parent)[static_cast<size_t>(edge.to)] = from;
            reached.push_back(edge.to);
        }
    }
    return reached;
}

// --- Errors --------------------------------------------------------------------

void GraphVerifier::checkSelfEdgesAndDuplicates()
{
    for (const GraphFile::Resource& resource : m_file.resources) {
        for (const GraphFile::Reference& required : resource.required) {
            if (required.name == resource.name)
                add(Finding::Code::SelfEdge, {resource.name}, required.place, resource.name + " requires itself");
        }
        checkDuplicates(resource.required, resource.name, "requires");
    }
    for (const GraphFile::Target& target : m_file.targets) {
        checkDuplicates(target.enables, target.name, "enables");
        checkDuplicates(target.disables, target.name, "disables");
        checkDuplicates(target.reachable, target.name, "reachable");
    }
}

void GraphVerifier::checkDuplicates(const GraphFile::ReferenceList& list, const QString& owner, const char* listName)
{
    // Most lists are short: compared pairwise they need no set at all.
    constexpr int shortList = 16;
    QSet<QString> seen;
    for (int i = 0; i < list.size(); ++i) {
        const GraphFile::Reference& entry = list.at(i);
        bool repeated = false;
        if (list.size() <= shortList) {
            for (int j = 0; j < i && !repeated; ++j)
                repeated = list.at(j).name == entry.name;
        } else {
            repeated = seen.contains(entry.name);
            seen.insert(entry.name);
        }
        if (repeated)
            add(Finding::Code::DuplicateEntry, {owner, entry.name}, entry.place,
                QStringLiteral("%1 is listed twice in the %2 list of %3")
                    .arg(entry.name, QLatin1String(listName), owner));
    }
}

// Depth first, without recursion: a chain of 100,000 resources is a valid
// graph and must not exhaust the stack. Each edge that leads back into the
// path being walked closes one cycle.
void GraphVerifier::checkCycles()
{
    enum Colour { Unvisited, OnPath, Done };
    const size_t count = m_requires.size();
    std::vector<Colour> colour(count, Unvisited);
    std::vector<int> pathIndex(count, -1);
    std::vector<int> path;
    std::vector<size_t> nextEdge;
    for (size_t root = 0; root < count; ++root) {
        if (colour[root] != Unvisited)
            continue;
        colour[root] = OnPath;
        pathIndex[root] = 0;
        path.push_back(static_cast<int>(root));
        nextEdge.push_back(0);
        while (!path.empty()) {
            const int current = path.back();
            const std::vector<Edge>& edges = m_requires[static_cast<size_t>(current)];
            if (nextEdge.back() == edges.size()) {
                colour[static_cast<size_t>(current)] = Done;
                path.pop_back();
                nextEdge.pop_back();
                continue;
            }
            const Edge& edge = edges[nextEdge.back()++];
            const size_t to = static_cast<size_t>(edge.to);
            if (colour[to] == OnPath) {
                reportCycle(path, pathIndex[to], edge);
            } else if (colour[to] == Unvisited) {
                colour[to] = OnPath;
                pathIndex[to] = static_cast<int>(path.size());
                path.push_back(edge.to);
                nextEdge.push_back(0);
            }
        }
    }
}

void GraphVerifier::reportCycle(const std::vector<int>& path, int from, const Edge& edge)
{
    QStringList nodes;
    for (size_t i = static_cast<size_t>(from); i < path.size(); ++i)
        nodes.append(resourceName(path[i]));
    add(Finding::Code::Cycle, nodes, edge.place,
        QStringLiteral("requires edges form a cycle: %1").arg(chain(nodes + QStringList{nodes.first()})));
}

// A target may not switch on, directly or through what that requires, a
// node it also switches off. The library refuses whichever of the two edges
// it is given second; the tool wires every enable before any disable, so
// the disable is the one refused.
void GraphVerifier::checkConflicts()
{
    forEachTarget([this](const GraphFile::Target& target, const TargetEdges& edges, std::vector<int>& parent) {
        int stamp = 0;
        walk(edges.enables, m_requires, &parent, &stamp);
        for (int i = 0; i < edges.disables.size(); ++i) {
            const int disabled = edges.disables.at(i);
            if (m_stamps[static_cast<size_t>(disabled)] != stamp)
                continue;
            QStringList route;
            for (int node = disabled; node != -1; node = parent[static_cast<size_t>(node)])
                route.prepend(resourceName(node));
            const QString& name = resourceName(disabled);
            QString why;
            if (route.size() == 1) {
                why = QStringLiteral("%1 disables %2, which it also enables").arg(target.name, name);
            } else {
                why = QStringLiteral("%1 disables %2, but %3, which it enables, requires %2")
                          .arg(target.name, name, route.first());
                if (route.size() > 2)
                    why += QStringLiteral(" (%1)").arg(chain(route));
            }
            QStringList nodes{target.name, name};
            if (route.size() > 1)
                nodes.append(route.first());
            add(Finding::Code::EnableDisableConflict, nodes, edges.disablePlaces.at(i),
                why + QStringLiteral("; the library refuses: \"%1\"")
                          .arg(LibraryRecord::disableEdgeRefusal(target.name, name)));
        }
    });
}

// --- Warnings ------------------------------------------------------------------

void GraphVerifier::checkSelfReferences()
{
    for (const GraphFile::Target& target : m_file.targets) {
        const QList<QPair<const GraphFile::ReferenceList*, const char*>> lists{{&target.enables, "enables"},
                                                                               {&target.disables, "disables"}};
        for (const auto& list : lists) {
            for (const GraphFile::Reference& entry : *list.first) {
                const bool isResource = m_resourceIndex.contains(entry.name);
                if (GraphSpec::targetEdgeEnd(target, entry.name, isResource) == GraphSpec::EdgeEnd::TargetItself)
                    add(Finding::Code::SelfReference, {target.name}, entry.place,
                        QStringLiteral("%1 %2 itself: the library drops that edge").arg(target.name, list.second));
            }
        }
        for (const GraphFile::Reference& entry : target.reachable) {
            if (entry.name == target.name)
                add(Finding::Code::SelfReference, {target.name}, entry.place,
                    QStringLiteral("%1 lists itself as reachable: a target is never switched to from itself, so the "
                                   "entry means nothing")
                        .arg(target.name));
        }
    }
}

void GraphVerifier::checkModules()
{
    QSet<QString> declared{QLatin1String(powerManagerModule)};
    for (const GraphFile::Module& module : m_file.modules)
        declared.insert(module.name);
    for (const GraphFile::Resource& resource : m_file.resources) {
        for (const GraphFile::Claim& claim : resource.modules) {
            if (!declared.contains(claim.module))
                add(Finding::Code::UnregisteredModule, {claim.module, resource.name}, claim.place,
                    QStringLiteral("module %1 has a starting action on %2 but is not declared in \"modules\"")
                        .arg(claim.module, resource.name));
        }
    }
    for (int i = 0; i < m_file.requests.size(); ++i) {
        const GraphFile::Request& request = m_file.requests.at(i);
        if (request.kind == GraphFile::Request::Resource && !declared.contains(request.module))
            add(Finding::Code::UnregisteredModule, {request.module, request.name}, request.modulePlace,
                QStringLiteral("request %1 comes from module %2, which is not declared in \"modules\": the handler "
                               "refuses it")
                    .arg(i + 1)
                    .arg(request.module));
    }
}

void GraphVerifier::checkUnreachableTargets()
{
    bool anyList = false;
    QSet<QString> listed;
    for (const GraphFile::Target& target : m_file.targets) {
        anyList = anyList || target.reachableGiven;
        for (const GraphFile::Reference& entry : target.reachable) {
            if (entry.name != target.name)
                listed.insert(entry.name);
        }
    }
    if (!anyList)
        return;
    for (const GraphFile::Target& target : m_file.targets) {
        if (!listed.contains(target.name))
            add(Finding::Code::UnreachableTarget, {target.name}, target.place,
                QStringLiteral("no other target lists %1 as reachable: once any target is enabled, %1 can no longer "
                               "be switched to")
                    .arg(target.name));
    }
}

// With no target enabled, switching to a target asks every node it disables,
// and every node that requires one of those, whether it may go off; a node
// that another module holds with `hold` says no.
void GraphVerifier::checkBlockedTargets()
{
    forEachTarget([this](const GraphFile::Target& target, const TargetEdges& edges, std::vector<int>& parent) {
        int stamp = 0;
        for (int node : walk(edges.disables, m_requiredBy, &parent, &stamp)) {
            const GraphFile::Resource& resource = m_file.resources.at(node);
            const auto holder =
                std::find_if(resource.modules.begin(), resource.modules.end(), [](const GraphFile::Claim& c) {
                    return c.action == VelaPowerModuleActions::hold && c.module != QLatin1String(powerManagerModule);
                });
            if (holder == resource.modules.end())
                continue;
            int disabled = node;
            while (parent[static_cast<size_t>(disabled)] != -1)
                disabled = parent[static_cast<size_t>(disabled)];
            const QString how = disabled == node ? QStringLiteral("%1 disables %2").arg(target.name, resource.name)
                                                 : QStringLiteral("%1 disables %2, which %3 requires")
                                                       .arg(target.name, resourceName(disabled), resource.name);
            add(Finding::Code::BlockedTarget, {target.name, resource.name, holder->module},
                edges.disablePlaces.at(edges.disables.indexOf(disabled)),
                QStringLiteral("with the file's starting claims and no target enabled yet, the power manager cannot "
                               "switch to %1: %2 holds %3 with hold, and %4; once an enabled target lists %1 as "
                               "reachable, holds no longer stop it")
                    .arg(target.name, holder->module, resource.name, how));
            break;
        }
    });
}

void GraphVerifier::checkUntouchedResources()
{
    std::vector<bool> touched(m_requires.size(), false);
    for (size_t i = 0; i < m_requires.size(); ++i) {
        const GraphFile::Resource& resource = m_file.resources.at(static_cast<int>(i));
        touched[i] =
            touched[i] || !resource.required.isEmpty() || !m_requiredBy[i].empty() || !resource.modules.isEmpty();
    }
    for (const TargetEdges& edges : m_targetEdges) {
        for (const QList<int>* list : {&edges.enables, &edges.disables}) {
            for (int node : *list)
                touched[static_cast<size_t>(node)] = true;
        }
    }
    for (const GraphFile::Request& request : m_file.requests) {
        if (request.kind == GraphFile::Request::Resource)
            touched[static_cast<size_t>(m_resourceIndex.value(request.name))] = true;
    }
    for (size_t i = 0; i < touched.size(); ++i) {
        const GraphFile::Resource& resource = m_file.resources.at(static_cast<int>(i));
        if (!touched[i])
            add(Finding::Code::UntouchedResource, {resource.name}, resource.place,
                QStringLiteral("no target, module, request or requires edge names %1: nothing ever switches it")
                    .arg(resource.name));
    }
}

void GraphVerifier::checkSilentUse()
{
    QHash<QString, QStringList> used;
    for (const GraphFile::Resource& resource : m_file.resources) {
        for (const GraphFile::Claim& claim : resource.modules) {
            if (claim.action == VelaPowerModuleActions::use && !used.value(claim.module).contains(resource.name))
                used[claim.module].append(resource.name);
        }
    }
    for (const GraphFile::Request& request : m_file.requests) {
        if (request.kind == GraphFile::Request::Resource && request.action == VelaPowerModuleActions::use &&
            !used.value(request.module).contains(request.name))
            used[request.module].append(request.name);
    }
    for (const GraphFile::Module& module : m_file.modules) {
        if (!used.contains(module.name) || !module.revokePath.isEmpty() || !module.postRevokePath.isEmpty())
            continue;
        const QStringList resources = used.value(module.name);
        add(Finding::Code::SilentUse, QStringList{module.name} + resources, module.place,
            QStringLiteral("%1 uses %2 but has no revoke path: it would never be told that a target took its "
                           "resource")
                .arg(module.name, resources.join(QStringLiteral(", "))));
    }
}

void GraphVerifier::checkNameClashes()
{
    for (const GraphFile::Target& target : m_file.targets) {
        if (m_resourceIndex.contains(target.name))
            add(Finding::Code::NameClash, {target.name}, target.place,
                QStringLiteral("%1 names both a resource and a target: lists of resources mean the resource, log "
                               "lines cannot tell them apart")
                    .arg(target.name));
    }
}

// A claim alone switches nothing: a node goes on when a target enables it
// (directly or through requires) or a request asks for it.
void GraphVerifier::checkDormantClaims()
{
    QList<int> switchedOn;
    for (const TargetEdges& edges : m_targetEdges)
        switchedOn.append(edges.enables);
    for (const GraphFile::Request& request : m_file.requests) {
        if (request.kind == GraphFile::Request::Resource && isClaim(request.action))
            switchedOn.append(m_resourceIndex.value(request.name));
    }
    std::vector<int> parent(m_requires.size(), -1);
    int stamp = 0;
    walk(switchedOn, m_requires, &parent, &stamp);
    for (int i = 0; i < m_file.resources.size(); ++i) {
        if (m_stamps[static_cast<size_t>(i)] == stamp)
            continue;
        const GraphFile::Resource& resource = m_file.resources.at(i);
        for (const GraphFile::Claim& claim : resource.modules) {
            if (isClaim(claim.action))
                add(Finding::Code::DormantClaim, {resource.name, claim.module}, claim.place,
                    QStringLiteral("%1's %2 claim on %3 switches nothing: no target enables %3, directly or through "
                                   "requires, and no request asks for it")
                        .arg(claim.module, VelaPowerModuleActions::toString(claim.action), resource.name));
        }
    }
}

// --- Controls ------------------------------------------------------------------

// A service runs a graph only when every path its resources write has a
// control; a file with no "controls" at all is a simulation-only file (a
// warning per path), one with some is meant for a device (an error).
void GraphVerifier::checkControls()
{
    QSet<QString> written;
    for (const GraphFile::Resource& resource : m_file.resources) {
        for (const GraphFile::Write* write : {&resource.enable, &resource.disable}) {
            if (!write->present || written.contains(write->path))
                continue;
            written.insert(write->path);
            if (m_file.controls.contains(write->path))
                continue;
            if (m_file.controlsGiven)
                add(Finding::Code::MissingControl, {resource.name}, resource.place,
                    QStringLiteral("%1 writes %2, which has no control: the graph cannot run on a device")
                        .arg(resource.name, write->path));
            else
                add(Finding::Code::NoControls, {resource.name}, resource.place,
                    QStringLiteral("%1 writes %2 and the file gives no \"controls\": it runs simulated only")
                        .arg(resource.name, write->path));
        }
    }
    for (auto control = m_file.controls.constBegin(); control != m_file.controls.constEnd(); ++control) {
        checkControl(control.key(), control.value());
        if (!written.contains(control.key()))
            add(Finding::Code::UnusedControl, {}, control.value().place,
                QStringLiteral("the control of %1 is never used: no resource writes that path").arg(control.key()));
    }
}

void GraphVerifier::checkControl(const QString& path, const GraphFile::Control& control)
{
    const auto invalid = [this, &path, &control](const QString& what, const QString& problem) {
        add(Finding::Code::InvalidControl, {}, control.place,
            QStringLiteral("the control of %1: %2 %3").arg(path, what, problem));
    };
    if (control.kind == GraphFile::Control::Sysfs) {
        if (!control.directory.startsWith(QLatin1Char('/')))
            invalid(QStringLiteral("the sysfs directory %1").arg(control.directory), QStringLiteral("is not absolute"));
        return;
    }
    if (control.kind != GraphFile::Control::DBus)
        return;
    const QPair<QString, QString> names[] = {
        {QStringLiteral("the bus ") + control.bus, DBusNames::busProblem(control.bus)},
        {QStringLiteral("the service ") + control.service, DBusNames::serviceProblem(control.service)},
        {QStringLiteral("the object path ") + control.objectPath, DBusNames::objectPathProblem(control.objectPath)},
        {QStringLiteral("the interface ") + control.interface, DBusNames::interfaceProblem(control.interface)},
    };
    for (const auto& name : names) {
        if (!name.second.isEmpty())
            invalid(name.first, name.second);
    }
}
