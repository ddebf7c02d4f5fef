#include "UtlCharConvert.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <string>

#include "UtlMemory.h"
#include "UtlString.h"

static_assert(sizeof(wchar_t) == 4, "wide text is UTF-32 on the Linux targets");

namespace {

// UTF-8 bytes as a big-endian number (U+3042: 0xE38182) and the number's length in bytes.
constexpr uint32_t packUtf8(uint32_t cp) {
    if (cp < 0x80) {
        return cp;
    }
    if (cp < 0x800) {
        return 0xC080 | (cp >> 6) << 8 | (cp & 0x3F);
    }
    if (cp < 0x10000) {
        return 0xE08080 | (cp >> 12) << 16 | ((cp >> 6) & 0x3F) << 8 | (cp & 0x3F);
    }
    return 0xF0808080 | (cp >> 18) << 24 | ((cp >> 12) & 0x3F) << 16 | ((cp >> 6) & 0x3F) << 8 |
           (cp & 0x3F);
}

constexpr unsigned int packedLength(uint32_t packed) {
    return packed > 0xFFFFFF ? 4 : packed > 0xFFFF ? 3 : packed > 0xFF ? 2 : 1;
}

// A code point that UTF-8 and UTF-32 may carry: not a surrogate, not above U+10FFFF.
constexpr bool isScalarValue(uint32_t cp) {
    return cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF);
}

// qv_mbtowc and qv_wctomb answer an int; they use a larger destination only up to INT_MAX units.
unsigned int usableSize(unsigned int size) {
    return size < INT_MAX ? size : INT_MAX;
}

// Stores the `n` low bytes of a big-endian number at `dst`, most significant first.
template <class Unit>
void storeBytes(Unit* dst, uint32_t packed, unsigned int n) {
    switch (n) {
        case 4:
            *dst++ = static_cast<Unit>(packed >> 24);
            [[fallthrough]];
        case 3:
            *dst++ = static_cast<Unit>(packed >> 16);
            [[fallthrough]];
        case 2:
            *dst++ = static_cast<Unit>(packed >> 8);
            [[fallthrough]];
        default:
            *dst = static_cast<Unit>(packed);
    }
}

}  // namespace

namespace utl {

namespace {

constexpr unsigned int kFailure = ~0u;
constexpr uint16_t kReferenceMark = 0x203B;
constexpr uint16_t kAsterisk = '*';
constexpr uint16_t kNoPosition = 0xFFFF;

const unsigned char* bytesOf(const char* s) {
    return reinterpret_cast<const unsigned char*>(s);
}

void setUsed(unsigned int* used, unsigned int bytes) {
    if (used != nullptr) {
        *used = bytes;
    }
}

// strlen or wcslen plus 1 for the terminator; kFailure when that is not below it (a text of
// 4 GiB, only possible on a 64-bit host).
template <class Char>
unsigned int textSize(const Char* s) {
    const std::size_t size = std::char_traits<Char>::length(s) + 1;
    return size < kFailure ? static_cast<unsigned int>(size) : kFailure;
}

// --- Output of the string forms: the same conversion loop either counts (size 0) or writes.

class CountingOutput {
  public:
    bool put(uint32_t /*value*/, unsigned int n) {
        mCount += n;
        return true;
    }
    unsigned int finish() const {
        return mCount + 1 < kFailure ? static_cast<unsigned int>(mCount + 1) : kFailure;
    }

  private:
    uint64_t mCount = 0;  // Wider than the result: the output may outgrow a 32-bit count.
};

// Writes into `size` (at least 1) units at `dst`; each put fails, writing nothing, unless it
// leaves room for the terminator, so the buffer is never overrun.
template <class Unit>
class BufferOutput {
  public:
    BufferOutput(Unit* dst, unsigned int size) : mDst(dst), mSize(size), mPos(0) {}

    // Appends the `n` low bytes of `value`, most significant first (a UTF-16 unit: n = 1).
    bool put(uint32_t value, unsigned int n) {
        if (n >= mSize - mPos) {
            return false;
        }
        storeBytes(mDst + mPos, value, n);
        mPos += n;
        return true;
    }

