// Classifies and converts arbitrary bytes. Input: a 4-byte attribute mask, a 2-byte word with the
// truncation switch in its top bit and the destination size below, then the text (cut at its
// first zero byte). Every conversion writes into a heap buffer of exactly that size, so that the
// sanitizers see any write past it.
#include "UtlCharAttrib.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Aborts, which libFuzzer reports as a crash, unless `condition` holds.
#define REQUIRE(condition) ((condition) ? void() : std::abort())

void checkBlocks(const char* text, int attrib) {
    const unsigned int block = utl::attribBlockSize(text, attrib);
    const std::size_t length = std::strlen(text);
    REQUIRE(block == ~0u || (block >= 1 && block <= (length == 0 ? 1 : length)));
    const bool whole = utl::isStrAttribBase(text, attrib);
    REQUIRE(!whole || block != ~0u);
    utl::isCharAttribBase(text, attrib);
}

void checkConversion(const char* text, unsigned int size, const utl::PairAttrib* pair,
                     int direction, int truncate) {
    std::vector<char> dst(size);
    const unsigned int written =
        utl::convertAttrib(dst.data(), size, text, pair, direction, truncate);
    // Size 0 only measures (the empty text answers with the size it needs).
    REQUIRE(written == ~0u || size == 0 ||
            (written <= size && written == std::strlen(dst.data()) + 1));
    // In place, through a buffer of exactly the text's size.
    std::vector<char> same(text, text + std::strlen(text) + 1);
    utl::convertAttrib(same.data(), static_cast<unsigned int>(same.size()), same.data(), pair,
                       direction, truncate);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 6) {
        return 0;
    }
    int32_t attrib = 0;
    uint16_t dstSize = 0;
    std::memcpy(&attrib, data, sizeof attrib);
    std::memcpy(&dstSize, data + 4, sizeof dstSize);
    const std::string text(reinterpret_cast<const char*>(data + 6), size - 6);

    checkBlocks(text.c_str(), attrib);
    const utl::PairAttrib* const pairs[] = {
        utl::HANKAKU_ZENKAKU_PAIR, utl::HANKATA_HIRAGANA_PAIR, utl::ZENKATA_HIRAGANA_PAIR,
        utl::LOWER_UPPER_PAIR,     utl::NODAKUON_DAKUON_PAIR,  utl::NODAKUON_HANDAKUON_PAIR};
    for (const utl::PairAttrib* pair : pairs) {
        for (int direction = 0; direction < 2; ++direction) {
            checkConversion(text.c_str(), dstSize & 0x7FFFu, pair, direction, dstSize >> 15);
        }
    }
    return 0;
}
