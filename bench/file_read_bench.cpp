// Throughput of reading files through the volume's file interface, on the
// sample volume in memory: a plain non-resident file, a compressed one and a
// sparse one, read whole in 64 KiB calls, each beside memcpy of the same
// bytes (the physical limit of an in-memory device).
//
// Reports MB/s of file data and vs_memcpy, that throughput divided by
// memcpy's over the same number of bytes. The image is the committed sample
// volume, unpacked with zstd into a temporary file when the bench starts.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "memory_storage.h"
#include "ntfskit.h"

namespace ntfs {
namespace {

constexpr int kCallBytes = 1 << 16;

std::vector<uint8_t> LoadSample() {
    const std::string unpacked = "/tmp/ntfskit-bench-sample.img";
    const std::string command = "zstd -d -q -f " NTFSKIT_SAMPLE_VOLUME " -o " + unpacked;
    MemoryStorage storage;
    if (std::system(command.c_str()) != 0 || storage.LoadFile(unpacked) != 0) {
        std::fprintf(stderr, "cannot unpack the sample volume\n");
        std::exit(1);
    }
    std::remove(unpacked.c_str());
    return storage.Bytes();
}

double MemcpySeconds(size_t bytes) {
    std::vector<uint8_t> source(bytes, 1), target(bytes);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) {
        std::memcpy(target.data(), source.data(), bytes);
        benchmark::DoNotOptimize(target.data());
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / 20;
}

void ReadWholeFile(benchmark::State& state, const char16_t* path) {
    static const std::vector<uint8_t> image = LoadSample();
    MemoryStorage storage(image);
    CNTFSVolume volume(&storage);
    if (!volume.Mount()) {
        state.SkipWithError("mount failed");
        return;
    }
    std::vector<uint8_t> buffer(kCallBytes);
    int64_t bytes = 0;
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        void* file = volume.CreateFileA(path, 0, kOpenExisting, kAccessRead | kAccessShareMask);
        int done = 0;
        do {
            volume.ReadFile(file, buffer.data(), kCallBytes, &done);
            bytes += done;
        } while (done > 0);
        volume.CloseFileHandle(file);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetBytesProcessed(bytes);
    const double perIteration = static_cast<double>(bytes) / static_cast<double>(state.iterations());
    const double rate = static_cast<double>(bytes) / seconds;
    const double memcpyRate = perIteration / MemcpySeconds(static_cast<size_t>(perIteration));
    state.counters["MB/s"] = rate / 1e6;
    state.counters["vs_memcpy"] = rate / memcpyRate;
    volume.Umount();
}

void BM_ReadPlainFile(benchmark::State& state) {
    ReadWholeFile(state, u"\\data\\Large Text File.log");
}
void BM_ReadCompressedFile(benchmark::State& state) {
    ReadWholeFile(state, u"\\compressed\\text-300k.txt");
}
void BM_ReadSparseFile(benchmark::State& state) {
    ReadWholeFile(state, u"\\sparse\\islands.bin");
}

BENCHMARK(BM_ReadPlainFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadCompressedFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadSparseFile)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace ntfs

BENCHMARK_MAIN();
