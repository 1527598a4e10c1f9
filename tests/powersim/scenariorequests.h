#ifndef VELA_TESTS_POWERSIM_SCENARIOREQUESTS_H
#define VELA_TESTS_POWERSIM_SCENARIOREQUESTS_H

/*
 * Requests made by hand, filled in as an entry of a file's "requests" list
 * would fill them. The platform's tests and the request driver's both send
 * such requests; one maker of each kind keeps them alike.
 */

#include "graphfile.h"

#include "velapowerenums.h"

#include <QString>

// A request of `kind` for the node `name`, everything else as the file's
// defaults leave it.
inline Scenario::Request namedRequest(Scenario::Request::Kind kind, const QString& name)
{
    Scenario::Request request;
    request.kind = kind;
    request.name = name;
    return request;
}

// {"target": name}
inline Scenario::Request targetRequest(const QString& name)
{
    return namedRequest(Scenario::Request::Target, name);
}

// {"resource": name, "module": module, "action": action}
inline Scenario::Request resourceRequest(const QString& name, const QString& module,
                                         VelaPowerModuleActions::Enum action)
{
    Scenario::Request request = namedRequest(Scenario::Request::Resource, name);
    request.module = module;
    request.action = action;
    return request;
}

#endif
