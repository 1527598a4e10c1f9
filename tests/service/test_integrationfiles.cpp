// The files that make vela-powerd a system service: its systemd unit, its
// D-Bus activation file and its manual page, checked against systemd's own
// verifier and against the program's help.

#include "powerdtest.h"

#include <QRegularExpression>
#include <QSettings>

#include <gtest/gtest.h>

using namespace powerdtest;

namespace {

QString sourceFile(const QString& relative)
{
    return QStringLiteral(VELA_SOURCE_DIR "/") + relative;
}

// The unit as the build made it, run from the build folder, with its manual
// page where man finds it: what systemd-analyze verify checks.
struct UnitInAFolder {
    QTemporaryDir folder;
    QString unit;
    QString manPath;

    bool make(const QString& unitText)
    {
        unit = folder.filePath(QStringLiteral("vela-powerd.service"));
        manPath = folder.filePath(QStringLiteral("man"));
        return QDir().mkpath(manPath + QStringLiteral("/man8")) &&
               QFile::copy(sourceFile(QStringLiteral("docs/vela-powerd.8")),
                           manPath + QStringLiteral("/man8/vela-powerd.8")) &&
               writeFile(unit, unitText.toUtf8());
    }
};

QString builtUnit()
{
    QString text = fileText(QStringLiteral(VELA_POWERD_UNIT));
    text.replace(QRegularExpression(QStringLiteral("^ExecStart=\\S+"), QRegularExpression::MultilineOption),
                 QStringLiteral("ExecStart=" VELA_POWERD_PROGRAM));
    return text;
}

ClientRun verify(const UnitInAFolder& unit)
{
    QProcess analyze;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("MANPATH"), unit.manPath);
    analyze.setProcessEnvironment(environment);
    analyze.start(QStringLiteral("systemd-analyze"), {QStringLiteral("verify"), unit.unit});
    ClientRun run;
    if (!analyze.waitForFinished(callTimeoutMs))
        return run;
    run.exitCode = analyze.exitStatus() == QProcess::NormalExit ? analyze.exitCode() : -1;
    run.errors = QString::fromUtf8(analyze.readAllStandardError()).trimmed();
    return run;
}

TEST(PowerdIntegration, SystemdAnalyzeVerifiesTheUnitAndItsManualPage)
{
    UnitInAFolder unit;
    ASSERT_TRUE(unit.make(builtUnit()));

    const ClientRun run = verify(unit);

    EXPECT_EQ(run.exitCode, 0) << run.errors.toStdString();
    EXPECT_EQ(run.errors, QString());
}

TEST(PowerdIntegration, SystemdAnalyzeFindsAMistakeInAUnit)
{
    UnitInAFolder unit;
    ASSERT_TRUE(unit.make(builtUnit().replace(QStringLiteral("ProtectHome=yes"), QStringLiteral("ProtectHome=maybe"))));

    const ClientRun run = verify(unit);

    EXPECT_TRUE(run.errors.contains(QRegularExpression(
        QStringLiteral("vela-powerd\\.service:[0-9]+: Failed to parse protect home value, ignoring: maybe"))))
        << run.errors.toStdString();
}

TEST(PowerdIntegration, UnitOwnsTheNameTheActivationFileAsksItFor)
{
    QSettings activation(sourceFile(QStringLiteral("service/org.vela.Power1.service")), QSettings::IniFormat);
    QSettings unit(QStringLiteral(VELA_POWERD_UNIT), QSettings::IniFormat);

    EXPECT_EQ(activation.value(QStringLiteral("D-BUS Service/Name")).toString(), QStringLiteral("org.vela.Power1"));
    EXPECT_EQ(activation.value(QStringLiteral("D-BUS Service/Exec")).toString(), QStringLiteral("/bin/false"));
    EXPECT_EQ(activation.value(QStringLiteral("D-BUS Service/SystemdService")).toString(),
              unit.value(QStringLiteral("Install/Alias")).toString());
    EXPECT_EQ(unit.value(QStringLiteral("Service/Type")).toString(), QStringLiteral("dbus"));
    EXPECT_EQ(unit.value(QStringLiteral("Service/BusName")).toString(), QStringLiteral("org.vela.Power1"));
    EXPECT_TRUE(unit.value(QStringLiteral("Service/ExecStart"))
                    .toString()
                    .endsWith(QStringLiteral("/vela-powerd --bus system /etc/vela-power/graph.json")));
}

// The manual page is written by hand: it must name every option the
// program's help prints, and every exit code.
TEST(PowerdIntegration, ManualPageNamesEveryOptionAndExitCodeOfTheHelp)
{
    const QString page = fileText(sourceFile(QStringLiteral("docs/vela-powerd.8")));
    const ClientRun help = runClient(QStringLiteral(VELA_POWERD_PROGRAM), {QStringLiteral("--help")});
    ASSERT_EQ(help.exitCode, 0);
    const QRegularExpression option(QStringLiteral("^\\s+(?:-\\w, )?(--[a-z-]+)"), QRegularExpression::MultilineOption);
    QStringList options;
    for (auto match = option.globalMatch(help.output); match.hasNext();)
        options << match.next().captured(1);
    EXPECT_GE(options.size(), 10) << help.output.toStdString();
    for (const QString& name : options) {
        QString inRoff = name;
        inRoff.replace(QLatin1Char('-'), QStringLiteral("\\-"));
        EXPECT_TRUE(page.contains(inRoff)) << name.toStdString();
    }
    const QRegularExpression exitCode(QStringLiteral("^  ([0-9]+)  "), QRegularExpression::MultilineOption);
    int codes = 0;
    for (auto match = exitCode.globalMatch(help.output.section(QStringLiteral("Exit codes:"), 1)); match.hasNext();
         ++codes)
        EXPECT_TRUE(page.contains(QStringLiteral(".B ") + match.next().captured(1) + QLatin1Char('\n')));
    EXPECT_EQ(codes, 3);
}

} // namespace
