#ifndef VELA_POWERGRAPH_DBUSNAMES_H
#define VELA_POWERGRAPH_DBUSNAMES_H

#include <QString>

/*
 * The D-Bus rules for names a graph file may give (a D-Bus control's bus,
 * service, object path and interface), checked before anything is sent, so
 * that a mistake is found in the file and not on the device. Each returns
 * why the text breaks the rule, or an empty string when it keeps it.
 */
class DBusNames
{
public:
    // "system", "session", or an address ("unix:path=/run/bus", ...).
    static QString busProblem(const QString& bus);
    // A well-known bus name ("org.vela.Backlight1") or a unique one (":1.42").
    static QString serviceProblem(const QString& name);
    static QString objectPathProblem(const QString& path);
    static QString interfaceProblem(const QString& name);
};

#endif
