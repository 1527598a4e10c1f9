#include "simulatedrun.h"

#include "runrecorder.h"

SimulatedRun::SimulatedRun(const GraphFile& file, RunRecorder& recorder, SimulatedPlatform::Answering answering)
    : m_platform(file, answering,
                 [&recorder](PlatformCall::Step step, const PlatformCall& call) { recorder.platformCall(step, call); })
    , m_graph(file)
{
    for (const GraphSpec::Reference& edge : m_graph.skippedSelfEdges())
        recorder.add(RunEvent::Kind::Skipped, edge.name,
                     QStringLiteral("requires itself (line %1, column %2): not given to the library")
                         .arg(edge.place.line)
                         .arg(edge.place.column));
    m_handler = std::make_unique<PowerHandler>();
    m_graph.registerWith(*m_handler);
    recorder.watchStates(m_graph);
    m_driver = std::make_unique<RequestDriver>(*m_handler, m_graph, &recorder);
}

SimulatedRun::~SimulatedRun()
{
    m_driver.reset();
    m_handler.reset();
}
