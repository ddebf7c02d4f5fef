// Character code conversion of utl: Shift_JIS (Windows code page 932), UTF-8 and UTF-16.
//
// UTF-8 is the library's own text ("Tchar" and "Char" in the names), UTF-16 comes as 16-bit code
// units ("Dchar") and the platform's wchar_t text is "Wchar". Shift_JIS is converted through two
// sorted tables built into the library, wide text through qv_mbtowc and qv_wctomb.
//
// String forms take a zero-terminated text and a destination size in output units (bytes, or
// 16-bit units for UTF-16 output), write the terminator and return the units written including
// it. A size of 0 asks for the size needed and allows a null destination. `~0u` is failure: a
// null source, a null destination with a non-zero size, an output that does not fit, or what the
// function's comment adds. Nothing is written beyond the given size; after a failure the
// destination holds an unspecified part of the output. Character forms convert one character,
// return the output units and store the input bytes they consumed in `used` (may be null).
//
//   char utf8[16];
//   utl::convertStrFromSjisToUtf8(utf8, sizeof utf8, "\x82\xA0\x8E\x9A");  // 7: "あ字"
//   unsigned short utf16[8];
//   utl::convertStrFromUtf8ToUtf16(utf16, 8, utf8);                          // 3
//   unsigned int need = utl::convertStrFromUtf8ToSjis(nullptr, 0, utf8);     // 5
//
// A character without a counterpart is not an error. Each conversion substitutes as its comment
// says, and some substitute a zero byte, which ends the text for every later reader.
//
// The functions keep no state and may be called from any thread.
#ifndef UTL_CHAR_CONVERT_H
#define UTL_CHAR_CONVERT_H

#include <cstdint>
#include <type_traits>

// Code pages of qv_mbtowc and qv_wctomb.
enum EN_VCP {
    EN_VCP_UTF8 = 32,  // UTF-8 narrow text; wide text is UTF-32.
};

// Converts the `length` bytes of UTF-8 at `src` (a zero byte among them is converted like any
// other character) into at most `size` wide characters at `dst`, without a terminator. Returns
// the characters written; -1 for a null pointer, an unknown code page, a sequence that is not
// UTF-8 (overlong, cut, a surrogate, above U+10FFFF) or a `dst` too small. 0 for length 0.
int qv_mbtowc(wchar_t* dst, unsigned int size, const char* src, unsigned int length,
              EN_VCP codePage);

// Converts the `length` wide characters at `src` into at most `size` bytes of UTF-8 at `dst`,
// without a terminator. Returns the bytes written; -1 for a null pointer, an unknown code page,
// a surrogate or a value above U+10FFFF, or a `dst` too small. 0 for length 0.
int qv_wctomb(char* dst, unsigned int size, const wchar_t* src, unsigned int length,
              EN_VCP codePage);

