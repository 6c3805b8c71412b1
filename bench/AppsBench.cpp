// Applications: listing 1,000 installed applications from their desktop entries (what the
// applications collector asks the platform for on every sync).
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <pelio/platform/PackageManager.h>

#include "support/TempHome.h"

namespace {

constexpr int kApps = 1000;

void BM_AppsList1000(benchmark::State& state) {
    pelio::test::TempHome home;
    const std::string dir = home.dataHome() + "/applications";
    std::filesystem::create_directories(dir);
    for (int i = 0; i < kApps; ++i) {
        std::ofstream(dir + "/org.bench.app" + std::to_string(i) + ".desktop")
            << "[Desktop Entry]\nType=Application\nExec=true\nName=App " << i << "\n";
    }
    std::vector<pelio::platform::AppInfo> apps;
    for (auto _ : state) {
        pelio::platform::packageManager().listApplications(pelio::platform::AppDisplayFilter::Any,
                                                           "en_US", apps);
        if (apps.size() != kApps) {
            state.SkipWithError("the listing did not give 1,000 applications");
            break;
        }
    }
    state.counters["apps_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kApps, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_AppsList1000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
