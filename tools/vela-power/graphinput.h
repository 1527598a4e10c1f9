#ifndef VELA_POWER_GRAPHINPUT_H
#define VELA_POWER_GRAPHINPUT_H

#include "graphfile.h"

class CommandLine;

// Loads the graph file a command was given; on failure prints the refusal
// ("vela-power run: handheld.json:3:7: ...") and sets `*exitCode` to the code
// for invalid input.
bool loadGraphFile(const CommandLine& line, const QString& fileName, GraphFile* graph, int* exitCode);

#endif
