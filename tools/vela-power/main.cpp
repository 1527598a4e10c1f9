// vela-power: the host program of the power handler. It checks power graph
// files (verify), explains what the library decides and why (explain), and
// runs a graph's scenario against a simulated platform (run).

#include "exitcodes.h"
#include "safetext.h"
#include "simulatedtimedispatcher.h"
#include "verbs.h"

#include <QCoreApplication>
#include <QHash>

#include <cstring>
#include <iostream>

namespace {

struct Verb {
    const char* name;
    const char* summary;
    int (*run)(const QStringList& arguments);
};

// When adding a command or changing a summary, update the "vela-power"
// section of the README as well.
const Verb verbs[] = {
    {"run", "Run a graph and its requests against a simulated platform and show the timeline", verbRun},
    {"verify", "Check graph files without running them", verbVerify},
    {"explain", "Explain a target switch, a resource request or a node's state, as the library decides it",
     verbExplain},
    {"dot", "Draw a graph with Graphviz (DOT, SVG or PNG), optionally coloured by a run's snapshot", verbDot},
};

QString help()
{
    QString text = QStringLiteral("Usage: vela-power COMMAND [options] ...\n"
                                  "Checks, explains and runs power graph files for the Vela power handler.\n\n"
                                  "Commands:\n");
    for (const Verb& verb : verbs)
        text += QStringLiteral("  %1  %2\n").arg(QLatin1String(verb.name), -8).arg(QLatin1String(verb.summary));
    text += QStringLiteral("\nOptions:\n  -h, --help  Show this help; 'vela-power COMMAND --help' shows a "
                           "command's options.\n\n");
    return text + ExitCodes::table();
}

// A run follows a simulated clock unless the user asks for the wall clock
// (or types commands, which happen in the user's time). The dispatcher must
// be chosen before the application object exists, so this looks at the raw
// arguments.
bool runsOnSimulatedTime(int argc, char** argv)
{
    if (argc < 2 || std::strcmp(argv[1], "run") != 0)
        return false;
    for (int index = 2; index < argc; ++index) {
        if (std::strcmp(argv[index], "--real-time") == 0 || std::strcmp(argv[index], "--interactive") == 0)
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    // Hashes of names then come out the same in every process, and with them
    // the order in which the library walks its sets: two runs of one graph
    // print the same timeline.
    qSetGlobalQHashSeed(0);
    if (runsOnSimulatedTime(argc, argv))
        QCoreApplication::setEventDispatcher(new SimulatedTimeDispatcher);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vela-power"));

    const QStringList arguments = app.arguments();
    if (arguments.size() < 2) {
        std::cerr << help().toStdString();
        return ExitCodes::InvalidInput;
    }
    const QString& command = arguments.at(1);
    if (command == QLatin1String("--help") || command == QLatin1String("-h") || command == QLatin1String("help")) {
        std::cout << help().toStdString();
        return ExitCodes::Success;
    }
    for (const Verb& verb : verbs) {
        if (command == QLatin1String(verb.name))
            return verb.run(arguments.mid(1));
    }
    std::cerr << "vela-power: unknown command " << SafeText::quoted(command).toStdString() << "\n"
              << "Try 'vela-power --help'." << std::endl;
    return ExitCodes::InvalidInput;
}
