// Throughput of the LZNT1 codec on one 64 KiB compression unit, the size the
// attribute paths hand it, for text-like and for random data: compression
// with both engines and expansion, each beside memcpy of the same bytes.
//
// Every benchmark reports MB/s (plain bytes per second of this thread's CPU
// time, so that other load on a shared machine does not count) and vs_memcpy,
// its throughput divided by that of memcpy over the same unit, measured once
// per run; compression also reports ratio, stream bytes per plain byte.
#include <benchmark/benchmark.h>

#include <time.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "data/compression.h"

namespace ntfs {
namespace {

constexpr size_t kUnitBytes = 65536;

using Bytes = std::vector<uint8_t>;

// This thread's CPU time in seconds.
double CpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Log-like text: numbered lines of words from a small vocabulary.
Bytes TextUnit() {
    static const char* const kWords[] = {"cluster", "sector",  "record", "index",      "volume",
                                         "bitmap",  "runlist", "the",    "of",         "attribute",
                                         "stream",  "sparse",  "a",      "compressed", "name"};
    std::mt19937 engine(1);
    std::string text;
    for (int line = 0; text.size() < kUnitBytes; ++line) {
        text += std::to_string(line) + ":";
        for (int w = 0, words = 3 + engine() % 9; w < words; ++w) {
            text += ' ';
            text += kWords[engine() % (sizeof(kWords) / sizeof(kWords[0]))];
        }
        text += ".\n";
    }
    return Bytes(text.begin(), text.begin() + kUnitBytes);
}

Bytes RandomUnit() {
    std::mt19937 engine(2);
    Bytes data(kUnitBytes);
    for (auto& b : data) b = static_cast<uint8_t>(engine());
    return data;
}

const Bytes& Unit(int kind) {
    static const Bytes text = TextUnit();
    static const Bytes random = RandomUnit();
    return kind == 0 ? text : random;
}

const char* KindName(int kind) {
    return kind == 0 ? "text" : "random";
}

// memcpy of one unit in bytes per second, measured once for about 50 ms.
double MemcpyRate() {
    static const double rate = [] {
        const Bytes& source = Unit(0);
        Bytes target(kUnitBytes);
        size_t rounds = 0;
        const double start = CpuSeconds();
        double elapsed = 0;
        while (elapsed < 0.05) {
            for (int i = 0; i < 64; ++i, ++rounds) {
                std::memcpy(target.data(), source.data(), kUnitBytes);
                benchmark::ClobberMemory();
            }
            elapsed = CpuSeconds() - start;
        }
        return static_cast<double>(rounds * kUnitBytes) / elapsed;
    }();
    return rate;
}

// Sets the MB/s and vs_memcpy counters from the loop's CPU time.
void Report(benchmark::State& state, double start) {
    const double seconds = CpuSeconds() - start;
    const double rate = static_cast<double>(state.iterations() * kUnitBytes) / seconds;
    state.counters["MB/s"] = rate / 1e6;
    state.counters["vs_memcpy"] = rate / MemcpyRate();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kUnitBytes));
}

void BM_Memcpy(benchmark::State& state) {
    const Bytes& source = Unit(static_cast<int>(state.range(0)));
    Bytes target(kUnitBytes);
    const double start = CpuSeconds();
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), kUnitBytes);
        benchmark::ClobberMemory();
    }
    Report(state, start);
    state.SetLabel(KindName(static_cast<int>(state.range(0))));
}

void BM_Compress(benchmark::State& state) {
    const uint16_t engine = static_cast<uint16_t>(state.range(0));
    const Bytes& source = Unit(static_cast<int>(state.range(1)));
    uint32_t workspaceBytes = 0, fragmentBytes = 0;
    if (QueryCompressionWorkspace(engine, &workspaceBytes, &fragmentBytes) != 0) {
        state.SkipWithError("engine not supported");
        return;
    }
    auto workspace = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    Bytes output(kUnitBytes);
    uint32_t finalSize = 0;
    const double start = CpuSeconds();
    for (auto _ : state) {
        // The attribute path's call: one unit into one unit of room.
        unsigned int code =
            CompressBuffer(engine, source.data(), kUnitBytes, output.data(), static_cast<int32_t>(kUnitBytes),
                           kLznt1ChunkBytes, &finalSize, workspace.get());
        benchmark::DoNotOptimize(code);
        benchmark::ClobberMemory();
    }
    Report(state, start);
    state.counters["ratio"] = static_cast<double>(finalSize) / kUnitBytes;
    state.SetLabel(std::string(engine == COMPRESSION_ENGINE_STANDARD ? "hashed " : "exhaustive ") +
                   KindName(static_cast<int>(state.range(1))));
}

void BM_Decompress(benchmark::State& state) {
    const Bytes& source = Unit(static_cast<int>(state.range(0)));
    auto workspace = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    Bytes stream(kUnitBytes / kLznt1ChunkBytes * kLznt1PlainChunkBytes + 2);
    uint32_t streamBytes = 0;
    (void)CompressBuffer(COMPRESSION_ENGINE_STANDARD, source.data(), kUnitBytes, stream.data(),
                         static_cast<int32_t>(stream.size()), kLznt1ChunkBytes, &streamBytes, workspace.get());
    Bytes output(kUnitBytes);
    int32_t finalSize = 0;
    const double start = CpuSeconds();
    for (auto _ : state) {
        unsigned int code =
            DecompressBuffer(output.data(), kUnitBytes, stream.data(), static_cast<int32_t>(streamBytes), &finalSize);
        benchmark::DoNotOptimize(code);
        benchmark::ClobberMemory();
    }
    Report(state, start);
    if (static_cast<size_t>(finalSize) != kUnitBytes || output != source) {
        state.SkipWithError("round trip failed");
    }
    state.SetLabel(KindName(static_cast<int>(state.range(0))));
}

BENCHMARK(BM_Memcpy)->Arg(0)->Arg(1);
BENCHMARK(BM_Compress)
    ->Args({COMPRESSION_ENGINE_STANDARD, 0})
    ->Args({COMPRESSION_ENGINE_STANDARD, 1})
    ->Args({COMPRESSION_ENGINE_MAXIMUM, 0})
    ->Args({COMPRESSION_ENGINE_MAXIMUM, 1})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Decompress)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace ntfs

BENCHMARK_MAIN();
