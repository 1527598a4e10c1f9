// vela-power run --interactive: commands written to the program's standard
// input one at a time, each answer awaited before the next command, and a
// whole script piped in at once.

#include "toolrun.h"

#include "eventloop.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

namespace {

// A session of vela-power run --interactive on the shipped example, its
// output collected as it comes.
class Session
{
public:
    Session()
    {
        QObject::connect(&m_process, &QProcess::readyReadStandardOutput,
                         [this]() { m_out += m_process.readAllStandardOutput(); });
        QObject::connect(&m_process, &QProcess::readyReadStandardError,
                         [this]() { m_err += m_process.readAllStandardError(); });
        m_process.start(QStringLiteral(VELA_POWER_PROGRAM), {"run", "--interactive", shippedExample()});
    }
    ~Session()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished();
        }
    }

    void write(const QByteArray& lines) { m_process.write(lines); }
    void endInput() { m_process.closeWriteChannel(); }
    bool outputShows(const QByteArray& text)
    {
        return waitUntil([this, text]() { return m_out.contains(text); });
    }
    bool errorsShow(const QByteArray& text)
    {
        return waitUntil([this, text]() { return m_err.contains(text); });
    }
    bool finished()
    {
        return waitUntil([this]() { return m_process.state() == QProcess::NotRunning; });
    }
    int exitCode() const { return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1; }
    const QByteArray& out() const { return m_out; }
    const QByteArray& err() const { return m_err; }

    // Asks for a snapshot and returns it once its line is out (empty when
    // it never comes).
    QJsonObject snapshot()
    {
        const int mark = m_out.size();
        write("snapshot\n");
        waitUntil([this, mark]() { return !snapshotAfter(mark).isEmpty(); });
        return snapshotAfter(mark);
    }
    // Ends the session with `quit`; whether it then ended with exit code 0.
    bool quitsCleanly()
    {
        write("quit\n");
        return finished() && exitCode() == 0;
    }
    // The JSON of the snapshot line that follows `after` in the output.
    QJsonObject snapshotAfter(int after) const
    {
        static const QByteArray marker = "snapshot  ";
        const int at = m_out.indexOf(marker, after);
        if (at < 0)
            return {};
        const int start = at + marker.size();
        if (m_out.indexOf('\n', start) < 0)
            return {};
        return QJsonDocument::fromJson(m_out.mid(start, m_out.indexOf('\n', start) - start)).object();
    }

private:
    QProcess m_process;
    QByteArray m_out;
    QByteArray m_err;
};

bool isEnabled(const QJsonObject& snapshot, const char* kind, const char* node)
{
    return snapshot.value(kind).toObject().value(node).toObject().value("isEnabled").toBool();
}

} // namespace

TEST(Interactive, ErrorsAreOneLineAndTheSessionGoesOn)
{
    Session session;
    session.write("frobnicate now\n");
    ASSERT_TRUE(session.errorsShow("vela-power run: input line 1: unknown command \"frobnicate\"; 'help' lists the "
                                   "commands\n"))
        << session.err().toStdString();
    session.write("target nowhere\n");
    ASSERT_TRUE(session.errorsShow("input line 2: the graph has no target \"nowhere\"\n")) << session.err().toStdString();
    session.write("use audio nobody\n");
    ASSERT_TRUE(session.errorsShow("input line 3: the graph has no module \"nobody\"\n"))
        << session.err().toStdString();
    session.write("wait soon\n");
    ASSERT_TRUE(session.errorsShow("input line 4: usage: wait MS (0 to 3600000 milliseconds)\n"))
        << session.err().toStdString();
    EXPECT_EQ(session.err().count('\n'), 4) << "one line per error: " << session.err().toStdString();

    session.write("target active\n");
    ASSERT_TRUE(session.outputShows("answer    #1 done\n")) << session.out().toStdString();
    EXPECT_TRUE(session.out().contains("request   #1 target active\n"));
    EXPECT_TRUE(session.out().contains("state     display -> enabled\n"));
    ASSERT_TRUE(session.quitsCleanly());
    EXPECT_TRUE(session.out().endsWith("1 of 1 requests answered\n")) << session.out().toStdString();
}

TEST(Interactive, TargetSwitchesShowInTheTimelineAndInSnapshots)
{
    Session session;
    session.write("target active\n");
    ASSERT_TRUE(session.outputShows("signal    targetChanged active\n")) << session.out().toStdString();
    ASSERT_TRUE(session.outputShows("answer    #1 done\n"));
    QJsonObject snapshot = session.snapshot();
    ASSERT_FALSE(snapshot.isEmpty()) << session.out().toStdString();
    EXPECT_TRUE(isEnabled(snapshot, "targets", "active"));
    EXPECT_TRUE(isEnabled(snapshot, "resources", "display"));
    EXPECT_TRUE(isEnabled(snapshot, "resources", "backlight"));

    session.write("use audio media\ntarget standby\n");
    ASSERT_TRUE(session.outputShows("answer    #3 done\n")) << session.out().toStdString();
    // Standby takes the audio the media module uses: it is told so first.
    EXPECT_TRUE(session.out().contains("message   /modules/media/revoke")) << session.out().toStdString();
    EXPECT_LT(session.out().indexOf("request   #3 target standby"),
              session.out().indexOf("state     display -> disabled"));
    snapshot = session.snapshot();
    ASSERT_FALSE(snapshot.isEmpty()) << session.out().toStdString();
    EXPECT_FALSE(isEnabled(snapshot, "targets", "active"));
    EXPECT_TRUE(isEnabled(snapshot, "targets", "standby"));
    EXPECT_FALSE(isEnabled(snapshot, "resources", "display"));
    EXPECT_TRUE(isEnabled(snapshot, "resources", "storage"));

    EXPECT_TRUE(session.quitsCleanly());
}

TEST(Interactive, ExplainAndHelpAnswerInTheSession)
{
    Session session;
    session.write("help\n");
    ASSERT_TRUE(session.outputShows("  quit")) << session.out().toStdString();
    EXPECT_TRUE(session.out().contains("  wait MS "));
    EXPECT_TRUE(session.out().contains("  hold RESOURCE MODULE "));
    session.write("explain --from active --to suspend\n");
    ASSERT_TRUE(session.outputShows("switch to suspend (from active): refused\n")) << session.out().toStdString();
    session.write("explain --node nowhere\n");
    ASSERT_TRUE(session.errorsShow("the file has no node \"nowhere\"")) << session.err().toStdString();
    EXPECT_TRUE(session.quitsCleanly());
}

TEST(Interactive, PipedScriptRunsInOrderAndEndsWhenEverythingIsAnswered)
{
    Session session;
    // Everything at once, then the end of the input: the wait holds the
    // snapshot back until the wifi's delayed answer is in.
    session.write("# a script\ntarget active\nuse wifi connectivity\nwait 200\nsnapshot\n");
    session.endInput();
    ASSERT_TRUE(session.finished()) << session.out().toStdString();
    EXPECT_EQ(session.exitCode(), 0) << session.err().toStdString();
    EXPECT_TRUE(session.err().isEmpty()) << session.err().toStdString();
    const QByteArray& out = session.out();
    EXPECT_LT(out.indexOf("answered  /hw/wifi radio = true"), out.indexOf("snapshot  {"));
    EXPECT_TRUE(isEnabled(session.snapshotAfter(0), "resources", "wifi"));
    EXPECT_TRUE(out.endsWith("2 of 2 requests answered\n")) << out.toStdString();
}
