// Copies, replacements and reversals of arbitrary bytes into heap buffers of exactly the given
// size, so that AddressSanitizer sees every overrun, with the invariants every result must keep.
//
// Input: the buffer size (first byte), then a text, a "from" and a "to" separated by zero bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "UtlString.h"

namespace {

constexpr unsigned int FAIL = ~0u;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool isCharBoundary(char c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte < 0x80 || (byte >> 5) == 6 || (byte >> 4) == 14 || (byte >> 3) == 30;
}

// A result is a failure or a text terminated within the buffer; returns that text.
std::string checkedText(unsigned int result, const std::vector<char>& buffer) {
    if (result == FAIL || result == 0) {
        return std::string();
    }
    require(result <= buffer.size());
    require(std::strlen(buffer.data()) == result - 1);
    return std::string(buffer.data(), result - 1);
}

bool startsWith(const std::string& whole, const std::string& prefix) {
    return whole.compare(0, prefix.size(), prefix) == 0;
}

// Whether `text` is valid UTF-8 throughout.
bool isValid(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const unsigned int length = utl::t_charlen(text.c_str() + at, nullptr);
        if (length == FAIL) {
            return false;
        }
        at += length;
    }
    return true;
}

// A truncated result is a prefix of the whole one; in a valid text it ends where a character
// starts (bytes of invalid sequences may be cut anywhere).
void checkCut(const std::string& cut, const std::string& whole) {
    require(startsWith(whole, cut));
    require(cut.size() == whole.size() || !isValid(whole) || isCharBoundary(whole[cut.size()]));
}

void fuzzCopy(const char* text, unsigned int size) {
    for (int truncate : {0, 1}) {
        std::vector<char> buffer(size);
        const unsigned int result = utl::copyStrBase(buffer.data(), size, text, ~0u, truncate);
        if (size == 0) {
            require(result == std::strlen(text) + 1);
            continue;
        }
        const std::string copied = checkedText(result, buffer);
        if (result != FAIL && truncate == 1) {
            checkCut(copied, text);
        } else if (result != FAIL) {
            require(copied == text);
        }
    }
}

void fuzzReplace(const char* text, const char* from, const char* to, unsigned int size) {
    // The whole result, when a buffer for every possible occurrence stays small.
    const std::size_t wholeSize = (std::strlen(text) + 1) * (std::strlen(to) + 1) + 1;
    std::vector<char> wholeBuffer(wholeSize <= 65536 ? wholeSize : 0);
    const unsigned int wholeResult =
        wholeBuffer.empty() ? FAIL
                            : utl::replaceStr(wholeBuffer.data(), wholeSize, text, from, to, 0);
    const std::string whole = checkedText(wholeResult, wholeBuffer);

    for (int truncate : {0, 1}) {
        std::vector<char> buffer(size);
        const unsigned int result = utl::replaceStr(buffer.data(), size, text, from, to, truncate);
        if (size == 0) {
            // Only an empty "from" makes a plain copy, which answers with the size needed.
            require(result == FAIL || *from == '\0');
            continue;
        }
        const std::string replaced = checkedText(result, buffer);
        if (result != FAIL && result != 0 && wholeResult != FAIL) {
            if (truncate == 1) {
                checkCut(replaced, whole);
            } else {
                require(replaced == whole);
            }
        }
        if (std::strlen(text) < size) {
            std::vector<char> inPlace(text, text + std::strlen(text) + 1);
            inPlace.resize(size);
            const unsigned int inPlaceResult =
                utl::replaceStr(inPlace.data(), size, from, to, truncate);
            require(inPlaceResult == result);
            require(checkedText(inPlaceResult, inPlace) == replaced);
        }
    }
}

void fuzzReverse(const char* text, unsigned int size) {
    const unsigned int length = static_cast<unsigned int>(std::strlen(text));
    std::vector<char> wholeBuffer(length + 1);
    const unsigned int wholeResult = utl::t_strrev(wholeBuffer.data(), length + 1, text, 0);
    const std::string whole = checkedText(wholeResult, wholeBuffer);
    for (int truncate : {0, 1}) {
        std::vector<char> buffer(size);
        const unsigned int result = utl::t_strrev(buffer.data(), size, text, truncate);
        const std::string reversed = checkedText(result, buffer);
        require(result == FAIL || wholeResult != FAIL);
        if (result != FAIL && truncate == 1) {
            checkCut(reversed, whole);
        } else if (result != FAIL) {
            require(reversed == whole);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) {
        return 0;
    }
    const unsigned int bufferSize = data[0];
    // Three zero-terminated parts; missing ones are empty.
    std::string input(reinterpret_cast<const char*>(data + 1), size - 1);
    input.append(3, '\0');
    const char* text = input.c_str();
    const char* from = text + std::strlen(text) + 1;
    const char* to = from + std::strlen(from) + 1;

    fuzzCopy(text, bufferSize);
    fuzzReplace(text, from, to, bufferSize);
    fuzzReverse(text, bufferSize);
    return 0;
}
