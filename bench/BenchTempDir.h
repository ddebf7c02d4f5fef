// Benchmark support: a temporary directory for the run.
#ifndef UTL_BENCH_BENCH_TEMP_DIR_H
#define UTL_BENCH_BENCH_TEMP_DIR_H

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

namespace utl_bench {

// A fresh directory under TMPDIR (or /tmp) named after `prefix`, removed with everything in it
// when the program exits; empty when it cannot be made. The first call decides the directory.
inline const std::string& benchTempDir(const char* prefix) {
    static std::string dir;
    if (dir.empty()) {
        const char* base = std::getenv("TMPDIR");
        std::string pattern =
            std::string(base != nullptr ? base : "/tmp") + "/" + prefix + ".XXXXXX";
        if (mkdtemp(&pattern[0]) != nullptr) {
            dir = pattern;
            std::atexit([] {
                nftw(
                    dir.c_str(),
                    [](const char* path, const struct stat*, int, FTW*) { return remove(path); },
                    16, FTW_DEPTH | FTW_PHYS);
            });
        }
    }
    return dir;
}

}  // namespace utl_bench

#endif  // UTL_BENCH_BENCH_TEMP_DIR_H
