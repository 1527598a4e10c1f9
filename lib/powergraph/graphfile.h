#ifndef VELA_POWERGRAPH_GRAPHFILE_H
#define VELA_POWERGRAPH_GRAPHFILE_H

#include "jsonnode.h"

#include "velapowerenums.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QVariant>
#include <QVector>

/*
 * A power graph as a platform builds it: modules, resources (with their
 * set-data writes, dependencies, modules and time-outs) and targets (what
 * they enable and disable, which targets may follow them). This is all a
 * service needs to run the graph on hardware.
 *
 * Every name keeps the place where the file writes it, so that whatever is
 * said about the graph later can point back into the file.
 */
struct GraphSpec {
    struct Reference {
        QString name;
        TextPlace place;
    };
    using ReferenceList = QVector<Reference>;

    struct Write {
        bool present = false;
        QString path;
        QString key;
        QVariant value;
    };
    struct Module {
        QString name;
        TextPlace place;
        QString revokePath;
        QString postRevokePath;
    };
    // A module's starting action on a resource.
    struct Claim {
        QString module;
        TextPlace place;
        VelaPowerModuleActions::Enum action = VelaPowerModuleActions::release;
    };
    struct Resource {
        QString name;
        TextPlace place;
        VelaPowerManagerResources::Enum value = VelaPowerManagerResources::display;
        int timeoutMs = 5000;
        Write enable;
        Write disable;
        ReferenceList required;
        QList<Claim> modules;
    };
    struct Target {
        QString name;
        TextPlace place;
        VelaPowerManagerTargets::Enum value = VelaPowerManagerTargets::off;
        // Resources; a target may also name itself here, an edge the library
        // drops (verify warns about it).
        ReferenceList enables;
        ReferenceList disables;
        ReferenceList reachable;
        bool reachableGiven = false;
    };

    // The hardware behind a data path that resources write, for a service
    // that runs the graph on a device.
    struct Control {
        enum Kind { Sysfs, DBus, Log } kind = Log;
        TextPlace place;
        // Sysfs: the directory of the attribute files (a write of a key
        // writes <directory>/<key>).
        QString directory;
        // DBus: the object whose property named by a write's key is set.
        // `bus` is "system", "session" or a bus address.
        QString bus;
        QString service;
        QString objectPath;
        QString interface;
    };

    QList<Module> modules;
    QList<Resource> resources;
    QList<Target> targets;
    // By data path; `controlsGiven` tells a file without the key from one
    // with an empty object.
    QHash<QString, Control> controls;
    bool controlsGiven = false;
    TextPlace controlsPlace;

    // What a name in a target's enables or disables list stands for: a
    // resource of that name when there is one, else the target itself when
    // it is the target's own name (an edge the library drops, since a
    // target's edges live on its side only), else nothing the graph defines.
    // `isResource` says whether the graph has a resource of that name (the
    // caller looks it up in its own index).
    enum class EdgeEnd { Resource, TargetItself, Unknown };
    static EdgeEnd targetEdgeEnd(const Target& target, const QString& name, bool isResource);

    // Lookups by name; null when the graph defines none.
    const Resource* resource(const QString& name) const;
    const Target* target(const QString& name) const;
    const Module* module(const QString& name) const;
};

/*
 * What a test run of a graph does on a simulated platform: how the owner of
 * each path answers, and the requests to make. A service on hardware has no
 * use for it.
 */
struct Scenario {
    // How the simulated owner of a path answers.
    struct Answer {
        enum Kind { Immediate, Delayed, Error, Never, Absent } kind = Immediate;
        int delayMs = 0;
        QString error;
    };
    struct Request {
        enum Kind { Target, Resource } kind = Target;
        QString name;
        TextPlace place;
        QString module;
        TextPlace modulePlace;
        VelaPowerModuleActions::Enum action = VelaPowerModuleActions::hold;
        int atMs = 0;

        // For a timeline: "target active", "resource wifi use by connectivity".
        QString describe() const;
    };

    QHash<QString, Answer> platform;
    QList<Request> requests;
};

/*
 * A graph file as a user writes it in JSON: the graph, and the scenario that
 * runs it. See examples/graphs/ for complete files and vela-power-graph(5)
 * for every key.
 *
 *   GraphFile graph;
 *   GraphFile::Failure failure;
 *   if (!GraphFile::load("handheld.json", &graph, &failure))
 *       std::cerr << failure.message().toStdString();  // "handheld.json:3:7: ..."
 */
struct GraphFile : GraphSpec, Scenario {
    // Why a file was refused: where, along the path of keys to the value
    // ("resources[1].requires[0]"), and what is wrong there.
    struct Failure {
        QString fileName;
        TextPlace place;
        QString where;
        QString what;
        // "file:line:column: where: what" (without the parts not known).
        QString message() const;
    };

    // Whether a valid file's new names become the enumerations' texts (for
    // running the graph: log lines and snapshots then show them), or are
    // only checked against them (for checking a file, which must not leave
    // names behind that a second file would clash with).
    enum class Naming { Register, CheckOnly };

    // Parses and checks a file's bytes; `fileName` only names it in the
    // failure. A file is either taken whole or refused whole: a refused file
    // leaves no names registered with the enumerations.
    static bool parse(const QByteArray& json, const QString& fileName, GraphFile* graph, Failure* failure,
                      Naming naming = Naming::Register);
    // Reads the file and parses it; a file that cannot be read is a failure
    // without a place.
    static bool load(const QString& fileName, GraphFile* graph, Failure* failure, Naming naming = Naming::Register);
};

#endif
