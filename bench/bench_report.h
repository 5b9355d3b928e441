// Shared pieces of the benchmark programs: a console reporter that remembers each run's real time
// per iteration (for the ratios printed at the end), and a report stream kept apart from the
// library's own chatter on stdout/stderr.
#ifndef LDC_BENCH_BENCH_REPORT_H
#define LDC_BENCH_BENCH_REPORT_H

#include <benchmark/benchmark.h>

#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &vstRuns) override
    {
        ConsoleReporter::ReportRuns(vstRuns);
        for (const Run &stRun : vstRuns) {
            if (stRun.run_type == Run::RT_Iteration && stRun.iterations > 0) {
                mapSeconds[stRun.run_name.function_name] = stRun.real_accumulated_time / (double)stRun.iterations;
            }
        }
    }

    // Prints "a / b = ratio" when both runs exist.
    void PrintRatio(std::ostream &stOut, const char *pcA, const char *pcB) const
    {
        const auto itA = mapSeconds.find(pcA);
        const auto itB = mapSeconds.find(pcB);
        if (itA != mapSeconds.end() && itB != mapSeconds.end()) {
            stOut << pcA << " / " << pcB << " = " << itA->second / itB->second << "\n";
        }
    }

    std::map<std::string, double> mapSeconds;
};

// The library logs every worker start on stderr and, on machines with fewer than four cores, an
// affinity warning per worker on stdout. The report goes to a copy of the original stdout; both
// standard streams go to /dev/null.
inline std::ofstream OpenReportStream()
{
    fflush(stdout);
    const int iFd = dup(1);
    std::ofstream stOut("/proc/self/fd/" + std::to_string(iFd));
    if (freopen("/dev/null", "w", stdout) == NULL || freopen("/dev/null", "w", stderr) == NULL) {
        perror("freopen");
    }
    return stOut;
}

#endif