    unsigned int finish() {
        mDst[mPos] = 0;
        return mPos + 1;
    }

  private:
    Unit* mDst;
    unsigned int mSize;
    unsigned int mPos;
};

// The frame of every string form: the source check, the size query, the destination check.
// `convert(out)` runs the conversion loop and answers false for failure.
template <class Unit, class Source, class Convert>
unsigned int convertString(Unit* dst, unsigned int size, const Source* src, Convert convert) {
    if (src == nullptr) {
        return kFailure;
    }
    if (size == 0) {
        CountingOutput out;
        return convert(out) ? out.finish() : kFailure;
    }
    if (dst == nullptr) {
        return kFailure;
    }
    BufferOutput<Unit> out(dst, size);
    return convert(out) ? out.finish() : kFailure;
}

// --- Long texts: the room is checked once per block of characters, not per character.

// How a fast loop leaves its block: all converted, the text ended early, or the text is refused.
enum class Flow { kGoOn, kEnd, kFail };

// Writes the text at `s` into `size` (at least 1) units at `dst` in blocks: the characters that
// start within the next `block` bytes give at most `block * kMaxUnits` units, so while that fits
// before the terminator's place, `fast(s, blockEnd, d)` converts them without checking the room
// and advances `s` and `d`. Once the room allows only short blocks, `checked(s, out)`, the loop
// with per-character checks, finishes the text, so a tight buffer fails where it did before.
template <unsigned int kMaxUnits, class Unit, class Fast, class Checked>
unsigned int writeInBlocks(Unit* dst, unsigned int size, const unsigned char* s, Fast fast,
                           Checked checked) {
    constexpr std::size_t kShortBlock = 16;
    const unsigned char* const textEnd = s + std::strlen(reinterpret_cast<const char*>(s));
    Unit* d = dst;
    Unit* const last = dst + (size - 1);  // The terminator's place in a full buffer.
    for (;;) {
        const auto left = static_cast<std::size_t>(textEnd - s);
        const std::size_t block = std::min(left, static_cast<std::size_t>(last - d) / kMaxUnits);
        if (block < left && block < kShortBlock) {
            break;
        }
        const Flow flow = fast(s, s + block, d);
        if (flow == Flow::kFail) {
            return kFailure;
        }
        if (flow == Flow::kEnd || s == textEnd) {
            *d = 0;
            return static_cast<unsigned int>(d - dst) + 1;
        }
    }
    const auto written = static_cast<unsigned int>(d - dst);
    BufferOutput<Unit> out(d, size - written);
    return checked(s, out) ? written + out.finish() : kFailure;
}

// The frame of the string forms with a fast loop: as convertString, with `checked(s, out)` for
// the size query and the end of a tight buffer.
template <unsigned int kMaxUnits, class Unit, class Fast, class Checked>
unsigned int convertLongString(Unit* dst, unsigned int size, const char* src, Fast fast,
                               Checked checked) {
    if (src == nullptr) {
        return kFailure;
    }
    if (size == 0) {
        CountingOutput out;
        return checked(bytesOf(src), out) ? out.finish() : kFailure;
    }
    if (dst == nullptr) {
        return kFailure;
    }
    return writeInBlocks<kMaxUnits>(dst, size, bytesOf(src), fast, checked);
}

// Copies bytes below 0x80 at `s` into `d` as they are, eight at a time while eight remain before
// `end`, then one at a time; stops at `end` or the first other byte.
template <class Unit>
inline void copyAscii(const unsigned char*& s, const unsigned char* end, Unit*& d) {
    constexpr uint64_t kHighBits = 0x8080808080808080u;
    while (end - s >= 8) {
        uint64_t eight = 0;
        std::memcpy(&eight, s, 8);
        if ((eight & kHighBits) != 0) {
            break;
        }
        for (unsigned int i = 0; i < 8; ++i) {
            d[i] = static_cast<Unit>(s[i]);
        }
        s += 8;
        d += 8;
    }
    while (s < end && *s < 0x80) {
        *d++ = static_cast<Unit>(*s++);
    }
}

// The `n` bytes of `packed` for a character form (no terminator): the count for size 0.
unsigned int putCharBytes(char* dst, unsigned int size, uint32_t packed, unsigned int n) {
    if (size == 0) {
        return n;
    }
    if (dst == nullptr || size < n) {
        return kFailure;
    }
    storeBytes(dst, packed, n);
    return n;
}

// --- Shift_JIS input

// What a Shift_JIS byte starts: a byte taken as it is (length 0), a single-byte code (length 1,
// index row 0) or a double-byte code (length 2, the row of this first byte in the index).
struct SjisByteClass {
    uint8_t length;
    uint8_t row;
};

struct SjisByteTable {
    SjisByteClass of[256];
};

constexpr bool isSjisFirstByte(unsigned int b) {
    return (b >= 0x81 && b <= 0x9F) || (b >= 0xE0 && b <= 0xEF) || (b >= 0xFA && b <= 0xFC);
}

constexpr SjisByteTable makeSjisByteTable() {
    SjisByteTable table{};
    uint8_t row = 0;
    for (unsigned int b = 0; b < 256; ++b) {
        if (isSjisFirstByte(b)) {
            table.of[b] = {2, ++row};
        } else if (b >= 0xA1 && b <= 0xDF) {
            table.of[b] = {1, 0};
        }
    }
    return table;
}

constexpr SjisByteTable kSjisBytes = makeSjisByteTable();

const SjisCodeEntry* sjisEntryAt(unsigned int row, unsigned int low) {
    const uint16_t position = detail::SJIS_CODE_INDEX[row * 256 + low];
    return position == kNoPosition ? nullptr : &SJIS_CODE_TBL[position];
}

// One Shift_JIS character as the converters see it.
struct SjisChar {
    unsigned int used;           // Input bytes.
    unsigned int length;         // As in SjisByteClass.
    unsigned char first;         // The first byte.
    const SjisCodeEntry* entry;  // The code's table entry; null when unmapped or not a code.
};

// The terminator reads as a zero byte taken as it is.
inline SjisChar readSjis(const unsigned char* s) {
    const unsigned char first = s[0];
    const SjisByteClass byteClass = kSjisBytes.of[first];
    if (byteClass.length == 0) {
        return {1, 0, first, nullptr};
    }
    if (byteClass.length == 1) {
        return {1, 1, first, sjisEntryAt(0, first)};
    }
    // A first byte at the end pairs with the terminator: slot 0 of its row, which is never mapped.
    const unsigned char second = s[1];
    return {second != 0 ? 2u : 1u, 2, first, sjisEntryAt(byteClass.row, second)};
}

// The output for `c` taken from `field` of its entry; a byte taken as it is stays itself, and a
// code without mapping becomes `single` or `dual` by its length.
template <class T>
T outputOf(const SjisChar& c, T SjisCodeEntry::*field, T single, T dual) {
    if (c.entry != nullptr) {
        return c.entry->*field;
    }
    if (c.length == 0) {
        return c.first;
    }
    return c.length == 1 ? single : dual;
}

template <class Output>
bool sjisToUtf8(const unsigned char* s, Output& out) {
    while (*s != 0) {
        const SjisChar c = readSjis(s);
        const uint32_t packed = outputOf<uint32_t>(c, &SjisCodeEntry::mUtf8, kAsterisk, 0);
        if (!out.put(packed, packedLength(packed))) {
            return false;
        }
        s += c.used;
    }
    return true;
}

// The UTF-8 bytes of a UTF-16 unit at `d`; the unit 0 gives one zero byte. Returns the bytes.
inline unsigned int storeUtf8(char* d, unsigned int unit) {
    if (unit >= 0x800) {
        d[0] = static_cast<char>(0xE0 | unit >> 12);
        d[1] = static_cast<char>(0x80 | (unit >> 6 & 0x3F));
        d[2] = static_cast<char>(0x80 | (unit & 0x3F));
        return 3;
    }
    if (unit >= 0x80) {
        d[0] = static_cast<char>(0xC0 | unit >> 6);
        d[1] = static_cast<char>(0x80 | (unit & 0x3F));
        return 2;
    }
    d[0] = static_cast<char>(unit);
    return 1;
}

// At most 3 bytes per character. Works as sjisToUtf8, with the UTF-16 unit of each code read
// straight from SJIS_UTF16_INDEX and encoded here: one look-up instead of two dependent ones.
Flow sjisToUtf8Fast(const unsigned char*& s, const unsigned char* end, char*& d) {
    while (s < end) {
        if (*s < 0x80) {
            copyAscii(s, end, d);
            continue;
        }
        const SjisByteClass byteClass = kSjisBytes.of[*s];
        if (byteClass.length == 0) {
            *d++ = static_cast<char>(*s++);
            continue;
        }
        if (s[1] == 0 && byteClass.length == 2) {
            *d++ = 0;  // A first byte cut by the end: no mapping.
            ++s;
            continue;
        }
        // Branches, not a computed step, so that the next character need not wait for s[1].
        unsigned int unit = 0;
        if (byteClass.length == 1) {
            unit = detail::SJIS_UTF16_INDEX[*s];
            unit = unit != 0 ? unit : kAsterisk;
            s += 1;
        } else {
            unit = detail::SJIS_UTF16_INDEX[byteClass.row * 256 + s[1]];
            s += 2;
        }
        d += storeUtf8(d, unit);
    }
    return Flow::kGoOn;
}

template <class Output>
bool sjisToUtf16(const unsigned char* s, Output& out) {
    while (*s != 0) {
        const SjisChar c = readSjis(s);
        if (!out.put(outputOf(c, &SjisCodeEntry::mUtf16, kAsterisk, kReferenceMark), 1)) {
            return false;
        }
        s += c.used;
    }
    return true;
}

// --- UTF-8 input to Shift_JIS

// What a UTF-8 first byte starts for the Shift_JIS conversion: a byte that passes through
// (length 0) or a sequence of 2 or 3 bytes looked up in the block of the index at `base`.
struct Utf8LeadClass {
    uint8_t length;
    uint16_t base;
};

struct Utf8LeadTable {
    Utf8LeadClass of[256];
};

constexpr unsigned int lookupLength(unsigned int b) {
    return b >= 0xC2 && b <= 0xD1 ? 2 : (b >= 0xE2 && b <= 0xE9) || b == 0xEF ? 3 : 0;
}

// Blocks of 64 slots for the two-byte leads, then of 4096 for the three-byte ones, each group in
// ascending order of the first byte.
constexpr Utf8LeadTable makeUtf8LeadTable() {
    Utf8LeadTable table{};
    unsigned int base = 0;
    for (unsigned int length = 2; length <= 3; ++length) {
        for (unsigned int b = 0; b < 256; ++b) {
            if (lookupLength(b) == length) {
                table.of[b] = {static_cast<uint8_t>(length), static_cast<uint16_t>(base)};
                base += length == 2 ? 64 : 4096;
            }
        }
    }
    return table;
}

constexpr Utf8LeadTable kUtf8Leads = makeUtf8LeadTable();

// The Shift_JIS code of a looked-up sequence (`third` is 0x80 for a two-byte one), or 0. Table
// keys are well-formed, so a following byte outside 80-BF has no code; the others select the
// slot by their low six bits.
inline uint16_t sjisCodeOf(Utf8LeadClass lead, unsigned int second, unsigned int third) {
    const unsigned int low2 = second ^ 0x80;
    const unsigned int low3 = third ^ 0x80;
    if ((low2 | low3) >= 0x40) {
        return 0;
    }
    const unsigned int slot = lead.length == 2 ? low2 : low2 << 6 | low3;
    return detail::UTF8_CODE_INDEX[lead.base + slot];
}

// One UTF-8 character as the Shift_JIS conversion sees it.
struct Utf8Char {
    unsigned int used;  // Input bytes.
    bool lookedUp;      // False for a byte that passes through.
    uint16_t code;      // The Shift_JIS code to write: the byte itself, a looked-up code, or 0.
};

// Bytes that follow a first byte are read only up to the terminator; a sequence cut by it has no
// code. The terminator itself reads as a byte that passes through.
inline Utf8Char readUtf8(const unsigned char* s) {
    const Utf8LeadClass lead = kUtf8Leads.of[s[0]];
    if (lead.length == 0) {
        return {1, false, s[0]};
    }
    if (s[1] == 0) {
        return {1, true, 0};
    }
    if (lead.length == 2) {
        return {2, true, sjisCodeOf(lead, s[1], 0x80)};
    }
    if (s[2] == 0) {
        return {2, true, 0};
    }
    return {3, true, sjisCodeOf(lead, s[1], s[2])};
}

template <class Output>
bool utf8ToSjis(const unsigned char* s, Output& out) {
    while (*s != 0) {
        const Utf8Char c = readUtf8(s);
        if (!out.put(c.code, c.code > 0xFF ? 2 : 1)) {
            return false;
        }
        s += c.used;
    }
    return true;
}

// At most 2 bytes per character. Works as utf8ToSjis.
Flow utf8ToSjisFast(const unsigned char*& s, const unsigned char* end, char*& d) {
    while (s < end) {
        if (*s < 0x80) {
            copyAscii(s, end, d);
            continue;
        }
        const Utf8Char c = readUtf8(s);
        if (c.code > 0xFF) {
            *d++ = static_cast<char>(c.code >> 8);
        }
        *d++ = static_cast<char>(c.code);
        s += c.used;
    }
    return Flow::kGoOn;
}

// --- UTF-16

int byteOrderMarkOf(uint32_t unit) {
    return unit == 0xFEFF ? 1 : unit == 0xFFFE ? 2 : 0;
}

template <class Output>
bool utf16ToUtf8(const unsigned short* s, Output& out) {
    for (; *s != 0; ++s) {
        const uint32_t packed = packUtf8(*s);
        if (byteOrderMarkOf(*s) != 0 || !out.put(packed, packedLength(packed))) {
            return false;
        }
    }
    return true;
}

// The length of a well-formed character of 1 to 3 bytes at `s` (not the terminator), with its
// unit in `*unit`; 0 for anything else. It accepts exactly what strCharBytesBase accepts with
// these lengths: the string conversion measures the common characters here, without a call, and
// leaves the rest to strCharBytesBase.
inline unsigned int readPlainChar(const unsigned char* s, uint32_t* unit) {
    const unsigned int first = s[0];
    if (first < 0x80) {
        *unit = first;
        return 1;
    }
    const unsigned int low2 = s[1] ^ 0x80u;
    if (first < 0xC2 || first >= 0xF0 || low2 >= 0x40) {
        return 0;
    }
    if (first < 0xE0) {
        *unit = (first & 0x1F) << 6 | low2;
        return 2;
    }
    // The second byte is a following byte, so the third is still within the text.
    const unsigned int low3 = s[2] ^ 0x80u;
    if (low3 >= 0x40 || (first == 0xE0 && low2 < 0x20)) {
        return 0;
    }
    *unit = (first & 0x0F) << 12 | low2 << 6 | low3;
    return 3;
}

template <class Output>
bool utf8ToUtf16(const unsigned char* s, Output& out) {
    while (*s != 0) {
        uint32_t unit = 0;
        unsigned int length = readPlainChar(s, &unit);
        if (length == 0) {
            length = strCharBytesBase(reinterpret_cast<const char*>(s), nullptr);
            if (length == kFailure) {
                return false;
            }
            if (length == 0) {
                return true;  // A cut or malformed sequence ends the text.
            }
            unit = kReferenceMark;  // Four bytes, beyond UTF-16 units.
        }
        if (!out.put(unit, 1)) {
            return false;
        }
        s += length;
    }
    return true;
}

// One unit per character. Works as utf8ToUtf16, trying the three-byte characters of Japanese
// text first.
Flow utf8ToUtf16Fast(const unsigned char*& s, const unsigned char* end, unsigned short*& d) {
    while (s < end) {
        if (*s < 0x80) {
            copyAscii(s, end, d);
            continue;
        }
        const unsigned int low2 = s[1] ^ 0x80u;
        if (*s >= 0xE1 && *s <= 0xEF && low2 < 0x40 && (s[2] ^ 0x80u) < 0x40) {
            // Three bytes without an overlong form: most of the characters of Japanese text.
            *d++ = static_cast<unsigned short>((*s & 0x0F) << 12 | low2 << 6 | (s[2] & 0x3F));
            s += 3;
            continue;
        }
        uint32_t unit = 0;
        unsigned int length = readPlainChar(s, &unit);
        if (length == 0) {
            length = strCharBytesBase(reinterpret_cast<const char*>(s), nullptr);
            if (length == kFailure) {
                return Flow::kFail;
            }
            if (length == 0) {
                return Flow::kEnd;
            }
            unit = kReferenceMark;
        }
        *d++ = static_cast<unsigned short>(unit);
        s += length;
    }
    return Flow::kGoOn;
}

// --- wide text and plain copies

// Terminates the `written` units (below 1: failure) that qv_mbtowc or qv_wctomb stored at `dst`.
template <class Unit>
unsigned int terminateWide(Unit* dst, unsigned int size, int written) {
    if (written < 1 || static_cast<unsigned int>(written) >= size) {
        return kFailure;
    }
    dst[written] = 0;
    return static_cast<unsigned int>(written) + 1;
}

// The frame of the two wide conversions: `convert(length)` calls qv_mbtowc or qv_wctomb for the
// `length` units of `src`; the size query answers `worstPerUnit` output units for each of them.
template <class Unit, class Char, class Convert>
unsigned int convertWide(Unit* dst, unsigned int size, const Char* src, unsigned int worstPerUnit,
                         Convert convert) {
    if (src == nullptr) {
        return kFailure;
    }
    const unsigned int srcSize = textSize(src);
    if (srcSize == kFailure) {
        return kFailure;
    }
    if (size == 0) {
        const uint64_t worst = uint64_t{srcSize - 1} * worstPerUnit + 1;
        return worst < kFailure ? static_cast<unsigned int>(worst) : kFailure;
    }
    if (dst == nullptr) {
        return kFailure;
    }
    if (srcSize == 1) {
        dst[0] = 0;
        return 1;
    }
    return terminateWide(dst, size, convert(srcSize - 1));
}

unsigned int copyWholeText(char* dst, unsigned int size, const char* src) {
    if (src == nullptr) {
        return kFailure;
    }
    const unsigned int needed = textSize(src);
    if (size == 0 || needed == kFailure) {
        return needed;
    }
    if (dst == nullptr || size < needed) {
        return kFailure;
    }
    copyMemory(dst, src, needed);
    return needed;
}

}  // namespace

const SjisCodeEntry* findSjisCode(uint16_t sjis) {
    const unsigned int high = sjis >> 8;
    const unsigned int low = sjis & 0xFF;
    const SjisByteClass byteClass = kSjisBytes.of[high == 0 ? low : high];
    if (byteClass.length != (high == 0 ? 1 : 2)) {
        return nullptr;
    }
    return sjisEntryAt(byteClass.row, low);
}

uint16_t findUtf8Code(uint32_t utf8) {
    const unsigned int length = packedLength(utf8);
    const Utf8LeadClass lead = kUtf8Leads.of[(utf8 >> (8 * (length - 1))) & 0xFF];
    if (lead.length != length) {
        return 0;
    }
    const unsigned int second = utf8 >> (8 * (length - 2)) & 0xFF;
    return sjisCodeOf(lead, second, length == 3 ? utf8 & 0xFF : 0x80);
}

unsigned int convertCharFromSjisToUtf8(char* dst, unsigned int size, const char* src,
                                       unsigned int* used) {
    if (src == nullptr) {
        return kFailure;
    }
    const SjisChar c = readSjis(bytesOf(src));
    setUsed(used, c.used);
    const uint32_t packed = outputOf<uint32_t>(c, &SjisCodeEntry::mUtf8, 0, 0);
    return putCharBytes(dst, size, packed, packedLength(packed));
}

unsigned int convertStrFromSjisToUtf8(char* dst, unsigned int size, const char* src) {
    return convertLongString<3>(
        dst, size, src, sjisToUtf8Fast,
        [](const unsigned char* s, auto& out) { return sjisToUtf8(s, out); });
}

unsigned int convertCharFromUtf8ToSjis(char* dst, unsigned int size, const char* src,
                                       unsigned int* used) {
    if (src == nullptr) {
        return kFailure;
    }
    const Utf8Char c = readUtf8(bytesOf(src));
    setUsed(used, c.used);
    if (!c.lookedUp && dst == nullptr) {
        return 1;
    }
    return putCharBytes(dst, size, c.code, c.code > 0xFF ? 2 : 1);
}

unsigned int convertStrFromUtf8ToSjis(char* dst, unsigned int size, const char* src) {
    return convertLongString<2>(
        dst, size, src, utf8ToSjisFast,
        [](const unsigned char* s, auto& out) { return utf8ToSjis(s, out); });
}

unsigned int convertCharFromSjisToUtf16(unsigned short* dst, const char* src, unsigned int* used) {
    if (dst == nullptr || src == nullptr) {
        return kFailure;
    }
    const SjisChar c = readSjis(bytesOf(src));
    setUsed(used, c.used);
    *dst = outputOf<uint16_t>(c, &SjisCodeEntry::mUtf16, 0, 0);
    return c.length == 0 ? 2 : 1;
}

unsigned int convertStrFromSjisToUtf16(unsigned short* dst, unsigned int size, const char* src) {
    return convertString(dst, size, src,
                         [src](auto& out) { return sjisToUtf16(bytesOf(src), out); });
}

unsigned int convertCharFromUtf16ToUtf8(char* dst, unsigned int size, unsigned short unit,
                                        int* bom) {
    const int mark = byteOrderMarkOf(unit);
    if (bom != nullptr) {
        *bom = mark;
    }
    if (mark != 0) {
        return 0;
    }
    const uint32_t packed = packUtf8(unit);
    return putCharBytes(dst, size, packed, packedLength(packed));
}

unsigned int convertStrFromUtf16ToUtf8(char* dst, unsigned int size, const unsigned short* src) {
    return convertString(dst, size, src, [src](auto& out) { return utf16ToUtf8(src, out); });
}

unsigned int convertCharFromUtf8ToUtf16(unsigned short* dst, const char* src, unsigned int* used) {
    if (dst == nullptr || src == nullptr) {
        return kFailure;
    }
    const unsigned int length = strCharBytesBase(src, nullptr);
    if (length == 0 || length > 3) {
        return kFailure;
    }
    setUsed(used, length);
    uint32_t unit = 0;
    readPlainChar(bytesOf(src), &unit);
    *dst = static_cast<unsigned short>(unit);
    return 1;
}

unsigned int convertStrFromUtf8ToUtf16(unsigned short* dst, unsigned int size, const char* src) {
    return convertLongString<1>(
        dst, size, src, utf8ToUtf16Fast,
        [](const unsigned char* s, auto& out) { return utf8ToUtf16(s, out); });
}

unsigned int convertStrFromTcharToWchar(wchar_t* dst, unsigned int size, const char* src) {
    // Every wide character takes at least one byte of UTF-8.
    return convertWide(dst, size, src, 1, [=](unsigned int length) {
        return qv_mbtowc(dst, size, src, length, EN_VCP_UTF8);
    });
}

unsigned int convertStrFromWcharToTchar(char* dst, unsigned int size, const wchar_t* src) {
    // Six bytes, the longest sequence UTF-8 ever had, keep the answer safe for any wide text.
    return convertWide(dst, size, src, 6, [=](unsigned int length) {
        return qv_wctomb(dst, size, src, length, EN_VCP_UTF8);
    });
}

unsigned int convertStrFromTcharToChar(char* dst, unsigned int size, const char* src) {
    return copyWholeText(dst, size, src);
}

unsigned int convertStrFromCharToTchar(char* dst, unsigned int size, const char* src) {
    return copyWholeText(dst, size, src);
}

unsigned int convertCharSet(char* dst, unsigned int size, const char* src) {
    return copyStrBase(dst, size, src, ~0u, 0);
}

unsigned int convertStrFromDcharToUint8(unsigned char* dst, unsigned int size,
                                        const unsigned short* src, unsigned int count,
                                        int bigEndian) {
    if (src == nullptr) {
        return kFailure;
    }
    unsigned int units = 0;
    while (units < count && src[units] != 0) {
        ++units;
    }
    const uint64_t bytes = uint64_t{units} * 2;
    if (bytes >= kFailure || size == 0) {
        return bytes < kFailure ? static_cast<unsigned int>(bytes) : kFailure;
    }
    if (dst == nullptr || size < bytes) {
        return kFailure;
    }
    const unsigned int high = bigEndian == 1 ? 0 : 1;
    for (unsigned int i = 0; i < units; ++i) {
        dst[2 * i + high] = static_cast<unsigned char>(src[i] >> 8);
        dst[2 * i + (1 - high)] = static_cast<unsigned char>(src[i]);
    }
    return static_cast<unsigned int>(bytes);
}

unsigned int convertBinFromUint8ToDchar(unsigned short* dst, unsigned int size,
                                        const unsigned char* src, unsigned int bytes,
                                        int bigEndian) {
    if (src == nullptr || bytes % 2 != 0) {
        return kFailure;
    }
    const unsigned int units = bytes / 2;
    if (size == 0) {
        return units;
    }
    if (dst == nullptr || size < units) {
        return kFailure;
    }
    const unsigned int high = bigEndian == 1 ? 0 : 1;
    for (unsigned int i = 0; i < units; ++i) {
        dst[i] = static_cast<unsigned short>(src[2 * i + high] << 8 | src[2 * i + (1 - high)]);
    }
    return units;
}

}  // namespace utl

