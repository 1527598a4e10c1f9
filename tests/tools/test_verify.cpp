// vela-power verify on one small broken graph per finding code, on the
// shipped example and on files that are not valid graphs: the exact
// findings (severity, code, names, line, column, message) in JSON and in
// text, and the exit codes.

#include "toolrun.h"

#include <QFileInfo>
#include <QJsonArray>

#include <gtest/gtest.h>

#include <ostream>
#include <vector>

namespace {

struct ExpectedFinding {
    const char* severity;
    const char* code;
    QStringList nodes;
    int line;
    int column;
    const char* message;
};

struct BrokenGraph {
    const char* file;
    std::vector<ExpectedFinding> findings;
};

void PrintTo(const BrokenGraph& graph, std::ostream* out)
{
    *out << graph.file;
}

const BrokenGraph kBrokenGraphs[] = {
    {"self_edge.json", {{"error", "self-edge", {"lamp"}, 2, 36, "lamp requires itself"}}},
    {"cycle.json", {{"error", "cycle", {"a", "b", "c"}, 4, 33, "requires edges form a cycle: a -> b -> c -> a"}}},
    {"enable_disable_conflict.json",
     {{"error",
       "enable-disable-conflict",
       {"display-off", "pd_vio", "pd_vopb"},
       5,
       43,
       "display-off disables pd_vio, but pd_vopb, which it enables, requires pd_vio; the library refuses: \"Tried "
       "to make power target display-off disable node pd_vio, but it already enables that node.\""}}},
    {"self_reference.json",
     {{"warning",
       "self-reference",
       {"idle"},
       2,
       37,
       "idle lists itself as reachable: a target is never switched to from itself, so the entry means nothing"},
      {"warning", "self-reference", {"busy"}, 3, 35, "busy enables itself: the library drops that edge"}}},
    {"unregistered_module.json",
     {{"warning",
       "unregistered-module",
       {"media", "audio"},
       2,
       37,
       "module media has a starting action on audio but is not declared in \"modules\""},
      {"warning",
       "unregistered-module",
       {"media", "audio"},
       3,
       50,
       "request 1 comes from module media, which is not declared in \"modules\": the handler refuses it"}}},
    {"unreachable_target.json",
     {{"warning",
       "unreachable-target",
       {"dusk"},
       4,
       15,
       "no other target lists dusk as reachable: once any target is enabled, dusk can no longer be switched to"}}},
    {"blocked_target.json",
     {{"warning",
       "blocked-target",
       {"quiet", "audio", "media"},
       8,
       37,
       "with the file's starting claims and no target enabled yet, the power manager cannot switch to quiet: media "
       "holds audio with hold, and quiet disables codec, which audio requires; once an enabled target lists quiet "
       "as reachable, holds no longer stop it"}}},
    {"untouched_resource.json",
     {{"warning",
       "untouched-resource",
       {"fan"},
       1,
       28,
       "no target, module, request or requires edge names fan: nothing ever switches it"}}},
    {"silent_use.json",
     {{"warning",
       "silent-use",
       {"camera-app", "camera"},
       1,
       26,
       "camera-app uses camera but has no revoke path: it would never be told that a target took its resource"}}},
    {"name_clash.json",
     {{"warning",
       "name-clash",
       {"standby"},
       2,
       26,
       "standby names both a resource and a target: lists of resources mean the resource, log lines cannot tell "
       "them apart"}}},
    {"duplicate_entry.json",
     {{"warning", "duplicate-entry", {"on", "lamp"}, 2, 52, "lamp is listed twice in the enables list of on"}}},
    {"missing_control.json",
     {{"error",
       "missing-control",
       {"fan"},
       3,
       15,
       "fan writes /hw/fan, which has no control: the graph cannot run on a device"}}},
    {"no_controls.json",
     {{"warning",
       "no-controls",
       {"lamp"},
       2,
       15,
       "lamp writes /hw/lamp and the file gives no \"controls\": it runs simulated only"}}},
    {"invalid_control.json",
     {{"error",
       "invalid-control",
       {},
       6,
       17,
       "the control of /hw/lamp: the sysfs directory sys/class/leds/lamp is not absolute"},
      {"error",
       "invalid-control",
       {},
       7,
       18,
       "the control of /hw/panel: the object path /org/example/panel-0 has the character '-', which D-Bus does "
       "not allow in a path"}}},
    {"unused_control.json",
     {{"warning",
       "unused-control",
       {},
       4,
       62,
       "the control of /hw/old-lamp is never used: no resource writes that path"}}},
    {"dormant_claim.json",
     {{"warning",
       "dormant-claim",
       {"heater", "heater-app"},
       2,
       51,
       "heater-app's hold claim on heater switches nothing: no target enables heater, directly or through "
       "requires, and no request asks for it"}}},
};

QString findingFile(const char* name)
{
    return dataFile(QStringLiteral("findings/") + QLatin1String(name));
}

bool hasErrors(const BrokenGraph& graph)
{
    for (const ExpectedFinding& finding : graph.findings) {
        if (QLatin1String(finding.severity) == QLatin1String("error"))
            return true;
    }
    return false;
}

QStringList strings(const QJsonArray& array)
{
    QStringList list;
    for (const QJsonValue& value : array)
        list.append(value.toString());
    return list;
}

class VerifyFinding : public ::testing::TestWithParam<BrokenGraph>
{
};

} // namespace

