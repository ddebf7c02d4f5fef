// Logs arbitrary bytes as the argument of a line on every sink: whatever "%" sequences the bytes
// hold, no sink may read an argument that does not exist.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "UtlLog.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The lines go to standard output: keep them out of the fuzzer's own output.
    return std::freopen("/dev/null", "w", stdout) != nullptr ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string argument(reinterpret_cast<const char*>(data), size);
    applog(-2, 1, "received: %s", argument.c_str());
    rawlog(-2, 1, "%s", argument.c_str());
    return 0;
}