namespace utl {

static_assert(std::is_same<unsigned short, uint16_t>::value, "UTF-16 units are 16 bits");

// One Shift_JIS code: a single-byte code A1-DF as itself, a double-byte code as first byte * 256
// + second byte; its UTF-16 unit; its UTF-8 bytes as a big-endian number (E2 88 A5: 0x00E288A5).
struct SjisCodeEntry {
    uint16_t mSjis;
    uint16_t mUtf16;
    uint32_t mUtf8;
};

// One character with a Shift_JIS code: its UTF-8 bytes as a big-endian number and that code.
struct Utf8CodeEntry {
    uint32_t mUtf8;
    uint16_t mSjis;
    uint16_t mPad;
};

// The code page 932 mapping without the user-defined area, ascending by Shift_JIS code. Several
// codes of the NEC and IBM extensions share a character.
extern const SjisCodeEntry SJIS_CODE_TBL[7787];
// One entry per character of SJIS_CODE_TBL, ascending by UTF-8 number. Of codes that share a
// character it holds the one that Windows converts to: the smallest outside the first bytes ED
// and EE.
extern const Utf8CodeEntry UTF8_CODE_TBL[7389];

// The SJIS_CODE_TBL entry for `sjis`, or null. Same result as a binary search of the table.
const SjisCodeEntry* findSjisCode(uint16_t sjis);
// The Shift_JIS code of the character whose UTF-8 number is `utf8`, or 0 when it has none. Same
// result as a binary search of UTF8_CODE_TBL.
uint16_t findUtf8Code(uint32_t utf8);

// Shift_JIS is split into characters by its first byte: 81-9F, E0-EF and FA-FC start a
// double-byte code (the second byte is taken unchecked, but never the terminator: a first byte
// at the end of the text is a code of its own that has no mapping); A1-DF are single-byte codes;
// any other byte is taken as it is.

// One Shift_JIS character at `src` into UTF-8: 1 to 3 bytes; a byte taken as it is is written
// unchanged, a code without mapping as one zero byte. Size 0: the bytes needed. `~0u` for a null
// `src`, a null `dst` or too small a `size`.
unsigned int convertCharFromSjisToUtf8(char* dst, unsigned int size, const char* src,
                                       unsigned int* used);
// Shift_JIS text into UTF-8. A single-byte code without mapping becomes "*", a double-byte one a
// zero byte.
unsigned int convertStrFromSjisToUtf8(char* dst, unsigned int size, const char* src);

// UTF-8 is split by its first byte: C2-D1 start a two-byte lookup, E2-E9 and EF a three-byte one
// (the following bytes are taken unchecked, but never the terminator); any other byte passes
// through unchanged, one at a time. So characters of other ranges, four-byte ones included, reach
// Shift_JIS as their raw bytes, while a looked-up sequence without a code (a byte-order mark is
// one) becomes a zero byte.

// One UTF-8 character at `src` into Shift_JIS: 1 or 2 bytes, one zero byte for a sequence
// without a code. A byte that passes through gives 1, and is written when `dst` and `size` allow,
// but never fails. Size 0: the bytes needed. `~0u` for a null `src`, and for a looked-up sequence
// with a null `dst` or too small a `size`.
unsigned int convertCharFromUtf8ToSjis(char* dst, unsigned int size, const char* src,
                                       unsigned int* used);
// UTF-8 text into Shift_JIS. A looked-up sequence without a code becomes a zero byte.
unsigned int convertStrFromUtf8ToSjis(char* dst, unsigned int size, const char* src);

// One Shift_JIS character at `src` into one UTF-16 unit at `dst`: 1 for a looked-up code (the unit
// 0 when it has no mapping), 2 for a byte taken as it is (the unit of the same value). `~0u` for
// a null `dst` or `src`.
unsigned int convertCharFromSjisToUtf16(unsigned short* dst, const char* src, unsigned int* used);
// Shift_JIS text into UTF-16; `size` in units. A single-byte code without mapping becomes "*",
// a double-byte one U+203B (the reference mark).
unsigned int convertStrFromSjisToUtf16(unsigned short* dst, unsigned int size, const char* src);

// One UTF-16 unit into UTF-8: 1 to 3 bytes (a surrogate is encoded alone, unpaired). A byte-order
// mark writes nothing and returns 0, setting `*bom` to 1 for FEFF and 2 for FFFE; other units set
// it to 0 (`bom` may be null). Size 0: the bytes needed. `~0u` for a null `dst` or too small a
// `size`.
unsigned int convertCharFromUtf16ToUtf8(char* dst, unsigned int size, unsigned short unit,
                                        int* bom);
// UTF-16 text into UTF-8. `~0u` also when the text holds a byte-order mark anywhere.
unsigned int convertStrFromUtf16ToUtf8(char* dst, unsigned int size, const unsigned short* src);

// One UTF-8 character at `src` (measured by strCharBytesBase, byte-order mark included) into one
// UTF-16 unit: 1. `~0u` for a null pointer, the end of the text, an invalid or cut sequence, or
// a four-byte character.
unsigned int convertCharFromUtf8ToUtf16(unsigned short* dst, const char* src, unsigned int* used);
// UTF-8 text into UTF-16; `size` in units. A four-byte character becomes U+203B; a cut or
// malformed sequence ends the text there (what came before is kept and terminated). `~0u` also
// for a byte that can start no character (80-BF, F8-FF).
unsigned int convertStrFromUtf8ToUtf16(unsigned short* dst, unsigned int size, const char* src);

// UTF-8 text into wchar_t text through qv_mbtowc; `size` in wide characters. Size 0 answers
// strlen(src) + 1, enough for any text. `~0u` also when qv_mbtowc fails (text that is not
// UTF-8) or leaves no room for the terminator.
unsigned int convertStrFromTcharToWchar(wchar_t* dst, unsigned int size, const char* src);
// wchar_t text into UTF-8 through qv_wctomb. Size 0 answers wcslen(src) * 6 + 1, enough for any
// text. `~0u` also when qv_wctomb fails or leaves no room for the terminator.
unsigned int convertStrFromWcharToTchar(char* dst, unsigned int size, const wchar_t* src);

// Both are the same encoding: a copy of strlen(src) + 1 bytes, or `~0u` when it does not fit.
unsigned int convertStrFromTcharToChar(char* dst, unsigned int size, const char* src);
unsigned int convertStrFromCharToTchar(char* dst, unsigned int size, const char* src);

// copyStrBase(dst, size, src, ~0u, 0): the whole text, never truncated.
unsigned int convertCharSet(char* dst, unsigned int size, const char* src);

// Writes the units of `src` up to `count` or a zero unit, whichever comes first, as bytes: high
// byte first when `bigEndian` is 1, else low byte first; no terminator. Returns the bytes written
// (2 per unit); size 0: the bytes needed. `~0u` for a null `src`, a null `dst` or too small a
// `size`.
unsigned int convertStrFromDcharToUint8(unsigned char* dst, unsigned int size,
                                        const unsigned short* src, unsigned int count,
                                        int bigEndian);
// Reads `bytes` bytes of `src` as UTF-16 units in the byte order of `bigEndian` (as above); no
// terminator. Returns the units written (bytes / 2); size 0: the units needed. `~0u` for a null
// `src`, an odd byte count, a null `dst` or too small a `size`.
unsigned int convertBinFromUint8ToDchar(unsigned short* dst, unsigned int size,
                                        const unsigned char* src, unsigned int bytes,
                                        int bigEndian);

namespace detail {

// Direct indexes over the two tables, generated with them; the converters use them instead of
// searching. Laid out as tools/gen_sjis_tables.py describes.
extern const uint16_t SJIS_CODE_INDEX[51 * 256];
// The UTF-16 unit of the code in each slot of SJIS_CODE_INDEX, 0 where that has none.
extern const uint16_t SJIS_UTF16_INDEX[51 * 256];
extern const uint16_t UTF8_CODE_INDEX[16 * 64 + 9 * 4096];

}  // namespace detail

}  // namespace utl

#endif  // UTL_CHAR_CONVERT_H
