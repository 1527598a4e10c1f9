#ifndef VELA_POWERGRAPH_PLATFORMCALL_H
#define VELA_POWERGRAPH_PLATFORMCALL_H

#include "graphfile.h"

#include "velahash.h"

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

/*
 * A call the library made to the platform: a set-data write to a resource's
 * path, or a revoke message to a module. Whichever platform serves it (the
 * simulated one, or real hardware) reports it, and what became of it, to the
 * run recorder as data; text is made only by the writers.
 *
 *   PlatformCall call = PlatformCall::write(path, key, value);
 *   owners.name(&call);                       // call.resource = "display"
 *   recorder.platformCall(PlatformCall::Arrived, call);
 */
struct PlatformCall {
    enum Kind { Write, Message };
    // What happened to the call: it reached the platform (answered at once
    // when `answeredAtOnce`), was answered later, was refused with `error`,
    // or will never be answered.
    enum Step { Arrived, Answered, Failed, Ignored };

    Kind kind = Write;
    QString path;
    // A write's key and value.
    QString key;
    QVariant value;
    // A revoke message.
    VelaHash message;
    // Set on arrival: the platform answered the call before reporting it
    // further, so no later step follows.
    bool answeredAtOnce = false;
    // Set when it failed: the platform's error message.
    QString error;
    // Who the call concerns, as the graph names them (CallOwners): the
    // resource whose write this is, the module a message is for and whether
    // it is the message after the change. Empty when no one's.
    QString resource;
    QString module;
    bool afterRevoke = false;

    static PlatformCall write(const QString& path, const QString& key, const QVariant& value);
    static PlatformCall revokeMessage(const QString& path, const VelaHash& message);

    // "power = true", or the message with its resources named.
    QString text() const;
    // A message's name on its module's track: "revoke audio, wifi" or
    // "postRevoke audio".
    QString messageName() const;

    // The names of the resources a revoke message names (the message itself
    // carries them as the enumeration's integers).
    static QStringList revokedResources(const VelaHash& message);
    // A revoke message's text with its resources named.
    static QString describe(const VelaHash& message);
};

/*
 * Who owns each call of a graph, found in constant time: the first resource
 * in the graph's order whose enable or disable write it is, and the first
 * module that declares the revoke path messaged.
 */
class CallOwners
{
public:
    explicit CallOwners(const GraphSpec& graph);

    // Fills `call`'s resource, module and afterRevoke.
    void name(PlatformCall* call) const;

private:
    struct Writer {
        QVariant value;
        QString resource;
    };
    struct Recipient {
        QString module;
        bool afterRevoke = false;
    };

    // By path and key, the writes in the graph's order.
    QHash<QString, QVector<Writer>> m_writers;
    QHash<QString, Recipient> m_recipients;
};

#endif
