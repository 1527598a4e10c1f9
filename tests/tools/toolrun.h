#ifndef VELA_TESTS_TOOLRUN_H
#define VELA_TESTS_TOOLRUN_H

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

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

#endif
