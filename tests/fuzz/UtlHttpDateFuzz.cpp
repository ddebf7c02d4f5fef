// HTTP dates of arbitrary bytes: whatever setHttpDate accepts must be a valid time that survives a
// round trip through getHttpDate and setHttpDate, and whatever it refuses must leave the object
// as it was. Input: the text (cut at its first zero byte).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "UtlTimepiece.h"

namespace {

// Aborts, which libFuzzer reports as a crash, unless `condition` holds.
#define REQUIRE(condition) ((condition) ? void() : std::abort())

const utl::Time kBefore(2011, 11, 11, 11, 11, 11, 11, 11, 11);

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    utl::Time parsed = kBefore;
    if (!parsed.setHttpDate(text.c_str())) {
        REQUIRE(parsed == kBefore);
        return 0;
    }
    REQUIRE(parsed.isValid() && parsed.millisecond() == 0 && parsed.microsecond() == 0 &&
            parsed.nanosecond() == 0);
    char http[64];
    if (!parsed.getHttpDate(http, sizeof http)) {
        return 0;
    }
    utl::Time again = kBefore;
    REQUIRE(again.setHttpDate(http) && again == parsed);
    return 0;
}
