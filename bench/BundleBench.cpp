// Bundle encoding and decoding of one ten-column row, the shape of a SELECT result record.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include <pelio/platform/Bundle.h>

using pelio::platform::Bundle;

namespace {

Bundle tenColumnRow() {
    Bundle row;
    for (int i = 0; i < 10; ++i)
        row.addStr("COL" + std::to_string(i), "value-of-column-" + std::to_string(i) + "-abcdef");
    return row;
}

void BM_BundleEncode10Columns(benchmark::State& state) {
    const Bundle row = tenColumnRow();
    for (auto _ : state) {
        std::vector<uint8_t> bytes = row.encode();
        benchmark::DoNotOptimize(bytes.data());
    }
}
BENCHMARK(BM_BundleEncode10Columns);

void BM_BundleDecode10Columns(benchmark::State& state) {
    const Bundle row = tenColumnRow();
    const std::vector<uint8_t> bytes = row.encode();
    for (auto _ : state) {
        auto decoded = Bundle::decode(bytes);
        if (!decoded || decoded->count() != 10) {
            state.SkipWithError("decode failed");
            break;
        }
        benchmark::DoNotOptimize(decoded);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(BM_BundleDecode10Columns);

}  // namespace
