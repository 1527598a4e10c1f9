// libFuzzer target: the graph-file loader. Any bytes give a graph or a clean
// error; never a crash, a leak, a hang or an assertion of the library. A file
// that loads is wired into nodes and registered with a handler, as the host
// program does before it runs a scenario: whatever the loader lets through
// (an edge from a node to itself, a value used twice) must not reach the
// library's assertions.

#include "graphfile.h"
#include "powergraph.h"

#include "PowerHandler.h"

#include "dbglog.h"

#include <log4cplus/nullappender.h>

#include <QByteArray>
#include <QCoreApplication>
#include <QString>

#include <cstdio>
#include <cstdlib>

namespace {

// What an input gave, on stderr when VELA_FUZZ_TRACE is set.
void trace(const QString& line)
{
    static const bool tracing = std::getenv("VELA_FUZZ_TRACE") != nullptr;
    if (tracing)
        std::fprintf(stderr, "%s\n", qPrintable(line));
}

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "fuzz_graphfile: %s\n", what);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication application(*argc, *argv);
    // Refused edges are logged; the log itself is not what is fuzzed here.
    log4cplus::Logger& logger = vela::powerManagerLogger();
    logger.setAdditivity(false);
    logger.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
    logger.setLogLevel(log4cplus::OFF_LOG_LEVEL);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<int>(size));
    GraphFile file;
    GraphFile::Failure failure;
    if (!GraphFile::parse(bytes, QStringLiteral("fuzz.json"), &file, &failure)) {
        // A refusal must say what is wrong.
        if (failure.what.isEmpty())
            fail("refused without saying why");
        trace("refused: " + failure.message());
        return 0;
    }
    // The nodes outlive the handler, as the service keeps them.
    const PowerGraph graph(file);
    trace(QStringLiteral("loaded: %1 resources, %2 targets, %3 self-edges kept from the library")
              .arg(file.resources.size())
              .arg(file.targets.size())
              .arg(graph.skippedSelfEdges().size()));
    PowerHandler handler;
    graph.registerWith(handler);
    // Node names are process-wide and outlive a run, so two runs' files may
    // share them: the snapshot is built but its names are not compared.
    if (handler.listNodes().size() != 2)
        fail("the snapshot lacks \"targets\" or \"resources\"");
    return 0;
}