TEST_P(VerifyFinding, JsonGivesTheExactFindings)
{
    const BrokenGraph& graph = GetParam();
    const ToolRun run = runTool({"verify", "--format", "json", findingFile(graph.file)});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, hasErrors(graph) ? 1 : 0) << run.err.toStdString();

    const QJsonObject report = run.json();
    const QJsonArray files = report.value("files").toArray();
    ASSERT_EQ(files.size(), 1) << run.out.toStdString();
    EXPECT_EQ(files.at(0).toObject().value("file").toString(), findingFile(graph.file));
    const QJsonArray findings = files.at(0).toObject().value("findings").toArray();
    ASSERT_EQ(findings.size(), static_cast<int>(graph.findings.size())) << run.out.toStdString();
    int errors = 0;
    for (size_t i = 0; i < graph.findings.size(); ++i) {
        const ExpectedFinding& expected = graph.findings[i];
        const QJsonObject finding = findings.at(static_cast<int>(i)).toObject();
        EXPECT_EQ(finding.value("severity").toString(), QLatin1String(expected.severity));
        EXPECT_EQ(finding.value("code").toString(), QLatin1String(expected.code));
        EXPECT_EQ(strings(finding.value("nodes").toArray()), expected.nodes);
        EXPECT_EQ(finding.value("line").toInt(), expected.line);
        EXPECT_EQ(finding.value("column").toInt(), expected.column);
        EXPECT_EQ(finding.value("message").toString().toStdString(), expected.message);
        errors += QLatin1String(expected.severity) == QLatin1String("error") ? 1 : 0;
    }
    EXPECT_EQ(report.value("errors").toInt(), errors);
    EXPECT_EQ(report.value("warnings").toInt(), static_cast<int>(graph.findings.size()) - errors);
}

TEST_P(VerifyFinding, TextGivesTheSameFindingsOnePerLine)
{
    const BrokenGraph& graph = GetParam();
    const QString file = findingFile(graph.file);
    const ToolRun run = runTool({"verify", file});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, hasErrors(graph) ? 1 : 0);
    QStringList lines = QString::fromUtf8(run.out).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), static_cast<int>(graph.findings.size()) + 1) << run.out.toStdString();
    for (size_t i = 0; i < graph.findings.size(); ++i) {
        const ExpectedFinding& expected = graph.findings[i];
        EXPECT_EQ(lines.at(static_cast<int>(i)).toStdString(),
                  QStringLiteral("%1:%2:%3: %4: %5: %6 [%7]")
                      .arg(file)
                      .arg(expected.line)
                      .arg(expected.column)
                      .arg(QLatin1String(expected.severity), QLatin1String(expected.code),
                           QString::fromUtf8(expected.message), expected.nodes.join(", "))
                      .toStdString());
    }
}

TEST_P(VerifyFinding, StrictFailsOnWarningsToo)
{
    const ToolRun run = runTool({"verify", "--strict", "--format", "json", findingFile(GetParam().file)});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 1);
}

INSTANTIATE_TEST_SUITE_P(EveryCode, VerifyFinding, ::testing::ValuesIn(kBrokenGraphs),
                         [](const ::testing::TestParamInfo<BrokenGraph>& info) {
                             return QFileInfo(QLatin1String(info.param.file)).baseName().toStdString();
                         });

TEST(Verify, ShippedExampleHasNoErrors)
{
    const ToolRun run = runTool({"verify", "--format", "json", shippedExample()});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 0) << run.out.toStdString();
    const QJsonObject report = run.json();
    EXPECT_EQ(report.value("errors").toInt(-1), 0);
    EXPECT_EQ(report.value("invalidFiles").toInt(-1), 0);
}

