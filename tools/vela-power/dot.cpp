// vela-power dot: a graph file as a Graphviz picture, optionally coloured by
// the node states of a run's snapshot; DOT text, or SVG and PNG drawn by
// Graphviz's own dot program.

#include "commandline.h"
#include "dotwriter.h"
#include "exitcodes.h"
#include "graphfile.h"
#include "graphinput.h"
#include "safetext.h"
#include "verbs.h"
#include "wholefile.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <iostream>

namespace {

// Graphviz lays out a few hundred nodes in well under a second; only a hung
// program reaches this.
constexpr int renderLimitMs = 120000;

const char* const graphvizProgram = "dot";

bool readSnapshotFile(const QString& fileName, DotWriter::Snapshot* snapshot, QString* problem)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        *problem = QStringLiteral("%1: cannot read: %2").arg(fileName, file.errorString());
        return false;
    }
    if (GraphSnapshot::read(file.readAll(), snapshot, problem))
        return true;
    *problem = fileName + QLatin1String(": ") + *problem;
    return false;
}

// Names of the snapshot that the graph does not have: a snapshot of another
// graph colours nothing, which the user should hear about.
QStringList strangers(const DotWriter::Snapshot& snapshot, const GraphFile& file)
{
    QStringList names;
    for (auto it = snapshot.resources.constBegin(); it != snapshot.resources.constEnd(); ++it) {
        if (!file.resource(it.key()))
            names.append(SafeText::quoted(it.key()));
    }
    for (auto it = snapshot.targets.constBegin(); it != snapshot.targets.constEnd(); ++it) {
        if (!file.target(it.key()))
            names.append(SafeText::quoted(it.key()));
    }
    names.sort();
    return names;
}

bool writeFile(const QString& fileName, const QByteArray& bytes, QString* problem)
{
    QString reason;
    if (writeWholeFile(fileName, bytes, &reason))
        return true;
    *problem = QStringLiteral("%1: cannot write: %2").arg(fileName, reason);
    return false;
}

// Has Graphviz draw `dot` as `format` (svg or png) into `fileName`.
bool render(const QByteArray& dot, const QString& format, const QString& fileName, QString* problem)
{
    QProcess graphviz;
    graphviz.start(QLatin1String(graphvizProgram), {QStringLiteral("-T") + format, QStringLiteral("-o"), fileName});
    if (!graphviz.waitForStarted()) {
        *problem = QStringLiteral("cannot start Graphviz's dot program (%1); install graphviz "
                                  "(scripts/setup-deps.sh), or write DOT text with -o FILE.dot")
                       .arg(graphviz.errorString());
        return false;
    }
    graphviz.write(dot);
    graphviz.closeWriteChannel();
    if (!graphviz.waitForFinished(renderLimitMs)) {
        graphviz.kill();
        graphviz.waitForFinished();
        *problem = QStringLiteral("Graphviz's dot program did not finish within %1 s").arg(renderLimitMs / 1000);
        return false;
    }
    if (graphviz.exitStatus() != QProcess::NormalExit || graphviz.exitCode() != 0) {
        *problem = QStringLiteral("Graphviz's dot program failed (exit %1): %2")
                       .arg(graphviz.exitCode())
                       .arg(QString::fromLocal8Bit(graphviz.readAllStandardError()).trimmed());
        return false;
    }
    return true;
}

// Writes the picture where `output` says, in the format its suffix names;
// standard output gets DOT text.
bool writePicture(const QByteArray& dot, const QString& output, QString* problem)
{
    if (output.isEmpty()) {
        std::cout << dot.toStdString();
        return bool(std::cout.flush());
    }
    const QString suffix = QFileInfo(output).suffix().toLower();
    if (suffix == QLatin1String("dot") || suffix == QLatin1String("gv"))
        return writeFile(output, dot, problem);
    return render(dot, suffix, output, problem);
}

bool isKnownOutput(const QString& output)
{
    const QString suffix = QFileInfo(output).suffix().toLower();
    return output.isEmpty() || suffix == QLatin1String("dot") || suffix == QLatin1String("gv") ||
           suffix == QLatin1String("svg") || suffix == QLatin1String("png");
}

} // namespace

int verbDot(const QStringList& arguments)
{
    CommandLine line(QStringLiteral("dot"), QStringLiteral("GRAPH"),
                     QStringLiteral("Draws a graph file with Graphviz: targets as rounded boxes, resources as "
                                    "ellipses, requires, enables, disables and reachable edges each in a style of "
                                    "its own, with a legend. Given a snapshot (the final state of a run), nodes are "
                                    "coloured by their state and labelled with the modules that claim them."));
    const QCommandLineOption snapshotOption(QStringLiteral("snapshot"),
                                            QStringLiteral("Colour the nodes by the states in <file> (the JSON "
                                                           "snapshot of a run)."),
                                            QStringLiteral("file"));
    const QCommandLineOption outputOption(
        {QStringLiteral("o"), QStringLiteral("output")},
        QStringLiteral("Write to <file>: .dot (DOT text), .svg or .png (drawn by Graphviz's dot program). Without "
                       "it, DOT text goes to standard output."),
        QStringLiteral("file"));
    line.parser().addOptions({snapshotOption, outputOption});
    line.parser().addPositionalArgument(QStringLiteral("GRAPH"), QStringLiteral("The graph file (JSON)."));
    int exitCode = ExitCodes::Success;
    QString fileName;
    if (!line.parseWithOneGraph(arguments, &exitCode, &fileName))
        return exitCode;
    const QString output = line.parser().value(outputOption);
    if (!isKnownOutput(output))
        return line.usageError(QStringLiteral("-o takes a file ending in .dot, .gv, .svg or .png"));
    GraphFile file;
    if (!loadGraphFile(line, fileName, &file, &exitCode))
        return exitCode;

    DotWriter writer(file);
    QString problem;
    if (line.parser().isSet(snapshotOption)) {
        DotWriter::Snapshot snapshot;
        if (!readSnapshotFile(line.parser().value(snapshotOption), &snapshot, &problem)) {
            std::cerr << "vela-power dot: " << problem.toStdString() << std::endl;
            return ExitCodes::InvalidInput;
        }
        const QStringList unknown = strangers(snapshot, file);
        if (!unknown.isEmpty())
            std::cerr << "vela-power dot: the snapshot names nodes the graph does not have: "
                      << unknown.join(QStringLiteral(", ")).toStdString() << std::endl;
        writer.setSnapshot(snapshot);
    }
    if (!writePicture(writer.dot().toUtf8(), output, &problem)) {
        std::cerr << "vela-power dot: " << problem.toStdString() << std::endl;
        return ExitCodes::Problems;
    }
    return ExitCodes::Success;
}
