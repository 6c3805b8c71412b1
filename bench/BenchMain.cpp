// Entry of pelio_bench: Google Benchmark's usual main, with the service's log lines kept off
// standard error, and the process's peak resident memory (VmHWM) printed at the end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <string>

#include <pelio/platform/Log.h>

namespace {
std::string peakResident() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0)
            return " " + line.substr(line.find_first_not_of(" \t", 6));
    }
    return " unknown";
}
}  // namespace

int main(int argc, char** argv) {
    pelio::platform::setLogToStderr(false);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::printf("Peak resident memory (VmHWM):%s\n", peakResident().c_str());
    return 0;
}
