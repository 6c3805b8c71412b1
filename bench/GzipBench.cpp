// UMgrGzip: compression of an upload body of 100 contact documents (about 50 KB of JSON) and of a
// 1 MB reply, and decompression of both.
#include <benchmark/benchmark.h>
#include <pelio/CHandles.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "utils/UMgrGzip.h"

namespace {

constexpr int kLevel = 6;  // the uploader's level

// Forty characters that differ from document to document, so that the bodies do not compress
// better than real ones.
std::string noteText(int i) {
    static const char kHex[] = "0123456789abcdef";
    unsigned state = 2166136261u ^ static_cast<unsigned>(i);
    std::string out;
    for (int k = 0; k < 40; ++k) {
        state = state * 1103515245u + 12345u;
        out += kHex[(state >> 16) & 15];
    }
    return out;
}

// One contact document of roughly 500 bytes, shaped like the composer's output.
std::string contactDocument(int i) {
    const std::string n = std::to_string(i);
    return "{\"_id\":\"con_" + std::string(8 - std::min<size_t>(8, n.size()), '0') + n +
           "\",\"doc_number\":" + n + ",\"device_mode\":0,\"contact\":{\"display_name\":\"Person " +
           n + "\",\"first_name\":\"First" + n + "\",\"last_name\":\"Last" + n +
           "\",\"middle_name\":\"\",\"nickname\":\"\",\"phonetic_name\":\"\",\"prefix\":\"\","
           "\"suffix\":\"\",\"starred\":false,\"times_contacted\":0,\"numbers\":[{\"label\":"
           "\"Mobile\",\"client_value\":\"" +
           n +
           "\",\"type\":\"64\",\"is_default\":true}],\"emails\":[],\"addresses\":[],"
           "\"events\":[]},\"timestamp\":\"2026-11-22 10:00:00\",\"updated_millis\":"
           "1795000000000.0,\"note\":\"" +
           noteText(i) + "\"}";
}

std::string bodyOf(size_t targetBytes) {
    std::string body = "{\"docs\":[";
    for (int i = 0; body.size() < targetBytes; ++i) {
        if (i)
            body += ",";
        body += contactDocument(i);
    }
    return body + "]}";
}

std::string contactsBody() {
    std::string body = "{\"docs\":[";
    for (int i = 0; i < 100; ++i) {
        if (i)
            body += ",";
        body += contactDocument(i);
    }
    return body + "]}";
}

using Buffer = pelio::MallocPtr<unsigned char>;

std::vector<unsigned char> compressed(const std::string& source) {
    unsigned char* raw = nullptr;
    int size = 0;
    UMgrGzip().compress(source, kLevel, &raw, &size);
    Buffer owned(raw);
    return raw ? std::vector<unsigned char>(raw, raw + size) : std::vector<unsigned char>();
}

void compressBench(benchmark::State& state, const std::string& source) {
    for (auto _ : state) {
        unsigned char* raw = nullptr;
        int size = 0;
        UMgrGzip().compress(source, kLevel, &raw, &size);
        Buffer owned(raw);
        if (!raw || size <= 0) {
            state.SkipWithError("compress produced nothing");
            break;
        }
        benchmark::DoNotOptimize(raw);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(source.size()));
    state.counters["input_bytes"] = static_cast<double>(source.size());
    state.counters["ratio"] = static_cast<double>(source.size()) /
                              static_cast<double>(std::max<size_t>(1, compressed(source).size()));
}

void decompressBench(benchmark::State& state, const std::string& source) {
    const std::vector<unsigned char> packed = compressed(source);
    for (auto _ : state) {
        std::string text;
        UMgrGzip().deCompress(packed.data(), packed.size(), text);
        if (text.size() != source.size()) {
            state.SkipWithError("round trip lost bytes");
            break;
        }
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(source.size()));
}

void BM_GzipCompressContactsBody100(benchmark::State& state) {
    compressBench(state, contactsBody());
}
BENCHMARK(BM_GzipCompressContactsBody100)->Unit(benchmark::kMicrosecond);

void BM_GzipDecompressContactsBody100(benchmark::State& state) {
    decompressBench(state, contactsBody());
}
BENCHMARK(BM_GzipDecompressContactsBody100)->Unit(benchmark::kMicrosecond);

void BM_GzipCompressReply1MB(benchmark::State& state) {
    compressBench(state, bodyOf(1 << 20));
}
BENCHMARK(BM_GzipCompressReply1MB)->Unit(benchmark::kMillisecond);

void BM_GzipDecompressReply1MB(benchmark::State& state) {
    decompressBench(state, bodyOf(1 << 20));
}
BENCHMARK(BM_GzipDecompressReply1MB)->Unit(benchmark::kMillisecond);

}  // namespace
