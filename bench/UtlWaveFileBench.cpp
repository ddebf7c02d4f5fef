// Sample data through utl::WaveFile beside plain write(2) / read(2) of the same bytes: 64 MiB in
// 64 KiB blocks after a 44-byte header, written into a fresh file and read back. Opening and
// closing stay outside the timing (the close brings the headers up to date and flushes), so each
// pair compares the per-block cost. Bytes/s counts sample bytes, so each pair reads off as a ratio.
#include "UtlWaveFile.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "BenchTempDir.h"
#include "UtlFile.h"

namespace {

using utl::WaveFile;

constexpr std::size_t kBlockBytes = 64u << 10;
constexpr int kBlocks = 1024;  // 64 MiB
// The plain files start with as many bytes as the WAVE header ("RIFF" header, "fmt " sub-chunk,
// "data" header), so that both sides move the same bytes at the same page alignment.
constexpr std::size_t kWaveHeaderBytes = 12 + 8 + 16 + 8;

const std::string& benchDir() {
    return utl_bench::benchTempDir("utlwavebench");
}

// The files sit in a directory made by File::makeDirectories, open to everybody as the library
// leaves its own directories; in a private one (mkdtemp's 0700) every File::write would open up
// the parent and close it again, four extra calls per block.
const std::string& outDir() {
    static const std::string dir = [] {
        const std::string path = benchDir() + "/out";
        utl::File::makeDirectories(path.c_str());
        return path;
    }();
    return dir;
}

std::string wavePath() {
    return outDir() + "/wave.wav";
}
std::string plainPath() {
    return outDir() + "/plain.bin";
}

void setBytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBlocks * kBlockBytes);
}

void BM_WaveFileWrite64K(benchmark::State& state) {
    const std::vector<char> block(kBlockBytes, 'w');
    WaveFile wave(wavePath().c_str());
    for (auto _ : state) {
        state.PauseTiming();
        wave.open(1, 1);
        wave.setFmtChunkData(48000, 2, 16, 1);
        wave.openSubChunk(0, WaveFile::CHUNK_DATA);
        state.ResumeTiming();
        for (int i = 0; i < kBlocks; ++i) {
            benchmark::DoNotOptimize(wave.write(block.data(), kBlockBytes));
        }
        state.PauseTiming();
        wave.close();
        state.ResumeTiming();
    }
    setBytes(state);
}

void BM_PosixWrite64K(benchmark::State& state) {
    const std::vector<char> block(kBlockBytes, 'w');
    const char header[kWaveHeaderBytes] = {};
    for (auto _ : state) {
        state.PauseTiming();
        const int fd = open(plainPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        benchmark::DoNotOptimize(write(fd, header, sizeof header));
        state.ResumeTiming();
        for (int i = 0; i < kBlocks; ++i) {
            benchmark::DoNotOptimize(write(fd, block.data(), kBlockBytes));
        }
        state.PauseTiming();
        fsync(fd);
        close(fd);
        state.ResumeTiming();
    }
    setBytes(state);
}

void BM_WaveFileRead64K(benchmark::State& state) {
    std::vector<char> block(kBlockBytes);
    WaveFile wave(wavePath().c_str());
    for (auto _ : state) {
        state.PauseTiming();
        wave.open(0, 0);
        wave.openSubChunk(0, WaveFile::CHUNK_DATA);
        state.ResumeTiming();
        for (int i = 0; i < kBlocks; ++i) {
            benchmark::DoNotOptimize(wave.read(block.data(), kBlockBytes));
        }
        state.PauseTiming();
        wave.close();
        state.ResumeTiming();
    }
    setBytes(state);
}

void BM_PosixRead64K(benchmark::State& state) {
    std::vector<char> block(kBlockBytes);
    char header[kWaveHeaderBytes];
    for (auto _ : state) {
        state.PauseTiming();
        const int fd = open(plainPath().c_str(), O_RDONLY);
        benchmark::DoNotOptimize(read(fd, header, sizeof header));
        state.ResumeTiming();
        for (int i = 0; i < kBlocks; ++i) {
            benchmark::DoNotOptimize(read(fd, block.data(), kBlockBytes));
        }
        state.PauseTiming();
        close(fd);
        state.ResumeTiming();
    }
    setBytes(state);
}

// The write benchmarks run first and leave the files that the read benchmarks read.
BENCHMARK(BM_WaveFileWrite64K)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PosixWrite64K)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WaveFileRead64K)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PosixRead64K)->Unit(benchmark::kMillisecond);

}  // namespace
