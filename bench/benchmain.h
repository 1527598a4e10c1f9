#ifndef VELA_BENCH_BENCHMAIN_H
#define VELA_BENCH_BENCHMAIN_H

#include "dbglog.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

// The main of the benchmark programs: an application object (timers and
// posted continuations need one) and the "PowerManager" logger at `level`.
inline int runBenchmarks(int argc, char** argv, log4cplus::LogLevel level)
{
    QCoreApplication app(argc, argv);
    vela::powerManagerLogger().setLogLevel(level);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

#endif
