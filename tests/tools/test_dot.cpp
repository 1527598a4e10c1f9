// vela-power dot: Graphviz accepts the picture; one DOT node per graph node
// and one edge per edge in its kind's style; a snapshot colours the nodes;
// SVG and PNG drawn by Graphviz; names escaped; a large graph keeps its
// targets in one rank and its requires chains in dependency order.

#include "toolrun.h"

#include "dotwriter.h"
#include "graphfile.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <QXmlStreamReader>

#include <gtest/gtest.h>

namespace {

struct GraphvizRun {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// Hands `input` to Graphviz's dot program with `arguments`.
GraphvizRun graphviz(const QStringList& arguments, const QByteArray& input)
{
    QProcess process;
    process.start(QStringLiteral("dot"), arguments);
    GraphvizRun run;
    if (!process.waitForStarted())
        return run;
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000))
        return run;
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

// A DOT text as Graphviz reads it: node attributes by node name, and edges.
struct ParsedDot {
    QHash<QString, QJsonObject> nodes;
    QStringList edges; // "tail -> head: style"
    QJsonArray subgraphs;
};

ParsedDot parseDot(const QByteArray& dot, const char* format = "-Tdot_json")
{
    const GraphvizRun run = graphviz({QString::fromLatin1(format)}, dot);
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonObject root = QJsonDocument::fromJson(run.out).object();
    ParsedDot parsed;
    const QJsonArray objects = root.value("objects").toArray();
    const int subgraphCount = root.value("_subgraph_cnt").toInt();
    QHash<int, QString> names;
    for (int index = 0; index < objects.size(); ++index) {
        const QJsonObject object = objects.at(index).toObject();
        if (index < subgraphCount) {
            parsed.subgraphs.append(object);
            continue;
        }
        names.insert(object.value("_gvid").toInt(), object.value("name").toString());
        parsed.nodes.insert(object.value("name").toString(), object);
    }
    for (const QJsonValue& value : root.value("edges").toArray()) {
        const QJsonObject edge = value.toObject();
        parsed.edges.append(QStringLiteral("%1 -> %2: %3")
                                .arg(names.value(edge.value("tail").toInt()), names.value(edge.value("head").toInt()),
                                     edge.value("style").toString()));
    }
    parsed.edges.sort();
    return parsed;
}

GraphFile loadGraph(const QString& fileName)
{
    GraphFile file;
    GraphFile::Failure failure;
    EXPECT_TRUE(GraphFile::load(fileName, &file, &failure, GraphFile::Naming::CheckOnly))
        << failure.message().toStdString();
    return file;
}

// The edges the file writes, in the form parseDot gives them.
QStringList expectedEdges(const GraphFile& file)
{
    QStringList edges;
    auto add = [&edges](const QString& from, const QString& to, const char* style) {
        edges.append(QStringLiteral("%1 -> %2: %3").arg(from, to, QLatin1String(style)));
    };
    for (const GraphFile::Resource& resource : file.resources) {
        for (const GraphFile::Reference& required : resource.required)
            add(resource.name, required.name, DotWriter::requiresStyle);
    }
    for (const GraphFile::Target& target : file.targets) {
        for (const GraphFile::Reference& enabled : target.enables)
            add(target.name, enabled.name, DotWriter::enablesStyle);
        for (const GraphFile::Reference& disabled : target.disables)
            add(target.name, disabled.name, DotWriter::disablesStyle);
        for (const GraphFile::Reference& next : target.reachable)
            add(target.name, next.name, DotWriter::reachableStyle);
    }
    edges.sort();
    return edges;
}

QSet<QString> nodeNames(const GraphFile& file)
{
    QSet<QString> names;
    for (const GraphFile::Resource& resource : file.resources)
        names.insert(resource.name);
    for (const GraphFile::Target& target : file.targets)
        names.insert(target.name);
    return names;
}

QByteArray dotOf(const QStringList& arguments)
{
    const ToolRun run = runTool(QStringList{"dot"} + arguments);
    EXPECT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    return run.out;
}

// The texts of the `element` elements inside the node groups of an SVG
// (<g class="node"><title>NAME</title>...<text>LABEL</text></g>); fails the
// test when the SVG is not well-formed XML.
QStringList svgNodeTexts(const QByteArray& svg, const char* element)
{
    QStringList texts;
    QXmlStreamReader reader(svg);
    bool inNode = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && reader.name() == QLatin1String("g"))
            inNode = reader.attributes().value("class") == QLatin1String("node");
        else if (inNode && reader.isStartElement() && reader.name() == QLatin1String(element))
            texts.append(reader.readElementText());
    }
    EXPECT_FALSE(reader.hasError()) << reader.errorString().toStdString() << " at line " << reader.lineNumber();
    return texts;
}