// --- The platform's conversion between UTF-8 and wchar_t text (UTF-32 on Linux).

namespace {

// The code point and length of the UTF-8 sequence at `s` of which `available` bytes may be read;
// length 0 for a sequence that is not UTF-8: an invalid first byte, a cut or overlong sequence,
// a surrogate, a value above U+10FFFF.
unsigned int decodeUtf8(const unsigned char* s, unsigned int available, uint32_t* cp) {
    static constexpr uint32_t kSmallest[5] = {0, 0, 0x80, 0x800, 0x10000};
    const unsigned int first = s[0];
    const unsigned int length = first < 0x80   ? 1
                                : first < 0xC2 ? 0
                                : first < 0xE0 ? 2
                                : first < 0xF0 ? 3
                                : first < 0xF5 ? 4
                                               : 0;
    if (length == 0 || length > available) {
        return 0;
    }
    uint32_t value = length == 1 ? first : first & (0x7Fu >> length);
    for (unsigned int i = 1; i < length; ++i) {
        const unsigned int low = s[i] ^ 0x80u;
        if (low >= 0x40) {
            return 0;
        }
        value = value << 6 | low;
    }
    if (value < kSmallest[length] || !isScalarValue(value)) {
        return 0;
    }
    *cp = value;
    return length;
}

}  // namespace

