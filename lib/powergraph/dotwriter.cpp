#include "dotwriter.h"

#include "safetext.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

const char* const DotWriter::requiresStyle = "solid";
const char* const DotWriter::enablesStyle = "bold";
const char* const DotWriter::disablesStyle = "dashed";
const char* const DotWriter::reachableStyle = "dotted";
const char* const DotWriter::enabledColour = "#a5d6a7";
const char* const DotWriter::disabledColour = "#d6d6d6";
const char* const DotWriter::unknownColour = "#ffffff";

namespace {

const char* const requiresColour = "#1f4e9c";
const char* const enablesColour = "#2e7d32";
const char* const disablesColour = "#c62828";
const char* const reachableColour = "#8a8a8a";
// Fill colours without a snapshot: nothing is known about states, so none
// of the state colours.
const char* const plainTargetColour = "#e8eef8";
const char* const plainResourceColour = "#ffffff";
// A target's suffix when a resource has its name, so the two stay two nodes.
const char* const clashingTargetSuffix = " (target)";

// The inside of a DOT quoted string.
QString escaped(const QString& text)
{
    QString result;
    result.reserve(text.size());
    for (const QChar character : text) {
        if (character == QLatin1Char('"') || character == QLatin1Char('\\'))
            result += QLatin1Char('\\');
        result += character;
    }
    return result;
}

QString edge(const QString& from, const QString& to, const char* style, const char* colour, const char* extra = "")
{
    return QStringLiteral("  %1 -> %2 [style=%3 color=\"%4\"%5];\n")
        .arg(DotWriter::quoted(from), DotWriter::quoted(to), QLatin1String(style), QLatin1String(colour),
             QLatin1String(extra));
}

QString legendEdgeRow(const char* colour, const char* line, const char* meaning)
{
    return QStringLiteral("<TR><TD ALIGN=\"LEFT\"><FONT COLOR=\"%1\">%2</FONT></TD><TD ALIGN=\"LEFT\">%3</TD></TR>")
        .arg(QLatin1String(colour), QLatin1String(line), QLatin1String(meaning));
}

QString legendFillRow(const char* colour, const char* meaning)
{
    return QStringLiteral("<TR><TD BGCOLOR=\"%1\" BORDER=\"1\"> </TD><TD ALIGN=\"LEFT\">%2</TD></TR>")
        .arg(QLatin1String(colour), QLatin1String(meaning));
}

} // namespace

DotWriter::DotWriter(const GraphFile& file)
    : m_file(file)
{
}

void DotWriter::setSnapshot(const Snapshot& snapshot)
{
    m_snapshot = snapshot;
    m_hasSnapshot = true;
}

QString DotWriter::quoted(const QString& text)
{
    return QLatin1Char('"') + escaped(text) + QLatin1Char('"');
}

QString DotWriter::resourceId(const QString& name) const
{
    return name;
}

QString DotWriter::targetId(const QString& name) const
{
    return m_file.resource(name) ? name + QLatin1String(clashingTargetSuffix) : name;
}

QString DotWriter::targetEdgeEnd(const GraphFile::Target& target, const QString& name) const
{
    const bool isResource = m_file.resource(name) != nullptr;
    if (GraphSpec::targetEdgeEnd(target, name, isResource) == GraphSpec::EdgeEnd::TargetItself)
        return targetId(name);
    return resourceId(name);
}

QString DotWriter::nodeStatement(const QString& id, const QString& name, const char* shape,
                                 const QHash<QString, NodeState>& states) const
{
    const bool isTarget = qstrcmp(shape, "box") == 0;
    QString label = escaped(name);
    const char* fill = isTarget ? plainTargetColour : plainResourceColour;
    if (m_hasSnapshot) {
        const auto state = states.constFind(name);
        fill = state == states.constEnd() ? unknownColour : state->enabled ? enabledColour : disabledColour;
        if (state != states.constEnd()) {
            for (auto claim = state->claims.constBegin(); claim != state->claims.constEnd(); ++claim)
                label += QLatin1String("\\n") + escaped(claim.key() + QLatin1String(": ") + claim.value());
        }
    }
    return QStringLiteral("  %1 [label=\"%2\" shape=%3 style=\"%4\" fillcolor=\"%5\"];\n")
        .arg(quoted(id), label, QLatin1String(shape),
             isTarget ? QStringLiteral("rounded,filled") : QStringLiteral("filled"), QLatin1String(fill));
}