QSet<QString> toSet(const QStringList& list)
{
    return QSet<QString>(list.begin(), list.end());
}

QByteArray readFile(const QString& fileName)
{
    QFile file(fileName);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << fileName.toStdString();
    return file.readAll();
}

} // namespace

TEST(Dot, ExampleIsAcceptedByGraphviz)
{
    VELA_REQUIRE_DRAWING_PROGRAM("dot");
    const QByteArray dot = dotOf({shippedExample()});
    const GraphvizRun svg = graphviz({"-Tsvg"}, dot);
    EXPECT_EQ(svg.exitCode, 0) << svg.err.toStdString();
    EXPECT_TRUE(svg.err.isEmpty()) << "Graphviz warns: " << svg.err.toStdString();
    EXPECT_TRUE(svg.out.contains("<svg")) << svg.out.left(200).toStdString();
}

TEST(Dot, OneDotNodePerGraphNode)
{
    VELA_REQUIRE_DRAWING_PROGRAM("dot");
    const GraphFile file = loadGraph(shippedExample());
    const ParsedDot dot = parseDot(dotOf({shippedExample()}));
    EXPECT_EQ(toSet(dot.nodes.keys()), nodeNames(file));
    EXPECT_EQ(dot.nodes.size(), file.resources.size() + file.targets.size());
    EXPECT_EQ(dot.nodes.value("active").value("shape").toString(), "box");
    EXPECT_EQ(dot.nodes.value("display").value("shape").toString(), "ellipse");
}

TEST(Dot, OneEdgePerEdgeInTheStyleOfItsKind)
{
    VELA_REQUIRE_DRAWING_PROGRAM("dot");
    const ParsedDot dot = parseDot(dotOf({shippedExample()}));
    const QStringList expected = expectedEdges(loadGraph(shippedExample()));
    EXPECT_EQ(dot.edges, expected);
    EXPECT_TRUE(expected.contains("display -> backlight: solid"));
    EXPECT_TRUE(expected.contains("active -> display: bold"));
    EXPECT_TRUE(expected.contains("standby -> camera: dashed"));
    EXPECT_TRUE(expected.contains("active -> standby: dotted"));
}

TEST(Dot, TargetsShareOneRank)
{
    VELA_REQUIRE_DRAWING_PROGRAM("dot");
    const ParsedDot dot = parseDot(dotOf({shippedExample()}));
    ASSERT_EQ(dot.subgraphs.size(), 1);
    const QJsonObject rank = dot.subgraphs.at(0).toObject();
    EXPECT_EQ(rank.value("rank").toString(), "same");
    QSet<QString> members;
    for (const QJsonValue& id : rank.value("nodes").toArray()) {
        for (const QJsonObject& node : dot.nodes) {
            if (node.value("_gvid").toInt() == id.toInt())
                members.insert(node.value("name").toString());
        }
    }
    EXPECT_EQ(members, (QSet<QString>{"active", "standby", "suspend", "off"}));
}

