#include "finding.h"

namespace {

using Code = Finding::Code;

const Finding::Kind table[] = {
    {Code::SelfEdge, "self-edge", Finding::Error, "A resource requires itself."},
    {Code::Cycle, "cycle", Finding::Error, "Requires edges form a cycle."},
    {Code::EnableDisableConflict, "enable-disable-conflict", Finding::Error,
     "A target enables a resource, directly or through what that requires, that it also disables."},
    {Code::SelfReference, "self-reference", Finding::Warning,
     "A target enables, disables or lists itself as reachable."},
    {Code::UnregisteredModule, "unregistered-module", Finding::Warning,
     "A module in a resource's modules object or in a request is not declared."},
    {Code::UnreachableTarget, "unreachable-target", Finding::Warning,
     "No other target lists this one as reachable, while some target has a reachable list."},
    {Code::BlockedTarget, "blocked-target", Finding::Warning,
     "A module's hold on a node that the target disables prevents the switch."},
    {Code::UntouchedResource, "untouched-resource", Finding::Warning,
     "No target, modules entry, request or requires edge names the resource."},
    {Code::SilentUse, "silent-use", Finding::Warning, "A module with use claims or requests has no revoke path."},
    {Code::NameClash, "name-clash", Finding::Warning, "A resource and a target share a name."},
    {Code::DuplicateEntry, "duplicate-entry", Finding::Warning,
     "A name appears twice in one requires, enables, disables or reachable list."},
    {Code::DormantClaim, "dormant-claim", Finding::Warning,
     "A hold or use claim on a resource that no target enables and no request asks for."},
};
static_assert(sizeof table / sizeof table[0] == static_cast<int>(Code::DormantClaim) + 1,
              "every code has a row in the table");

} // namespace

const Finding::Kind* Finding::kinds(int* count)
{
    *count = static_cast<int>(sizeof table / sizeof table[0]);
    return table;
}

const Finding::Kind& Finding::kind(Code code)
{
    return table[static_cast<int>(code)];
}

Finding Finding::make(Code code, const QStringList& nodes, const TextPlace& place, const QString& message)
{
    const Kind& row = kind(code);
    return Finding{row.severity, QLatin1String(row.name), nodes, place, message};
}
