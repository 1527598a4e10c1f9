#include "snapshot.h"

#include "safetext.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

bool readNodeStates(const QJsonObject& nodes, const QString& kind, QHash<QString, GraphSnapshot::NodeState>* states,
                    QString* problem)
{
    for (auto node = nodes.constBegin(); node != nodes.constEnd(); ++node) {
        const QJsonObject entry = node.value().toObject();
        if (!node.value().isObject() || !entry.value(QLatin1String("isEnabled")).isBool() ||
            !entry.value(QLatin1String("actions")).isObject()) {
            *problem = QStringLiteral("%1 %2 needs \"isEnabled\" (true or false) and \"actions\" (an object)")
                           .arg(kind, SafeText::quoted(node.key()));
            return false;
        }
        GraphSnapshot::NodeState state;
        state.enabled = entry.value(QLatin1String("isEnabled")).toBool();
        const QJsonObject actions = entry.value(QLatin1String("actions")).toObject();
        for (auto action = actions.constBegin(); action != actions.constEnd(); ++action) {
            // A module that released a node no longer claims it.
            if (action.value().toString() != QLatin1String("release"))
                state.claims.insert(action.key(), action.value().toString());
        }
        states->insert(node.key(), state);
    }
    return true;
}

} // namespace

bool GraphSnapshot::read(const QByteArray& json, GraphSnapshot* snapshot, QString* problem)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError) {
        *problem = QStringLiteral("not JSON: %1 at offset %2").arg(error.errorString()).arg(error.offset);
        return false;
    }
    const QJsonObject root = document.object();
    if (!root.value(QLatin1String("targets")).isObject() || !root.value(QLatin1String("resources")).isObject()) {
        *problem = QStringLiteral("a snapshot is an object with \"targets\" and \"resources\" objects");
        return false;
    }
    return readNodeStates(root.value(QLatin1String("targets")).toObject(), QStringLiteral("target"), &snapshot->targets,
                          problem) &&
           readNodeStates(root.value(QLatin1String("resources")).toObject(), QStringLiteral("resource"),
                          &snapshot->resources, problem);
}

namespace {

// `value` with every hash in it made a map: a JSON object takes its keys in
// order at no cost, and in any other order at the cost of moving every key
// after the new one (quadratic for a graph of 100,000 resources).
QVariant sorted(const QVariant& value)
{
    if (value.userType() != QMetaType::QVariantHash)
        return value;
    const QVariantHash hash = value.toHash();
    QVariantMap map;
    for (auto entry = hash.constBegin(); entry != hash.constEnd(); ++entry)
        map.insert(entry.key(), sorted(entry.value()));
    return map;
}

} // namespace

QVariantMap GraphSnapshot::toMap(const QVariantHash& nodes)
{
    return sorted(nodes).toMap();
}

QByteArray GraphSnapshot::json(const QVariantHash& nodes)
{
    return QJsonDocument(QJsonObject::fromVariantMap(toMap(nodes))).toJson(QJsonDocument::Indented);
}