TEST(Dot, SnapshotColoursEnabledNodesAndNamesTheirClaims)
{
    VELA_REQUIRE_DRAWING_PROGRAM("dot");
    const ParsedDot dot = parseDot(dotOf({"--snapshot", dataFile("dot/handheld_snapshot.json"), shippedExample()}));
    const QSet<QString> enabled{"active", "display", "backlight", "touch", "storage", "audio", "wifi"};
    ASSERT_EQ(dot.nodes.size(), 11);
    for (auto node = dot.nodes.constBegin(); node != dot.nodes.constEnd(); ++node) {
        const QString fill = node.value().value("fillcolor").toString();
        if (enabled.contains(node.key()))
            EXPECT_EQ(fill, DotWriter::enabledColour) << node.key().toStdString();
        else
            EXPECT_EQ(fill, DotWriter::disabledColour) << node.key().toStdString();
    }
    // Claims beside the name; a module that released the node is no claim.
    EXPECT_EQ(dot.nodes.value("audio").value("label").toString(), "audio\\nmedia: use");
    EXPECT_EQ(dot.nodes.value("wifi").value("label").toString(), "wifi\\nconnectivity: use");
    EXPECT_EQ(dot.nodes.value("camera").value("label").toString(), "camera");
}

TEST(Dot, SnapshotThatIsNoSnapshotIsRefused)
{
    const ToolRun run = runTool({"dot", "--snapshot", shippedExample(), shippedExample()});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains("a snapshot is an object with \"targets\" and \"resources\" objects"))
        << run.err.toStdString();
}

TEST(Dot, SvgIsValidXmlWithOneNodeGroupPerGraphNode)
{
    VELA_REQUIRE_DRAWING_PROGRAM("dot");
    QTemporaryDir dir;
    const QString svg = dir.filePath("graph.svg");
    const ToolRun run = runTool({"dot", "-o", svg, shippedExample()});
    ASSERT_TRUE(run.finishedNormally);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QStringList titles = svgNodeTexts(readFile(svg), "title");
    EXPECT_EQ(titles.size(), 11);
    EXPECT_EQ(toSet(titles), nodeNames(loadGraph(shippedExample())));
}

TEST(Dot, PngIsDrawn)
{
    VELA_REQUIRE_DRAWING_PROGRAM("dot");
    QTemporaryDir dir;
    const QString png = dir.filePath("graph.png");
    const ToolRun run = runTool({"dot", "--snapshot", dataFile("dot/handheld_snapshot.json"), "-o", png,
                                 shippedExample()});
    ASSERT_TRUE(run.finishedNormally);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(readFile(png).startsWith("\x89PNG\r\n\x1a\n"));
}

TEST(Dot, DotFileIsTheSameAsStandardOutput)
{
    QTemporaryDir dir;
    const QString dotFile = dir.filePath("graph.dot");
    const ToolRun run = runTool({"dot", "-o", dotFile, shippedExample()});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(readFile(dotFile), dotOf({shippedExample()}));
}

TEST(Dot, UnknownPictureFormatIsACommandLineError)
{
    const ToolRun run = runTool({"dot", "-o", "graph.jpeg", shippedExample()});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains("-o takes a file ending in .dot, .gv, .svg or .png")) << run.err.toStdString();
}

TEST(Dot, MissingGraphvizIsAClearError)
{
    QTemporaryDir dir;
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("PATH", dir.path());
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(VELA_POWER_PROGRAM), {"dot", "-o", dir.filePath("graph.svg"), shippedExample()});
    ASSERT_TRUE(process.waitForFinished(60000));
    EXPECT_EQ(process.exitCode(), 1);
    const QByteArray err = process.readAllStandardError();
    EXPECT_TRUE(err.startsWith("vela-power dot: cannot start Graphviz's dot program")) << err.toStdString();
    EXPECT_TRUE(err.contains("install graphviz")) << err.toStdString();
    EXPECT_FALSE(QFile::exists(dir.filePath("graph.svg")));
}

TEST(Dot, QuotesAndBackslashesInNamesAreDrawnAsWritten)
{
    VELA_REQUIRE_DRAWING_PROGRAM("dot");
    const QString fileName = dataFile("dot/awkward_names.json");
    const GraphFile file = loadGraph(fileName);
    const QByteArray dot = dotOf({fileName});
    EXPECT_EQ(parseDot(dot).edges.size(), expectedEdges(file).size());
    const GraphvizRun svg = graphviz({"-Tsvg"}, dot);
    ASSERT_EQ(svg.exitCode, 0) << svg.err.toStdString();
    EXPECT_EQ(toSet(svgNodeTexts(svg.out, "text")), nodeNames(file));
}

