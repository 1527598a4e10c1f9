#include "graphinput.h"

#include "commandline.h"
#include "exitcodes.h"

#include <iostream>

bool loadGraphFile(const CommandLine& line, const QString& fileName, GraphFile* graph, int* exitCode)
{
    GraphFile::Failure failure;
    if (GraphFile::load(fileName, graph, &failure))
        return true;
    std::cerr << line.invocation().toStdString() << ": " << failure.message().toStdString() << std::endl;
    *exitCode = ExitCodes::InvalidInput;
    return false;
}