QString DotWriter::edges() const
{
    QString text;
    for (const GraphFile::Resource& resource : m_file.resources) {
        for (const GraphFile::Reference& required : resource.required)
            text += edge(resourceId(resource.name), resourceId(required.name), requiresStyle, requiresColour);
    }
    for (const GraphFile::Target& target : m_file.targets) {
        const QString from = targetId(target.name);
        for (const GraphFile::Reference& enabled : target.enables)
            text += edge(from, targetEdgeEnd(target, enabled.name), enablesStyle, enablesColour);
        for (const GraphFile::Reference& disabled : target.disables)
            text += edge(from, targetEdgeEnd(target, disabled.name), disablesStyle, disablesColour, " arrowhead=tee");
        // Which target may follow which says nothing about the order of
        // nodes, so it must not pull the targets out of their rank.
        for (const GraphFile::Reference& next : target.reachable)
            text += edge(from, targetId(next.name), reachableStyle, reachableColour, " arrowhead=vee constraint=false");
    }
    return text;
}

QString DotWriter::legend(bool withStates)
{
    QString rows = QStringLiteral("<TR><TD COLSPAN=\"2\" ALIGN=\"LEFT\"><B>Legend</B></TD></TR>");
    rows += legendEdgeRow(requiresColour, "&#9472;&#9472;&#9472;&#9472;&#9654;", "requires (solid)");
    rows += legendEdgeRow(enablesColour, "<B>&#9473;&#9473;&#9473;&#9473;&#9654;</B>", "enables (bold)");
    rows += legendEdgeRow(disablesColour, "&#9548;&#9548;&#9548;&#9548;&#9508;", "disables (dashed)");
    rows += legendEdgeRow(reachableColour, "&#9480;&#9480;&#9480;&#9480;&gt;", "reachable next target (dotted)");
    rows += QStringLiteral("<TR><TD ALIGN=\"LEFT\">rounded box</TD><TD ALIGN=\"LEFT\">target</TD></TR>"
                           "<TR><TD ALIGN=\"LEFT\">ellipse</TD><TD ALIGN=\"LEFT\">resource</TD></TR>");
    if (withStates) {
        rows += legendFillRow(enabledColour, "enabled");
        rows += legendFillRow(disabledColour, "disabled or never switched");
        rows += legendFillRow(unknownColour, "not in the snapshot");
        rows += QStringLiteral("<TR><TD ALIGN=\"LEFT\">module: action</TD><TD ALIGN=\"LEFT\">a module's hold or "
                               "use claim</TD></TR>");
    }
    return QStringLiteral("<<TABLE BORDER=\"0\" CELLBORDER=\"0\" CELLSPACING=\"2\">%1</TABLE>>").arg(rows);
}

QString DotWriter::dot() const
{
    // Left to right: the targets form the first column and each requires
    // chain reads rightwards, which keeps a few hundred nodes legible where
    // a top-down picture grows too wide to read.
    QString text = QStringLiteral("digraph \"power graph\" {\n"
                                  "  graph [rankdir=LR newrank=true nodesep=0.25 ranksep=0.9 fontname=\"Helvetica\" "
                                  "fontsize=11 labelloc=b labeljust=l label=%1];\n"
                                  "  node [fontname=\"Helvetica\" fontsize=11 margin=\"0.08,0.03\"];\n"
                                  "  edge [arrowsize=0.7];\n")
                       .arg(legend(m_hasSnapshot));
    text += QStringLiteral("  subgraph targets {\n    rank=same;\n");
    for (const GraphFile::Target& target : m_file.targets)
        text += QLatin1String("  ") + nodeStatement(targetId(target.name), target.name, "box", m_snapshot.targets);
    text += QStringLiteral("  }\n");
    for (const GraphFile::Resource& resource : m_file.resources)
        text += nodeStatement(resourceId(resource.name), resource.name, "ellipse", m_snapshot.resources);
    return text + edges() + QStringLiteral("}\n");
}

namespace {

} // namespace
