#include "wholefile.h"

#include <QFile>

bool writeWholeFile(const QString& fileName, const QByteArray& bytes, QString* reason)
{
    QFile file(fileName);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size() && file.flush())
        return true;
    *reason = file.errorString();
    return false;
}
