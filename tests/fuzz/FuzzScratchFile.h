// Fuzzer support: one scratch file for the whole run.
#ifndef UTL_TESTS_FUZZ_FUZZ_SCRATCH_FILE_H
#define UTL_TESTS_FUZZ_FUZZ_SCRATCH_FILE_H

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>

// The path of a scratch file named `name` in a fresh directory under TMPDIR or /tmp (named after
// `prefix`), which is removed at exit. The first call decides both; aborts when the directory
// cannot be made.
inline const char* fuzzScratchPath(const char* prefix, const char* name) {
    static char directory[4096];
    static char path[4096 + 64];
    if (path[0] == '\0') {
        const char* base = std::getenv("TMPDIR");
        std::snprintf(directory, sizeof directory, "%s/%s.XXXXXX", base != nullptr ? base : "/tmp",
                      prefix);
        if (mkdtemp(directory) == nullptr) {
            std::abort();
        }
        std::snprintf(path, sizeof path, "%s/%s", directory, name);
        std::atexit([] {
            unlink(path);
            rmdir(directory);
        });
    }
    return path;
}

#endif  // UTL_TESTS_FUZZ_FUZZ_SCRATCH_FILE_H
