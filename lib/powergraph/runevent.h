#ifndef VELA_POWERGRAPH_RUNEVENT_H
#define VELA_POWERGRAPH_RUNEVENT_H

#include <QString>
#include <QTypeInfo>
#include <QtGlobal>

/*
 * One thing that happened in a run, with the time since the run started in
 * microseconds. The kind is typed; its name ("write", "state", ...) is made
 * only where text is written, from one table (RunEvent::kindName).
 */
struct RunEvent {
    enum class Kind {
        Request, // a request sent; subject "#1"
        Answer, // its answer
        Reason, // why it was refused, in plain words
        Signal, // nextTargetChanged or targetChanged
        Write, // a set-data write reached the platform; subject its path
        Message, // a revoke message reached the platform
        Answered, // the platform answered a call late
        Fails, // the platform refused a call
        Ignored, // the platform will never answer a call
        State, // a node entered a state; subject the node
        Error, // a record of the library at ERROR
        Fatal, // a record of the library at FATAL
        Log, // another record of the library, when shown
        Skipped, // an edge of the file not given to the library
        Snapshot, // the state of all nodes, asked for by hand
    };

    qint64 timeUs = 0;
    Kind kind = Kind::Log;
    // Who or what it is about (a request "#1", a node, a path, a signal),
    // and the rest of what happened.
    QString subject;
    QString detail;
    // The span this event opens or closes; 0 for none.
    int beginsSpan = 0;
    int endsSpan = 0;

    // "request", "answer", "reason", ...: the name the timeline and the
    // events file give the kind.
    static QString kindName(Kind kind);
    static const char* kindText(Kind kind);
    // The kind of a name kindName() gives; false for any other text.
    static bool kindOfName(const QString& name, Kind* kind);
};
// Moved, not copied, when a vector of events grows.
Q_DECLARE_TYPEINFO(RunEvent, Q_MOVABLE_TYPE);

#endif
