// Opening a RIFF file of 10,000 sub-chunks (16 data bytes each), which walks every sub-chunk
// header to build the index, beside the plain way of doing the same walk: one pread(2) of each
// 8-byte header into a std::vector of offsets. Besides the time, each run reports the read system
// calls per sub-chunk, taken from the "syscr" line of /proc/self/io around the timed loop.
#include "UtlRiffFile.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

using utl::RiffFile;

constexpr uint32_t kSubChunks = 10000;
constexpr uint32_t kDataBytes = 16;

void putLe32(std::string* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out->push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    }
}

// The sample file, written once into a temporary directory that is removed at exit.
const std::string& sampleFile() {
    static const std::string file = [] {
        const char* base = std::getenv("TMPDIR");
        std::string dir = std::string(base != nullptr ? base : "/tmp") + "/utlriffbench.XXXXXX";
        if (mkdtemp(&dir[0]) == nullptr) {
            return std::string();
        }
        const std::string path = dir + "/many.riff";
        std::string bytes = "RIFF";
        putLe32(&bytes, 4 + kSubChunks * (8 + kDataBytes));
        bytes += "TEST";
        for (uint32_t i = 0; i < kSubChunks; ++i) {
            bytes += "data";
            putLe32(&bytes, kDataBytes);
            bytes.append(kDataBytes, static_cast<char>(i));
        }
        std::ofstream(path, std::ios::binary) << bytes;
        static std::string removeFile = path;
        static std::string removeDir = dir;
        std::atexit([] {
            unlink(removeFile.c_str());
            rmdir(removeDir.c_str());
        });
        return path;
    }();
    return file;
}

// Read-type system calls made by this process so far; -1 where /proc/self/io is unavailable.
long long readCalls() {
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value) {
        if (key == "syscr:") {
            return value;
        }
    }
    return -1;
}

void reportCalls(benchmark::State& state, long long before) {
    const long long after = readCalls();
    if (before >= 0 && after >= 0) {
        // The reading of /proc/self/io itself costs a few calls; they vanish in the division.
        state.counters["reads/subchunk"] = static_cast<double>(after - before) /
                                           (static_cast<double>(state.iterations()) * kSubChunks);
    }
    state.counters["subchunks/s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kSubChunks, benchmark::Counter::kIsRate);
}

void BM_RiffFileOpen(benchmark::State& state) {
    const std::string& path = sampleFile();
    RiffFile riff(path.c_str(), 0);
    const long long before = readCalls();
    for (auto _ : state) {
        if (riff.open(0, 0) != RiffFile::OPEN_SUCCESS || riff.getSubChunkNumber() != kSubChunks) {
            state.SkipWithError("open failed");
            break;
        }
        riff.close();
    }
    reportCalls(state, before);
}
BENCHMARK(BM_RiffFileOpen)->Unit(benchmark::kMillisecond);

void BM_PreadHeaderWalk(benchmark::State& state) {
    const std::string& path = sampleFile();
    std::vector<uint64_t> offsets;
    const long long before = readCalls();
    for (auto _ : state) {
        const int fd = ::open(path.c_str(), O_RDONLY);
        const off_t end = lseek(fd, 0, SEEK_END);
        offsets.clear();
        unsigned char header[8];
        for (off_t at = 12; at + 8 <= end;) {
            if (pread(fd, header, sizeof(header), at) != 8) {
                break;
            }
            offsets.push_back(static_cast<uint64_t>(at));
            const uint32_t size = header[4] | (header[5] << 8) | (header[6] << 16) |
                                  (static_cast<uint32_t>(header[7]) << 24);
            at += 8 + static_cast<off_t>(size);
        }
        ::close(fd);
        benchmark::DoNotOptimize(offsets.data());
    }
    reportCalls(state, before);
}
BENCHMARK(BM_PreadHeaderWalk)->Unit(benchmark::kMillisecond);

}  // namespace
