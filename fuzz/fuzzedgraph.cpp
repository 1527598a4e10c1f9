#include "fuzzedgraph.h"

#include "fuzzedplatform.h"

#include "PowerHandler.h"

#include "cmrequest.h"
#include "velapowerenums.h"
#include "velapowermanagermoduleregister.h"

namespace {

constexpr int maxResources = 6;
constexpr int maxTargets = 4;
constexpr int maxModules = 3;
// Time-outs cost no wall time (the run's clock is simulated): short ones
// race with answers from the event loop, the default one does not.
constexpr int shortestTimeoutMs = 0;
constexpr int longestTimeoutMs = 12;

} // namespace

FuzzedGraph::FuzzedGraph(FuzzInput& input, FuzzedPlatform& platform)
    : m_input(input)
    , m_platform(platform)
{
    makeModules();
    makeResources();
    makeTargets();
    wireResources();
    wireTargets();
}

void FuzzedGraph::makeModules()
{
    const int count = m_input.between(1, maxModules);
    for (int index = 0; index < count; ++index) {
        const QString module = QStringLiteral("module%1").arg(index);
        // A module may leave either revoke path empty: it is then not called.
        const QString revoke = m_input.oneIn(4) ? QString() : modulePath(module, "revoke");
        const QString postRevoke = m_input.oneIn(4) ? QString() : modulePath(module, "postRevoke");
        if (!revoke.isEmpty())
            m_platform.serveRevokes(CMPath(revoke));
        if (!postRevoke.isEmpty())
            m_platform.serveRevokes(CMPath(postRevoke));
        FuzzInput::trace("module " + module.toStdString() + ": revoke path " + (revoke.isEmpty() ? "none" : "served") +
                         ", post-revoke path " + (postRevoke.isEmpty() ? "none" : "served"));
        m_modules.append(module);
        m_revokePaths.append(revoke);
        m_postRevokePaths.append(postRevoke);
    }
    // Without its own module the power manager refuses every target request.
    m_powerManagerRegistered = !m_input.oneIn(16);
    if (!m_powerManagerRegistered)
        FuzzInput::trace("the power manager's own module is not registered");
}

void FuzzedGraph::makeResources()
{
    const int count = m_input.between(1, maxResources);
    for (int index = 0; index < count; ++index) {
        const auto value = static_cast<VelaPowerManagerResources::Enum>(index);
        const bool defaultTimeout = m_input.oneIn(4);
        auto* resource = defaultTimeout
            ? new PowerResource(value)
            : new PowerResource(value, m_input.between(shortestTimeoutMs, longestTimeoutMs));
        FuzzInput::trace("resource " + std::to_string(index) + ": time-out " +
                         std::to_string(resource->actionTimeout()) + " ms");
        m_owned.emplace_back(resource);
        m_resources.push_back(resource);
        // A resource without a write switches at once; a path that nobody
        // serves is answered with an error by the root worker.
        if (!m_input.oneIn(8))
            resource->setOnEnableActionRequest(CMSetDataRequest(CMPath(resourcePath(index, "on")), "power", true));
        if (!m_input.oneIn(8))
            resource->setOnDisableActionRequest(CMSetDataRequest(CMPath(resourcePath(index, "off")), "power", false));
        if (!m_input.oneIn(8))
            m_platform.serveWrites(CMPath(resourcePath(index, "on")));
        if (!m_input.oneIn(8))
            m_platform.serveWrites(CMPath(resourcePath(index, "off")));
        giveStartingClaims(resource);
    }
}

void FuzzedGraph::makeTargets()
{
    const int count = m_input.pick(maxTargets + 1);
    for (int index = 0; index < count; ++index) {
        auto* target = new PowerTarget(static_cast<VelaPowerManagerTargets::Enum>(index));
        m_owned.emplace_back(target);
        m_targets.push_back(target);
        if (m_input.oneIn(4))
            giveStartingClaims(target);
    }
}

void FuzzedGraph::giveStartingClaims(PowerNode* node)
{
    for (const QString& module : qAsConst(m_modules)) {
        if (!m_input.oneIn(3))
            continue;
        const auto action = static_cast<VelaPowerModuleActions::Enum>(m_input.pick(3));
        FuzzInput::trace(node->name().toStdString() + " starts with " + module.toStdString() + " " +
                         VelaPowerModuleActions::toString(action).toStdString());
        node->addModule(module, action);
    }
}

void FuzzedGraph::wireResources()
{
    const int size = static_cast<int>(m_resources.size());
    if (size < 2)
        return;
    const int edges = m_input.pick(2 * size + 1);
    for (int edge = 0; edge < edges; ++edge) {
        const int from = m_input.pick(size);
        // Any other resource: never the node itself.
        const int to = (from + 1 + m_input.pick(size - 1)) % size;
        FuzzInput::trace("resource " + std::to_string(from) + " requires resource " + std::to_string(to));
        m_resources[from]->requiresResource(m_resources[to]);
    }
}

void FuzzedGraph::wireTargets()
{
    for (PowerTarget* target : m_targets) {
        for (PowerResource* resource : m_resources) {
            switch (m_input.pick(3)) {
            case 1:
                FuzzInput::trace(target->name().toStdString() + " enables " + resource->name().toStdString());
                target->enables(resource);
                break;
            case 2:
                FuzzInput::trace(target->name().toStdString() + " disables " + resource->name().toStdString());
                target->disables(resource);
                break;
            default:
                break;
            }
        }
        if (m_input.oneIn(2)) {
            QList<const PowerTarget*> reachable;
            for (const PowerTarget* other : m_targets) {
                if (m_input.oneIn(2))
                    reachable.append(other);
            }
            FuzzInput::trace(target->name().toStdString() + " is followed by " + std::to_string(reachable.size()) +
                             " targets only");
            target->setReachableTargets(reachable);
        }
    }
}

void FuzzedGraph::registerWith(PowerHandler& handler) const
{
    if (m_powerManagerRegistered)
        handler.registerModule(VelaPowerManagerModuleRegister(VelaPowerManagerName(), CMPath(), CMPath()));
    for (int index = 0; index < m_modules.size(); ++index) {
        handler.registerModule(VelaPowerManagerModuleRegister(m_modules.at(index), CMPath(m_revokePaths.at(index)),
                                                              CMPath(m_postRevokePaths.at(index))));
    }
    for (PowerResource* resource : m_resources)
        handler.registerResource(resource);
    for (PowerTarget* target : m_targets)
        handler.registerTarget(target);
}

const std::vector<PowerResource*>& FuzzedGraph::resources() const
{
    return m_resources;
}

const std::vector<PowerTarget*>& FuzzedGraph::targets() const
{
    return m_targets;
}

const QStringList& FuzzedGraph::modules() const
{
    return m_modules;
}

QString FuzzedGraph::resourcePath(int index, const char* action)
{
    return QStringLiteral("/fuzz/resource%1/%2").arg(index).arg(QLatin1String(action));
}

QString FuzzedGraph::modulePath(const QString& module, const char* kind)
{
    return QStringLiteral("/fuzz/%1/%2").arg(module).arg(QLatin1String(kind));
}
