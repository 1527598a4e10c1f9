#include "cmpath.h"

#include "dbglog.h"

std::ostream& operator<<(std::ostream& stream, const CMPath& path)
{
    return stream << path.toString();
}
