// Arbitrary bytes opened as a RIFF file and as a WAVE file. Every sub-chunk the RIFF file lists is
// opened and read to its end, and the WAVE file's data is read to its end: no read may return
// more than the file holds, and the walks must end (a zero or huge size included).
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "FuzzScratchFile.h"
#include "UtlRiffFile.h"
#include "UtlWaveFile.h"

namespace {

using utl::RiffFile;
using utl::SubChunkInfo;
using utl::WaveFile;

#define REQUIRE(condition) ((condition) ? void() : std::abort())

constexpr unsigned int kMaxListed = 64;

const char* scratchPath() {
    return fuzzScratchPath("utlrifffuzz", "input.wav");
}

// Reads the open sub-chunk to its end; the total never exceeds the bytes of the file.
template <typename Reader>
void readToEnd(Reader& reader, std::size_t fileSize) {
    unsigned char buffer[512];
    std::size_t total = 0;
    int got;
    while ((got = reader.read(buffer, sizeof buffer)) > 0) {
        REQUIRE(static_cast<unsigned int>(got) <= sizeof buffer);
        total += static_cast<std::size_t>(got);
        REQUIRE(total <= fileSize);
    }
    REQUIRE(got == -4 || got == -1);
}

void fuzzRiff(std::size_t size) {
    RiffFile riff(scratchPath(), 16);
    if (riff.open(0, 0) != RiffFile::OPEN_SUCCESS) {
        REQUIRE(!riff.isOpened());
        return;
    }
    const unsigned int count = riff.getSubChunkNumber();
    // Every header takes 8 bytes after the 12-byte file header.
    REQUIRE(count <= size / 8);
    SubChunkInfo list[kMaxListed];
    const int listed = riff.getSubChunkInfoList(list, kMaxListed);
    REQUIRE(listed < 0 || static_cast<unsigned int>(listed) == count);
    for (unsigned int number = 0; number < count; ++number) {
        if (riff.openSubChunk(number, 0)) {
            readToEnd(riff, size);
            REQUIRE(riff.closeSubChunk());
        }
    }
    riff.close();
}

void fuzzWave(std::size_t size) {
    WaveFile wave(scratchPath());
    if (wave.open(0, 0) != WaveFile::OPEN_OK) {
        REQUIRE(!wave.isOpened());
        return;
    }
    REQUIRE(wave.getChunkDataSize(WaveFile::CHUNK_FMT) >= WaveFile::FMT_BYTES);
    REQUIRE(wave.openSubChunk(0, WaveFile::CHUNK_DATA));
    readToEnd(wave, size);
    wave.close();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    FILE* out = std::fopen(scratchPath(), "wb");
    REQUIRE(out != nullptr);
    REQUIRE(std::fwrite(data, 1, size, out) == size);
    std::fclose(out);
    fuzzRiff(size);
    fuzzWave(size);
    return 0;
}
