// A service that keeps its handler (and its nodes) in function-static
// variables, made on first use.

#include "exit_program.h"

namespace {

exitprogram::Graph& graph()
{
    static exitprogram::Graph nodes;
    return nodes;
}

PowerHandler& handler()
{
    static PowerHandler instance;
    return instance;
}

} // namespace

int main(int argc, char** argv)
{
    exitprogram::Graph& nodes = graph();
    return exitprogram::run(handler(), nodes, argc, argv);
}
