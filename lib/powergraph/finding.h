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

    Severity severity = Error;
    QString code;
    QStringList nodes;
    TextPlace place;
    QString message;

    static QString severityName(Severity severity) { return severity == Error ? "error" : "warning"; }
};

#endif