int qv_mbtowc(wchar_t* dst, unsigned int size, const char* src, unsigned int length,
              EN_VCP codePage) {
    if (dst == nullptr || src == nullptr || codePage != EN_VCP_UTF8) {
        return -1;
    }
    const unsigned char* s = reinterpret_cast<const unsigned char*>(src);
    const unsigned int limit = usableSize(size);
    unsigned int written = 0;
    for (unsigned int at = 0; at < length; ++written) {
        uint32_t cp = 0;
        const unsigned int n = decodeUtf8(s + at, length - at, &cp);
        if (n == 0 || written == limit) {
            return -1;
        }
        dst[written] = static_cast<wchar_t>(cp);
        at += n;
    }
    return static_cast<int>(written);
}

int qv_wctomb(char* dst, unsigned int size, const wchar_t* src, unsigned int length,
              EN_VCP codePage) {
    if (dst == nullptr || src == nullptr || codePage != EN_VCP_UTF8) {
        return -1;
    }
    const unsigned int limit = usableSize(size);
    unsigned int written = 0;
    for (unsigned int i = 0; i < length; ++i) {
        const uint32_t cp = static_cast<uint32_t>(src[i]);
        const uint32_t packed = packUtf8(cp);
        const unsigned int n = packedLength(packed);
        if (!isScalarValue(cp) || n > limit - written) {
            return -1;
        }
        storeBytes(dst + written, packed, n);
        written += n;
    }
    return static_cast<int>(written);
}
