// A service that keeps its handler (and its nodes) in global variables.

#include "exit_program.h"

namespace {
exitprogram::Graph g_graph;
PowerHandler g_handler;
} // namespace

int main(int argc, char** argv)
{
    return exitprogram::run(g_handler, g_graph, argc, argv);
}
