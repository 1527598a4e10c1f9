#ifndef VELA_POWER_VERBS_H
#define VELA_POWER_VERBS_H

#include <QStringList>

// The commands of vela-power, one source file each. `arguments` starts with
// the command's name; the result is the process's exit code (ExitCodes).
int verbRun(const QStringList& arguments);
int verbVerify(const QStringList& arguments);
int verbExplain(const QStringList& arguments);
int verbDot(const QStringList& arguments);
// The commands that talk to a running vela-powerd, where Qt 5 DBus is found.
int verbStatus(const QStringList& arguments);
int verbRequest(const QStringList& arguments);
int verbClaim(const QStringList& arguments);
int verbMonitor(const QStringList& arguments);

// Whether `run` with these arguments (starting with "run") follows the
// simulated clock: unless the wall clock is asked for (--real-time) or
// commands are typed (--interactive), which happen in the user's time.
bool runIsOnSimulatedTime(const QStringList& arguments);

#endif
