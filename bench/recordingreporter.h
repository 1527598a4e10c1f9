#ifndef VELA_BENCH_RECORDINGREPORTER_H
#define VELA_BENCH_RECORDINGREPORTER_H

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

#include <unistd.h>

namespace benchsupport {

// The console output plus the real and CPU time per iteration of every
// benchmark,
// for the comparison printed at the end.
class RecordingReporter : public benchmark::ConsoleReporter
{
public:
    // Colours only on a terminal, so that redirected output stays plain.
    RecordingReporter()
        : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular)
    {
    }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.error_occurred)
                continue;
            const double nanoseconds = run.GetAdjustedRealTime() * nanosecondsPer(run.time_unit);
            const double cpuNanoseconds = run.GetAdjustedCPUTime() * nanosecondsPer(run.time_unit);
            std::string name = run.run_name.function_name;
            if (!run.run_name.args.empty())
                name += "/" + run.run_name.args;
            Sample& sample = m_samples[name];
            for (const auto& counter : run.counters)
                sample.counters[counter.first] = counter.second.value;
            if (run.run_type == Run::RT_Iteration) {
                sample.total += nanoseconds;
                sample.cpuTotal += cpuNanoseconds;
                ++sample.count;
            } else if (run.aggregate_name == "median") {
                sample.median = nanoseconds;
                sample.cpuMedian = cpuNanoseconds;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Nanoseconds per iteration (the median when the run was repeated), or a
    // negative value when not measured.
    double nanoseconds(const std::string& name) const { return figure(name, &Sample::total, &Sample::median); }

    // The same in CPU time, which a busy shared machine disturbs less.
    double cpuNanoseconds(const std::string& name) const
    {
        return figure(name, &Sample::cpuTotal, &Sample::cpuMedian);
    }

    // The last reported value of the user counter `counter` of `name`, or a
    // negative value when there is none.
    double counter(const std::string& name, const std::string& counter) const
    {
        const auto found = m_samples.find(name);
        if (found == m_samples.end())
            return -1.0;
        const auto value = found->second.counters.find(counter);
        return value == found->second.counters.end() ? -1.0 : value->second;
    }

private:
    struct Sample {
        std::map<std::string, double> counters;
        double total = 0;
        double cpuTotal = 0;
        int count = 0;
        double median = -1.0;
        double cpuMedian = -1.0;
    };

    static double nanosecondsPer(benchmark::TimeUnit unit)
    {
        switch (unit) {
        case benchmark::kSecond:
            return 1e9;
        case benchmark::kMillisecond:
            return 1e6;
        case benchmark::kMicrosecond:
            return 1e3;
        case benchmark::kNanosecond:
            break;
        }
        return 1.0;
    }

    double figure(const std::string& name, double Sample::*total, double Sample::*median) const
    {
        const auto found = m_samples.find(name);
        if (found == m_samples.end() || found->second.count == 0)
            return -1.0;
        if (found->second.*median >= 0)
            return found->second.*median;
        return found->second.*total / found->second.count;
    }

    std::map<std::string, Sample> m_samples;
};

// Runs the benchmarks selected on the command line through a recording
// reporter, then hands it to `summary`. The caller makes the application
// object first.
template <typename Summary>
int runWithReporter(int argc, char** argv, Summary summary)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    summary(reporter);
    benchmark::Shutdown();
    return 0;
}

} // namespace benchsupport

#endif
