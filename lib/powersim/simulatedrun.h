#ifndef VELA_POWERSIM_SIMULATEDRUN_H
#define VELA_POWERSIM_SIMULATEDRUN_H

#include "graphfile.h"
#include "powergraph.h"
#include "requestdriver.h"
#include "simulatedplatform.h"

#include "PowerHandler.h"

#include <memory>

class RunRecorder;

/*
 * A graph running on a simulated platform, with everything it takes, made
 * and destroyed in the right order: the platform, the library's nodes, the
 * handler they are registered with, and a request driver, all reporting to
 * one recorder.
 *
 *   RunRecorder recorder(file, SimulatedTimeDispatcher::runClock(), listener);
 *   SimulatedRun run(file, recorder);
 *   run.driver().send(file.requests.first());
 *
 * Only one may exist at a time in a process: the platform registers its
 * handlers with the process's one root worker, by path.
 */
class SimulatedRun
{
public:
    SimulatedRun(const GraphFile& file, RunRecorder& recorder,
                 SimulatedPlatform::Answering answering = SimulatedPlatform::Answering::AsTheFileSays);
    ~SimulatedRun();
    SimulatedRun(const SimulatedRun&) = delete;
    SimulatedRun& operator=(const SimulatedRun&) = delete;

    SimulatedPlatform& platform() { return m_platform; }
    const PowerGraph& graph() const { return m_graph; }
    PowerHandler& handler() { return *m_handler; }
    RequestDriver& driver() { return *m_driver; }

private:
    SimulatedPlatform m_platform;
    PowerGraph m_graph;
    // Made once the edges not given to the library are reported, so that
    // the report comes before anything the handler logs; destroyed before
    // the nodes, which answer its pending requests as they go.
    std::unique_ptr<PowerHandler> m_handler;
    std::unique_ptr<RequestDriver> m_driver;
};

#endif
