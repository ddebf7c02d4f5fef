// Copies, replacements and reversals of arbitrary bytes into heap buffers of exactly the given
// size, so that AddressSanitizer sees every overrun. Input: the buffer size (first byte), then a
// text, a "from" and a "to" separated by zero bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "UtlString.h"

namespace {

constexpr unsigned int FAIL = ~0u;

// Aborts, which libFuzzer reports as a crash, unless `condition` holds.
#define REQUIRE(condition) ((condition) ? void() : std::abort())

// Runs `op(buffer, size, truncate)` on a heap buffer of exactly `size` bytes. The result is ~0u,
// 0 (nothing written) or at most `size`, with the text terminated right before it; returns the
// result and that text.
template <class Op>
std::pair<unsigned int, std::string> run(Op op, unsigned int size, int truncate) {
    std::vector<char> buffer(size);
    const unsigned int result = op(buffer.data(), size, truncate);
    if (result == FAIL || result == 0) {
        return {result, std::string()};
    }
    REQUIRE(result <= size && std::strlen(buffer.data()) == result - 1);
    return {result, std::string(buffer.data(), result - 1)};
}

// Checks `op` in a buffer of `size` bytes against its whole result in one of `wholeSize` bytes (0:
// unknown): untruncated, the same text; truncated, a prefix of it that, in a valid text, ends
// where a character starts. Returns the whole result.
template <class Op>
std::string check(Op op, unsigned int size, unsigned int wholeSize) {
    const auto [wholeResult, whole] =
        wholeSize != 0 ? run(op, wholeSize, 0) : std::make_pair(FAIL, std::string());
    const auto wholeLength = static_cast<unsigned int>(whole.size());
    const bool valid = utl::getNearCharIndex(whole.c_str(), wholeLength, 1) != FAIL;
    for (int truncate : {0, 1}) {
        const auto [result, text] = run(op, size, truncate);
        if (result == FAIL || result == 0 || wholeResult == FAIL) {
            continue;
        }
        REQUIRE(truncate == 1 || text == whole);
        REQUIRE(whole.compare(0, text.size(), text) == 0);
        REQUIRE(text.size() == whole.size() || !valid || (whole[text.size()] & 0xC0) != 0x80);
    }
    return whole;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || data[0] == 0) {
        return 0;
    }
    // Three zero-terminated parts; missing ones are empty.
    std::string input(reinterpret_cast<const char*>(data + 1), size - 1);
    input.append(3, '\0');
    const char* text = input.c_str();
    const char* from = text + std::strlen(text) + 1;
    const char* to = from + std::strlen(from) + 1;
    const unsigned int length = static_cast<unsigned int>(std::strlen(text));
    const unsigned int bufferSize = data[0];

    const std::string copied =
        check([&](char* b, unsigned int n, int t) { return utl::copyStrBase(b, n, text, ~0u, t); },
              bufferSize, length + 1);
    REQUIRE(copied == text);
    check([&](char* b, unsigned int n, int t) { return utl::t_strrev(b, n, text, t); }, bufferSize,
          length + 1);
    // A buffer for every possible occurrence, while it stays small.
    const std::size_t wholeSize = (length + 1) * (std::strlen(to) + 1) + 1;
    check([&](char* b, unsigned int n, int t) { return utl::replaceStr(b, n, text, from, to, t); },
          bufferSize, wholeSize <= 65536 ? static_cast<unsigned int>(wholeSize) : 0);
    return 0;
}
