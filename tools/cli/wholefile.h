#ifndef VELA_CLI_WHOLEFILE_H
#define VELA_CLI_WHOLEFILE_H

#include <QByteArray>
#include <QString>

// Writes `bytes` as the whole content of `fileName`, replacing what was
// there. On failure returns false with the system's reason in `*reason`.
bool writeWholeFile(const QString& fileName, const QByteArray& bytes, QString* reason);

#endif
