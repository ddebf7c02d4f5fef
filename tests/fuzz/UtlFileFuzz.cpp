// Text and line reading over arbitrary file contents in each text type, and the name-part
// functions over arbitrary paths. Input: a selector byte, then the file contents or the path.
// Every line read must be terminated within its buffer, report its size, and advance the file;
// every name part must be a terminated text no longer than the path.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FuzzScratchFile.h"
#include "UtlFile.h"

namespace {

using utl::File;

#define REQUIRE(condition) ((condition) ? void() : std::abort())

const char* scratchPath() {
    return fuzzScratchPath("utlfilefuzz", "input");
}

void fuzzLines(int textType, const uint8_t* data, std::size_t size) {
    FILE* out = std::fopen(scratchPath(), "wb");
    REQUIRE(out != nullptr);
    REQUIRE(std::fwrite(data, 1, size, out) == size);
    std::fclose(out);

    File file(scratchPath(), textType);
    REQUIRE(file.open(File::OPEN_EXISTING, File::ACCESS_READ));
    char line[File::TEXT_LIMIT - 1];
    for (;;) {
        const long long before = file.position();
        unsigned int lineSize = 0;
        const int result = file.readLine(line, sizeof line, &lineSize);
        if (result == File::END_OF_FILE) {
            REQUIRE(before >= static_cast<long long>(size) - 1);
            break;
        }
        if (result < 0) {
            // Refused lines leave the position alone; skip the line as a caller would.
            REQUIRE(file.position() == before);
            unsigned int content = 0;
            unsigned int eol = 0;
            REQUIRE(file.findNextLineSize(0, &content, &eol) >= 0);
            REQUIRE(file.position() > before);
            continue;
        }
        REQUIRE(result > 0 && file.position() == before + result);
        REQUIRE(lineSize >= 1 && lineSize <= sizeof line && std::strlen(line) < lineSize);
    }
    file.seek(0, File::SEEK_FROM_BEGIN);
    char text[File::TEXT_LIMIT * 3 + 1];
    unsigned int textSize = 0;
    while (file.readText(text, sizeof text, 1000, 0, &textSize) > 0) {
        REQUIRE(textSize >= 1 && std::strlen(text) < textSize);
    }
}

void fuzzNameParts(const uint8_t* data, std::size_t size) {
    const std::string path(reinterpret_cast<const char*>(data), size);
    char out[File::PATH_BYTES];
    const char* p = path.c_str();
    const bool parts[] = {
        File::extractFileName(out, sizeof out, p, 0), File::extractFileName(out, sizeof out, p, 1),
        File::extractDirectoryPath(out, sizeof out, p), File::extractExtension(out, sizeof out, p),
        File::extractVolumeName(out, sizeof out, p)};
    for (bool ok : parts) {
        REQUIRE(ok == parts[0]);
    }
    if (parts[0]) {
        REQUIRE(std::strlen(p) < File::PATH_BYTES && std::strstr(p, "//") == nullptr);
        REQUIRE(std::strlen(out) <= std::strlen(p));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const int selector = data[0] % 5;
    if (selector == 4) {
        fuzzNameParts(data + 1, size - 1);
    } else {
        fuzzLines(selector, data + 1, size - 1);
    }
    return 0;
}
