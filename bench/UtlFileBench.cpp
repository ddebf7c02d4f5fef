// Line reading and block writing of utl::File beside the standard ways of doing the same: a
// 10 MiB text of 80-byte lines read with readLine against std::getline on an std::ifstream (UTF-8)
// and against std::getline plus glibc iconv per line (Shift_JIS, UTF-16LE); 64 KiB blocks
// written with File::write against write(2). The files are generated into a temporary directory
// when the benchmark starts. Bytes/s counts file bytes, so each pair reads off as a ratio.
#include "UtlFile.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <iconv.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "BenchTempDir.h"

namespace {

using utl::File;

constexpr std::size_t kTextBytes = 10u << 20;
constexpr std::size_t kLineBytes = 80;
constexpr std::size_t kBlockBytes = 64u << 10;
constexpr int kBlocks = 64;

const std::string& benchDir() {
    return utl_bench::benchTempDir("utlfilebench");
}

std::string madeFile(const std::string& name) {
    return benchDir() + "/" + name;
}

// Lines of 79 bytes plus LF, mixing ASCII with hiragana so that every encoding converts.
std::string utf8Text() {
    std::string line;
    while (line.size() + 20 <= kLineBytes - 1) {
        line += std::string(17, 'a') + "\xE3\x81\x82";
    }
    line.resize(kLineBytes - 1, 'a');
    std::string text;
    text.reserve(kTextBytes);
    while (text.size() + kLineBytes <= kTextBytes) {
        text += line + '\n';
    }
    return text;
}

std::string convert(const std::string& text, const char* to) {
    iconv_t cd = iconv_open(to, "UTF-8");
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        return std::string();
    }
    std::string out(text.size() * 2 + 16, '\0');
    char* in = const_cast<char*>(text.data());
    std::size_t inLeft = text.size();
    char* outPtr = &out[0];
    std::size_t outLeft = out.size();
    const bool ok = iconv(cd, &in, &inLeft, &outPtr, &outLeft) != static_cast<std::size_t>(-1);
    iconv_close(cd);
    out.resize(ok ? out.size() - outLeft : 0);
    return out;
}

// The sample file of one encoding, written once; empty when it could not be made.
std::string sampleFile(const char* encoding) {
    const std::string utf8 = utf8Text();
    const std::string bytes = std::string(encoding) == "UTF-8" ? utf8 : convert(utf8, encoding);
    if (benchDir().empty() || bytes.empty()) {
        return std::string();
    }
    const std::string path = madeFile(std::string(encoding) + ".txt");
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
}

void readLines(benchmark::State& state, const char* encoding, int textType) {
    const std::string path = sampleFile(encoding);
    if (path.empty()) {
        state.SkipWithError("sample file not made");
        return;
    }
    char line[File::TEXT_LIMIT - 1];
    for (auto _ : state) {
        File file(path.c_str(), textType);
        file.open(File::OPEN_EXISTING, File::ACCESS_READ);
        unsigned int size = 0;
        while (file.readLine(line, sizeof line, &size) > 0) {
            benchmark::DoNotOptimize(line);
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kTextBytes);
}

// std::getline on the file, each line converted to UTF-8 with iconv unless it already is.
void getLines(benchmark::State& state, const char* encoding) {
    const std::string path = sampleFile(encoding);
    const bool utf8 = std::string(encoding) == "UTF-8";
    iconv_t cd = utf8 ? reinterpret_cast<iconv_t>(-1) : iconv_open("UTF-8", encoding);
    if (path.empty() || (!utf8 && cd == reinterpret_cast<iconv_t>(-1))) {
        state.SkipWithError("sample file or iconv not available");
        return;
    }
    // UTF-16LE lines end in "\n\0": the delimiter is the LF byte and the zero byte is dropped.
    std::vector<char> out(4 * kLineBytes);
    for (auto _ : state) {
        std::ifstream in(path, std::ios::binary);
        std::string line;
        while (std::getline(in, line)) {
            if (!utf8) {
                if (std::string(encoding) == "UTF-16LE") {
                    in.get();
                }
                char* inPtr = &line[0];
                std::size_t inLeft = line.size();
                char* outPtr = out.data();
                std::size_t outLeft = out.size();
                iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft);
            }
            benchmark::DoNotOptimize(out.data());
            benchmark::DoNotOptimize(line.data());
        }
    }
    if (!utf8) {
        iconv_close(cd);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kTextBytes);
}

void BM_FileReadLineUtf8(benchmark::State& state) {
    readLines(state, "UTF-8", File::TEXT_UTF8);
}
void BM_StdGetlineUtf8(benchmark::State& state) {
    getLines(state, "UTF-8");
}
void BM_FileReadLineSjis(benchmark::State& state) {
    readLines(state, "SHIFT_JIS", File::TEXT_SJIS);
}
void BM_StdGetlineIconvSjis(benchmark::State& state) {
    getLines(state, "SHIFT_JIS");
}
void BM_FileReadLineUtf16le(benchmark::State& state) {
    readLines(state, "UTF-16LE", File::TEXT_UTF16LE);
}
void BM_StdGetlineIconvUtf16le(benchmark::State& state) {
    getLines(state, "UTF-16LE");
}

// Both write into a directory made by the library (mode 0777), as the library's writers do.
const std::string& writePath() {
    static const std::string path = [] {
        File::makeDirectories((benchDir() + "/out").c_str());
        return madeFile("out/write.bin");
    }();
    return path;
}

void BM_FileWrite64K(benchmark::State& state) {
    const std::string& path = writePath();
    const std::vector<char> block(kBlockBytes, 'w');
    File file(path.c_str(), File::TEXT_UTF8);
    for (auto _ : state) {
        state.PauseTiming();
        file.open(File::OPEN_TRUNCATE, File::ACCESS_WRITE);
        state.ResumeTiming();
        for (int i = 0; i < kBlocks; ++i) {
            file.write(block.data(), kBlockBytes);
        }
        state.PauseTiming();
        file.close();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBlocks * kBlockBytes);
}

void BM_PosixWrite64K(benchmark::State& state) {
    const std::string& path = writePath();
    const std::vector<char> block(kBlockBytes, 'w');
    for (auto _ : state) {
        state.PauseTiming();
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        state.ResumeTiming();
        for (int i = 0; i < kBlocks; ++i) {
            benchmark::DoNotOptimize(write(fd, block.data(), kBlockBytes));
        }
        state.PauseTiming();
        fsync(fd);
        close(fd);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBlocks * kBlockBytes);
}

BENCHMARK(BM_FileReadLineUtf8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdGetlineUtf8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileReadLineSjis)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdGetlineIconvSjis)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileReadLineUtf16le)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdGetlineIconvUtf16le)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileWrite64K)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PosixWrite64K)->Unit(benchmark::kMillisecond);

}  // namespace
