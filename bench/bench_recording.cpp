// What recording a run costs: a chain of resources, each requiring the
// next, switched on by one claim on its head and off by its release, on a
// simulated platform that answers every write at once, once with nothing
// attached to the library and once as `vela-power run` does it (the
// recorder, fed by the library's log and the platform, with every event
// formatted as a timeline line). Rounds alternate, and the program prints
// the median CPU time of each side and their ratio.
//
//   build/bench/bench_recording [LINKS] [ROUNDS]     (default 200000 3)

#include "graphfile.h"
#include "powergraph.h"
#include "requestdriver.h"
#include "runrecorder.h"
#include "simulatedplatform.h"
#include "simulatedrun.h"
#include "timeline.h"

#include "PowerHandler.h"

#include <QCoreApplication>
#include <QEventLoop>

#include <log4cplus/helpers/loglog.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

QByteArray chainFile(int links)
{
    QByteArray json = "{ \"modules\": [ { \"name\": \"app\" } ], \"resources\": [\n";
    for (int index = 0; index < links; ++index) {
        const QByteArray name = "r" + QByteArray::number(index);
        json += "{ \"name\": \"" + name + "\", \"enable\": { \"path\": \"/hw/" + name +
                "\", \"key\": \"on\", \"value\": true }, \"disable\": { \"path\": \"/hw/" + name +
                "\", \"key\": \"on\", \"value\": false }";
        if (index + 1 < links)
            json += ", \"requires\": [\"r" + QByteArray::number(index + 1) + "\"]";
        json += index + 1 < links ? " },\n" : " }\n";
    }
    return json + "] }\n";
}

double cpuSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

Scenario::Request claim(VelaPowerModuleActions::Enum action)
{
    Scenario::Request request;
    request.kind = Scenario::Request::Resource;
    request.name = QStringLiteral("r0");
    request.module = QStringLiteral("app");
    request.action = action;
    return request;
}

// Sends `request` and runs the event loop until it is answered.
void sendAndWait(PowerHandler& handler, const PowerGraph& graph, const Scenario::Request& request)
{
    bool answered = false;
    QEventLoop loop;
    RequestDriver::sendTo(handler, graph, request).onFinished([&](const CMReply<QVariant>&) {
        answered = true;
        loop.quit();
    });
    if (!answered)
        loop.exec();
}

double switchBare(const GraphFile& file)
{
    SimulatedPlatform platform(file, SimulatedPlatform::Answering::AtOnce,
                               [](PlatformCall::Step, const PlatformCall&) {});
    PowerGraph graph(file);
    PowerHandler handler;
    graph.registerWith(handler);
    const double start = cpuSeconds();
    sendAndWait(handler, graph, claim(VelaPowerModuleActions::use));
    sendAndWait(handler, graph, claim(VelaPowerModuleActions::release));
    return cpuSeconds() - start;
}

double switchRecorded(const GraphFile& file, qint64* lines)
{
    RunRecorder recorder(file, RunRecorder::wallClock(),
                         [lines](const RunEvent& event) { *lines += Timeline::line(event).size() > 0; });
    SimulatedRun run(file, recorder, SimulatedPlatform::Answering::AtOnce);
    const double start = cpuSeconds();
    sendAndWait(run.handler(), run.graph(), claim(VelaPowerModuleActions::use));
    sendAndWait(run.handler(), run.graph(), claim(VelaPowerModuleActions::release));
    return cpuSeconds() - start;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // With no recorder attached, nothing reads the library's log.
    log4cplus::helpers::LogLog::getLogLog()->setQuietMode(true);
    const int links = argc > 1 ? std::atoi(argv[1]) : 200000;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
    GraphFile file;
    GraphFile::Failure failure;
    if (!GraphFile::parse(chainFile(links), QStringLiteral("chain.json"), &file, &failure)) {
        std::fprintf(stderr, "%s\n", qPrintable(failure.message()));
        return 1;
    }
    std::vector<double> bare;
    std::vector<double> recorded;
    qint64 lines = 0;
    for (int round = 0; round < rounds; ++round) {
        bare.push_back(switchBare(file));
        recorded.push_back(switchRecorded(file, &lines));
    }
    const double bareSeconds = median(bare);
    const double recordedSeconds = median(recorded);
    std::printf("chain of %d links, switched on and off, %d rounds, median CPU time:\n", links, rounds);
    std::printf("  without a recorder  %8.3f s\n", bareSeconds);
    std::printf("  recorded (as run)   %8.3f s  (%lld timeline lines per round)\n", recordedSeconds,
                static_cast<long long>(lines / rounds));
    std::printf("  ratio               %8.2f\n", recordedSeconds / bareSeconds);
    return 0;
}
