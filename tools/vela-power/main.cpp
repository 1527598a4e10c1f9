// vela-power: the host program of the power handler. It checks power graph
// files (verify), explains what the library decides and why (explain), and
// runs a graph's scenario against a simulated platform (run).

#include "exitcodes.h"
#include "safetext.h"
#include "simulatedtimedispatcher.h"
#include "verbs.h"

#include <QCoreApplication>
#include <QHash>

#include <iostream>

namespace {

struct Verb {
    const char* name;
    const char* summary;
    int (*run)(const QStringList& arguments);
    // Whether the command, with these arguments, runs on simulated time;
    // null for a command that never does. Asked before the application
    // object exists, which is when the event dispatcher is chosen.
    bool (*onSimulatedTime)(const QStringList& arguments);
};

// When adding a command or changing a summary, update the "vela-power"
// section of the README as well.
const Verb verbs[] = {
    {"run", "Run a graph and its requests against a simulated platform and show the timeline", verbRun,
     runIsOnSimulatedTime},
    {"verify", "Check graph files without running them", verbVerify, nullptr},
    {"explain", "Explain a target switch, a resource request or a node's state, as the library decides it", verbExplain,
     nullptr},
    {"dot", "Draw a graph with Graphviz (DOT, SVG or PNG), optionally coloured by a run's snapshot", verbDot, nullptr},
#ifdef VELA_POWER_CLIENT_COMMANDS
    {"status", "Show a running vela-powerd's targets, nodes and claims", verbStatus, nullptr},
    {"request", "Ask a running vela-powerd for a target or a resource, and print its answer", verbRequest, nullptr},
    {"claim", "Hold or use resources of a running vela-powerd while a command runs", verbClaim, nullptr},
    {"monitor", "Show a running vela-powerd's events as they happen", verbMonitor, nullptr},
#endif
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

const Verb* findVerb(const QString& name)
{
    for (const Verb& verb : verbs) {
        if (name == QLatin1String(verb.name))
            return &verb;
    }
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    // Hashes of names then come out the same in every process, and with them
    // the order in which the library walks its sets: two runs of one graph
    // print the same timeline.
    qSetGlobalQHashSeed(0);
    QStringList rawArguments;
    for (int index = 1; index < argc; ++index)
        rawArguments.append(QString::fromLocal8Bit(argv[index]));
    const Verb* chosen = rawArguments.isEmpty() ? nullptr : findVerb(rawArguments.constFirst());
    if (chosen && chosen->onSimulatedTime && chosen->onSimulatedTime(rawArguments))
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
    if (const Verb* verb = findVerb(command))
        return verb->run(arguments.mid(1));
    std::cerr << "vela-power: unknown command " << SafeText::quoted(command).toStdString() << "\n"
              << "Try 'vela-power --help'." << std::endl;
    return ExitCodes::InvalidInput;
}
