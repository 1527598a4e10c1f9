#ifndef VELA_POWERGRAPH_FINDING_H
#define VELA_POWERGRAPH_FINDING_H

#include "jsonnode.h"

#include <QString>
#include <QStringList>

// One thing `verify` has to say about a graph file: how bad it is, a code
// that stays the same from release to release (scripts match on it), the
// names involved, where in the file, and a sentence for a person.
struct Finding {
    enum Severity { Error, Warning };
    enum class Code {
        SelfEdge,
        Cycle,
        EnableDisableConflict,
        SelfReference,
        UnregisteredModule,
        UnreachableTarget,
        BlockedTarget,
        UntouchedResource,
        SilentUse,
        NameClash,
        DuplicateEntry,
        DormantClaim,
        MissingControl,
        InvalidControl,
        NoControls,
        UnusedControl,
    };
    // A row of the table of codes: every code, its severity and what it
    // means in one line (the graph file's manual page lists the same table).
    struct Kind {
        Code code;
        const char* name;
        Severity severity;
        const char* meaning;
    };

    Severity severity = Error;
    QString code;
    QStringList nodes;
    TextPlace place;
    QString message;

    static Finding make(Code code, const QStringList& nodes, const TextPlace& place, const QString& message);
    // The whole table, in the order of Code.
    static const Kind* kinds(int* count);
    static const Kind& kind(Code code);
    static QString severityName(Severity severity) { return severity == Error ? "error" : "warning"; }
};

#endif
