// vela-power verify: checks graph files without running them.

#include "commandline.h"
#include "exitcodes.h"
#include "graphfile.h"
#include "graphverifier.h"
#include "verbs.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <iostream>

namespace {

struct FileReport {
    QString fileName;
    bool loaded = false;
    GraphFile::Failure failure;
    QList<Finding> findings;
};

struct Totals {
    int errors = 0;
    int warnings = 0;
    int invalidFiles = 0;
};

FileReport verifyFile(const QString& fileName)
{
    FileReport report;
    report.fileName = fileName;
    GraphFile graph;
    report.loaded = GraphFile::load(fileName, &graph, &report.failure, GraphFile::Naming::CheckOnly);
    if (report.loaded)
        report.findings = GraphVerifier(graph).findings();
    return report;
}

void count(const FileReport& report, Totals* totals)
{
    totals->invalidFiles += report.loaded ? 0 : 1;
    for (const Finding& finding : report.findings)
        ++(finding.severity == Finding::Error ? totals->errors : totals->warnings);
}

void printText(const QList<FileReport>& reports, const Totals& totals)
{
    for (const FileReport& report : reports) {
        if (!report.loaded) {
            std::cout << report.failure.message().toStdString() << "\n";
            continue;
        }
        for (const Finding& finding : report.findings) {
            std::cout << QStringLiteral("%1:%2:%3: %4: %5: %6 [%7]\n")
                             .arg(report.fileName)
                             .arg(finding.place.line)
                             .arg(finding.place.column)
                             .arg(Finding::severityName(finding.severity), finding.code, finding.message,
                                  finding.nodes.join(QStringLiteral(", ")))
                             .toStdString();
        }
    }
    std::cout << totals.errors << (totals.errors == 1 ? " error, " : " errors, ") << totals.warnings
              << (totals.warnings == 1 ? " warning" : " warnings");
    if (totals.invalidFiles > 0)
        std::cout << ", " << totals.invalidFiles << (totals.invalidFiles == 1 ? " file" : " files")
                  << " not a valid graph";
    std::cout << std::endl;
}

QJsonObject findingJson(const Finding& finding)
{
    return QJsonObject{{"severity", Finding::severityName(finding.severity)},
                       {"code", finding.code},
                       {"nodes", QJsonArray::fromStringList(finding.nodes)},
                       {"line", finding.place.line},
                       {"column", finding.place.column},
                       {"message", finding.message}};
}

void printJson(const QList<FileReport>& reports, const Totals& totals)
{
    QJsonArray files;
    for (const FileReport& report : reports) {
        QJsonArray findings;
        for (const Finding& finding : report.findings)
            findings.append(findingJson(finding));
        QJsonObject file{{"file", report.fileName}, {"findings", findings}};
        if (!report.loaded)
            file.insert("invalid", QJsonObject{{"line", report.failure.place.line},
                                               {"column", report.failure.place.column},
                                               {"message", report.failure.message()}});
        files.append(file);
    }
    const QJsonObject root{{"files", files},
                           {"errors", totals.errors},
                           {"warnings", totals.warnings},
                           {"invalidFiles", totals.invalidFiles}};
    std::cout << QJsonDocument(root).toJson(QJsonDocument::Indented).toStdString();
}

} // namespace

int verbVerify(const QStringList& arguments)
{
    CommandLine line(QStringLiteral("verify"), QStringLiteral("GRAPH..."),
                     QStringLiteral("Checks graph files without running them. Each finding has a severity, a code, "
                                    "the names involved, its place in the file and a message."));
    const QCommandLineOption strictOption(QStringLiteral("strict"), QStringLiteral("Fail on warnings too."));
    line.addFormatOption();
    line.parser().addOption(strictOption);
    line.parser().addPositionalArgument(QStringLiteral("GRAPH"), QStringLiteral("Graph files (JSON)."),
                                        QStringLiteral("GRAPH..."));
    int exitCode = ExitCodes::Success;
    if (!line.parse(arguments, &exitCode))
        return exitCode;
    const QStringList files = line.parser().positionalArguments();
    if (files.isEmpty())
        return line.usageError(QStringLiteral("no graph file given"));

    QList<FileReport> reports;
    Totals totals;
    for (const QString& file : files) {
        reports.append(verifyFile(file));
        count(reports.last(), &totals);
    }
    if (line.isJson())
        printJson(reports, totals);
    else
        printText(reports, totals);

    if (totals.invalidFiles > 0)
        return ExitCodes::InvalidInput;
    const bool failed = totals.errors > 0 || (line.parser().isSet(strictOption) && totals.warnings > 0);
    return failed ? ExitCodes::Problems : ExitCodes::Success;
}
