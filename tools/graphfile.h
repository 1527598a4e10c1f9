#ifndef VELA_TOOLS_GRAPHFILE_H
#define VELA_TOOLS_GRAPHFILE_H

#include "velapowerenums.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>

/*
 * A power graph and a scenario as a user writes them in a JSON file:
 * modules, resources (with their set-data writes, dependencies, modules and
 * time-outs), targets (what they enable and disable, which targets may follow
 * them), how the simulated platform answers each path, and the requests to
 * make. See examples/graphs/ for complete files.
 */
struct GraphFile {
    struct Write {
        bool present = false;
        QString path;
        QString key;
        QVariant value;
    };
    struct Module {
        QString name;
        QString revokePath;
        QString postRevokePath;
    };
    struct Resource {
        QString name;
        VelaPowerManagerResources::Enum value = VelaPowerManagerResources::display;
        int timeoutMs = 5000;
        Write enable;
        Write disable;
        QStringList required;
        QList<QPair<QString, VelaPowerModuleActions::Enum>> modules;
    };
    struct Target {
        QString name;
        VelaPowerManagerTargets::Enum value = VelaPowerManagerTargets::off;
        QStringList enables;
        QStringList disables;
        QStringList reachable;
        bool reachableGiven = false;
    };
    // How the simulated owner of a path answers.
    struct Answer {
        enum Kind { Immediate, Delayed, Error, Never, Absent } kind = Immediate;
        int delayMs = 0;
        QString error;
    };
    struct Request {
        enum Kind { Target, Resource } kind = Target;
        QString name;
        QString module;
        VelaPowerModuleActions::Enum action = VelaPowerModuleActions::hold;
        int atMs = 0;
    };

    QList<Module> modules;
    QList<Resource> resources;
    QList<Target> targets;
    QHash<QString, Answer> platform;
    QList<Request> requests;

    // Parses and checks a file. On failure returns false and sets `error` to
    // a message naming the place in the file ("resources[1].requires[0]: ...").
    static bool load(const QString& fileName, GraphFile* graph, QString* error);
    static bool parse(const QByteArray& json, GraphFile* graph, QString* error);
};

#endif
