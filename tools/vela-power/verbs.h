#ifndef VELA_TOOLS_VERBS_H
#define VELA_TOOLS_VERBS_H

#include <QStringList>

// The commands of vela-power, one source file each. `arguments` starts with
// the command's name; the result is the process's exit code (ExitCodes).
int verbRun(const QStringList& arguments);
int verbVerify(const QStringList& arguments);
int verbExplain(const QStringList& arguments);
int verbDot(const QStringList& arguments);

#endif