namespace {

// A graph of `chains` requires chains of `depth` resources each, and
// `targetCount` targets that enable the chains' heads and disable others.
QByteArray largeGraph(int chains, int depth, int targetCount)
{
    QJsonArray resources;
    for (int chain = 0; chain < chains; ++chain) {
        for (int link = 0; link < depth; ++link) {
            QJsonObject resource{{"name", QStringLiteral("r%1_%2").arg(chain).arg(link)}};
            if (link + 1 < depth)
                resource.insert("requires", QJsonArray{QStringLiteral("r%1_%2").arg(chain).arg(link + 1)});
            resources.append(resource);
        }
    }
    QJsonArray targets;
    for (int target = 0; target < targetCount; ++target) {
        QJsonArray enables;
        QJsonArray disables;
        for (int chain = 0; chain < chains; ++chain)
            (chain % targetCount == target ? enables : disables).append(QStringLiteral("r%1_0").arg(chain));
        targets.append(QJsonObject{{"name", QStringLiteral("t%1").arg(target)},
                                   {"enables", enables},
                                   {"disables", disables},
                                   {"reachable", QJsonArray{QStringLiteral("t%1").arg((target + 1) % targetCount)}}});
    }
    return QJsonDocument(QJsonObject{{"resources", resources}, {"targets", targets}}).toJson();
}

double xOf(const QJsonObject& node)
{
    return node.value("pos").toString().section(',', 0, 0).toDouble();
}

} // namespace

TEST(Dot, LargeGraphHasItsTargetsInOneRankAndItsChainsInDependencyOrder)
{
    VELA_REQUIRE_DRAWING_PROGRAM("dot");
    QTemporaryDir dir;
    const QString fileName = dir.filePath("large.json");
    QFile json(fileName);
    ASSERT_TRUE(json.open(QIODevice::WriteOnly));
    json.write(largeGraph(38, 5, 10));
    json.close();
    const ParsedDot laidOut = parseDot(dotOf({fileName}), "-Tjson");
    ASSERT_EQ(laidOut.nodes.size(), 200);
    QSet<double> targetColumns;
    for (int target = 0; target < 10; ++target)
        targetColumns.insert(xOf(laidOut.nodes.value(QStringLiteral("t%1").arg(target))));
    EXPECT_EQ(targetColumns.size(), 1) << "targets spread over several ranks";
    // Left to right: each resource stands left of what it requires, all of
    // them right of the targets.
    for (int chain = 0; chain < 38; ++chain) {
        double previous = *targetColumns.constBegin();
        for (int link = 0; link < 5; ++link) {
            const double x = xOf(laidOut.nodes.value(QStringLiteral("r%1_%2").arg(chain).arg(link)));
            EXPECT_GT(x, previous) << "r" << chain << "_" << link;
            previous = x;
        }
    }
}

TEST(Dot, SnapshotWrittenByRunColoursItsEnabledNodes)
{
    VELA_REQUIRE_DRAWING_PROGRAM("dot");
    QTemporaryDir dir;
    const QString snapshotFile = dir.filePath("snapshot.json");
    const ToolRun run = runTool({"run", "--snapshot", snapshotFile, shippedExample()});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QJsonObject snapshot = QJsonDocument::fromJson(readFile(snapshotFile)).object();
    const ParsedDot dot = parseDot(dotOf({"--snapshot", snapshotFile, shippedExample()}));
    int enabled = 0;
    for (const char* kind : {"targets", "resources"}) {
        const QJsonObject nodes = snapshot.value(kind).toObject();
        for (auto node = nodes.constBegin(); node != nodes.constEnd(); ++node) {
            const bool isEnabled = node.value().toObject().value("isEnabled").toBool();
            enabled += int(isEnabled);
            EXPECT_EQ(dot.nodes.value(node.key()).value("fillcolor").toString(),
                      isEnabled ? DotWriter::enabledColour : DotWriter::disabledColour)
                << node.key().toStdString();
        }
    }
    EXPECT_GT(enabled, 0) << "a snapshot with nothing enabled shows no colour";
}
