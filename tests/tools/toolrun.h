#ifndef VELA_TESTS_TOOLRUN_H
#define VELA_TESTS_TOOLRUN_H

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QtGlobal>

// One finished run of the vela-power program.
struct ToolRun {
    bool finishedNormally = false;
    int exitCode = -1;
    QByteArray out;
    QByteArray err;

    // Standard output read as one JSON object (empty when it is not one).
    QJsonObject json() const;
};

// Runs vela-power with `arguments` and waits for it to end (bounded by a
// watchdog that only a hung program reaches).
ToolRun runTool(const QStringList& arguments);

// A file of tests/tools/data, and the shipped example.
QString dataFile(const QString& name);
QString shippedExample();

// Whether `program` can be started from PATH.
bool programInstalled(const char* program);

/*
 * For the tests that draw with Graphviz's dot or with rsvg-convert. Those are
 * workstation programs: a device run, which sets VELA_NO_DRAWING_PROGRAMS,
 * skips these tests when the program is missing. Everywhere else a missing
 * program fails the test, so that a host never passes without drawing.
 */
#define VELA_REQUIRE_DRAWING_PROGRAM(program)                                                                      \
    do {                                                                                                           \
        if (!programInstalled(program)) {                                                                          \
            if (qEnvironmentVariableIsSet("VELA_NO_DRAWING_PROGRAMS"))                                             \
                GTEST_SKIP() << program << " is not installed on this device";                                     \
            FAIL() << program << " is needed to run this test (graphviz and librsvg2-bin: scripts/setup-deps.sh)"; \
        }                                                                                                          \
    } while (false)

#endif
