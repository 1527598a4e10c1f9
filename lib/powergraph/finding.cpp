#include "finding.h"

namespace {

using Code = Finding::Code;

const Finding::Kind table[] = {
    {Code::SelfEdge, "self-edge", Finding::Error, "A resource requires itself."},
    {Code::Cycle, "cycle", Finding::Error, "Requires edges form a cycle."},
    {Code::EnableDisableConflict, "enable-disable-conflict", Finding::Error, "A target enables what it disables."},
    {Code::SelfReference, "self-reference", Finding::Warning, "A target names itself."},
    {Code::UnregisteredModule, "unregistered-module", Finding::Warning, "A claim or request names no declared module."},
    {Code::UnreachableTarget, "unreachable-target", Finding::Warning, "No other target lists this one as reachable."},
    {Code::BlockedTarget, "blocked-target", Finding::Warning, "A starting hold prevents the switch to the target."},
    {Code::UntouchedResource, "untouched-resource", Finding::Warning, "Nothing in the file names the resource."},
    {Code::SilentUse, "silent-use", Finding::Warning, "A module with use claims or requests has no revoke path."},
    {Code::NameClash, "name-clash", Finding::Warning, "A resource and a target share a name."},
    {Code::DuplicateEntry, "duplicate-entry", Finding::Warning, "A name appears twice in one list."},
    {Code::DormantClaim, "dormant-claim", Finding::Warning, "A claim on a resource nothing enables or asks for."},
    {Code::MissingControl, "missing-control", Finding::Error, "A written path has no control in the file's controls."},
    {Code::InvalidControl, "invalid-control", Finding::Error,
     "A control names a relative directory or an invalid D-Bus bus, name, path or interface."},
    {Code::NoControls, "no-controls", Finding::Warning, "The file gives no controls for the paths it writes."},
    {Code::UnusedControl, "unused-control", Finding::Warning, "A control for a path that no resource writes."},
};
static_assert(sizeof table / sizeof table[0] == static_cast<int>(Code::UnusedControl) + 1,
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