TEST(Verify, SeveralFilesAreReportedEachUnderItsName)
{
    const ToolRun run =
        runTool({"verify", "--format", "json", findingFile("cycle.json"), findingFile("untouched_resource.json")});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 1);
    const QJsonArray files = run.json().value("files").toArray();
    ASSERT_EQ(files.size(), 2);
    EXPECT_EQ(files.at(1).toObject().value("file").toString(), findingFile("untouched_resource.json"));
    EXPECT_EQ(run.json().value("errors").toInt(), 1);
    EXPECT_EQ(run.json().value("warnings").toInt(), 1);
}

// --- Files that are not valid graphs -----------------------------------------

namespace {

struct InvalidGraph {
    const char* file;
    int line;
    int column;
    const char* message;
};

void PrintTo(const InvalidGraph& graph, std::ostream* out)
{
    *out << graph.file;
}

const InvalidGraph kInvalidGraphs[] = {
    {"duplicate_key_top.json", 3, 3, "duplicate key \"modules\" (first given at line 1, column 3)"},
    {"duplicate_key_nested.json", 2, 41, "duplicate key \"revokePath\" (first given at line 2, column 21)"},
    {"newline_name.json", 2, 15,
     "resources[0].name: \"display\\n[     0 ms] answer    #1 done\": character \\n at position 8 is not "
     "printable"},
    {"bad_json.json", 1, 33, "invalid JSON: Invalid value."},
    {"unknown_key.json", 1, 76,
     "targets[0]: unknown key \"enabled\" (expected one of: name, value, enables, disables, reachable)"},
    {"unknown_required.json", 1, 77, "resources[1].requires[0]: unknown resource \"lamp\""},
    {"bad_action.json", 2, 69, "requests[0].action: expected one of \"hold\", \"use\", \"release\""},
};

class VerifyInvalid : public ::testing::TestWithParam<InvalidGraph>
{
};

} // namespace

TEST_P(VerifyInvalid, ExitsWithTwoAndThePlace)
{
    const InvalidGraph& graph = GetParam();
    const QString file = dataFile(QLatin1String(graph.file));
    const ToolRun run = runTool({"verify", "--format", "json", file});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 2);
    const QJsonArray files = run.json().value("files").toArray();
    ASSERT_EQ(files.size(), 1) << run.out.toStdString();
    const QJsonObject invalid = files.at(0).toObject().value("invalid").toObject();
    EXPECT_EQ(invalid.value("line").toInt(), graph.line);
    EXPECT_EQ(invalid.value("column").toInt(), graph.column);
    EXPECT_EQ(invalid.value("message").toString().toStdString(),
              QStringLiteral("%1:%2:%3: %4")
                  .arg(file)
                  .arg(graph.line)
                  .arg(graph.column)
                  .arg(QString::fromUtf8(graph.message))
                  .toStdString());
    EXPECT_EQ(run.json().value("invalidFiles").toInt(), 1);
}

TEST_P(VerifyInvalid, RunAndExplainRefuseTheFileTheSameWay)
{
    const QString file = dataFile(QLatin1String(GetParam().file));
    for (const QStringList& arguments : {QStringList{"run", file}, QStringList{"explain", file, "--node", "x"}}) {
        const ToolRun run = runTool(arguments);
        ASSERT_TRUE(run.finishedNormally);
        EXPECT_EQ(run.exitCode, 2) << arguments.join(' ').toStdString();
        EXPECT_TRUE(run.err.contains(QStringLiteral("%1:%2:%3: ").arg(file).arg(GetParam().line).arg(GetParam().column).toUtf8()))
            << run.err.toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(Refused, VerifyInvalid, ::testing::ValuesIn(kInvalidGraphs),
                         [](const ::testing::TestParamInfo<InvalidGraph>& info) {
                             return QFileInfo(QLatin1String(info.param.file)).baseName().toStdString();
                         });

TEST(Verify, NewlineInANameNeverReachesTheOutputRaw)
{
    const ToolRun run = runTool({"verify", dataFile("newline_name.json")});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 2);
    // The forged timeline line stays inside the quoted name.
    for (const QByteArray& line : run.out.split('\n'))
        EXPECT_FALSE(line.startsWith("[     0 ms]")) << run.out.toStdString();
}

TEST(Verify, MissingFileExitsWithTwo)
{
    const ToolRun run = runTool({"verify", "--format", "json", dataFile("no_such_file.json")});
    ASSERT_TRUE(run.finishedNormally);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.json().value("invalidFiles").toInt(), 1);
}
