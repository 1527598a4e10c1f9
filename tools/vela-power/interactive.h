#ifndef VELA_POWER_INTERACTIVE_H
#define VELA_POWER_INTERACTIVE_H

#include "graphfile.h"
#include "runrecorder.h"
#include "simulatedrun.h"
#include "timeline.h"

#include <QByteArray>
#include <QSocketNotifier>
#include <QStringList>

#include <memory>

class QProcess;

/*
 * A graph run by hand: commands read from standard input, one per line, and
 * the timeline streamed as the library and the simulated platform act, in
 * real time:
 *
 *   target active
 *   use audio media
 *   wait 100
 *   snapshot
 *   quit
 *
 * Standard input is watched by a socket notifier, so the event loop (and with
 * it the library's timers and the platform's delayed answers) keeps running
 * between lines. A line that cannot be carried out gets a one-line error on
 * standard error and the session goes on. `wait` and `explain` hold the
 * following lines back until they are done, so that a piped script runs in
 * order. At the end of the input the session ends once every request sent
 * is answered; `quit` ends it at once.
 */
class InteractiveSession
{
public:
    InteractiveSession(const GraphFile& file, const QString& fileName, bool showLibraryLog);
    ~InteractiveSession();
    InteractiveSession(const InteractiveSession&) = delete;
    InteractiveSession& operator=(const InteractiveSession&) = delete;

    // Runs the session until `quit` or the end of the input; the result is
    // the process's exit code.
    int exec();

    // The commands, one line each, for `help`.
    static QString help();

private:
    struct Command;
    static const Command commands[];

    void readInput();
    // Carries out the waiting lines until one holds the rest back.
    void runPending();
    void execute(const QString& line);
    void error(const QString& message) const;
    void finishIfDone();

    void target(const QStringList& words);
    void resourceAction(const QStringList& words);
    void wait(const QStringList& words);
    void snapshot(const QStringList& words);
    void explain(const QStringList& words);
    void showHelp(const QStringList& words);
    void quit(const QStringList& words);

    void send(const Scenario::Request& request);
    void resume();

    const GraphFile& m_file;
    QString m_fileName;
    QByteArray m_input;
    QStringList m_pending;
    int m_lineNumber = 0;
    bool m_inputEnded = false;
    bool m_busy = false;
    bool m_quitting = false;
    std::unique_ptr<QProcess> m_explain;
    QSocketNotifier m_notifier;
    Timeline m_timeline;
    RunRecorder m_recorder;
    // Last: pending requests are answered while it goes, and their
    // continuations use the members above.
    SimulatedRun m_run;
};

#endif
