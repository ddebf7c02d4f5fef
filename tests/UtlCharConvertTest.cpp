#include "UtlCharConvert.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using namespace utl;
using namespace std::string_literals;

constexpr unsigned int kFailure = ~0u;
constexpr bool kSjis = true, kUtf8 = false;

// The conversions of Shift_JIS or UTF-8 into the other and into UTF-16 (zeros kept), or "FAILED".
std::pair<std::string, std::u16string> outputs(bool fromSjis, const std::string& src) {
    char out[64];
    unsigned short units[32];
    const unsigned int n = (fromSjis ? convertStrFromSjisToUtf8 : convertStrFromUtf8ToSjis)(
        out, sizeof out, src.c_str());
    const unsigned int u =
        (fromSjis ? convertStrFromSjisToUtf16 : convertStrFromUtf8ToUtf16)(units, 32, src.c_str());
    return {n == kFailure ? "FAILED" : std::string(out, n - 1),
            u == kFailure ? u"FAILED" : std::u16string(units, units + u - 1)};
}

// glibc's CP932 is the independent reference; its module is absent from the ARM cross sysroot.
using Iconv = std::unique_ptr<void, int (*)(iconv_t)>;

Iconv openIconv(const char* to, const char* from) {
    const iconv_t cd = iconv_open(to, from);
    return Iconv(cd == reinterpret_cast<iconv_t>(-1) ? nullptr : cd, iconv_close);
}

// The bytes `cd` converts `in` to, or "FAILED".
std::string convertByIconv(const Iconv& cd, std::string in) {
    char out[16], *inPtr = &in[0], *outPtr = out;
    std::size_t inLeft = in.size(), outLeft = sizeof out;
    iconv(cd.get(), nullptr, nullptr, nullptr, nullptr);
    const bool ok = iconv(cd.get(), &inPtr, &inLeft, &outPtr, &outLeft) != std::size_t(-1);
    return ok ? std::string(out, outPtr) : "FAILED";
}

TEST(CharConvertTest, EverySingleCharacterConvertsAsIconvDoes) {
    const Iconv toUtf8 = openIconv("UTF-8", "CP932"), toUtf16 = openIconv("UTF-16LE", "CP932"),
                toSjis = openIconv("CP932", "UTF-8");
    if (!toUtf8 || !toUtf16 || !toSjis) {
        GTEST_SKIP() << "iconv_open(\"CP932\") failed (no gconv module, as on the ARM sysroot)";
    }
    // Bytes 80-FF alone and with every second byte, where the conversion takes them as one code.
    for (unsigned int code = 0x8000; code <= 0xFFFF; ++code) {
        const char src[] = {static_cast<char>(code >> 8), static_cast<char>(code), 0};
        unsigned int used = 0;
        unsigned short unit = 0;
        const unsigned int result = convertCharFromSjisToUtf16(&unit, src, &used);
        const std::string theirs = convertByIconv(toUtf16, src);
        if (used != std::strlen(src)) {
            continue;
        } else if (result != 1 || unit == 0) {
            // Not a code or unmapped: iconv refuses it or gives the user-defined area.
            ASSERT_TRUE(theirs == "FAILED" || (theirs[1] & 0xFF) >= 0xE0) << std::hex << code;
        } else {
            ASSERT_EQ(outputs(kSjis, src).first, convertByIconv(toUtf8, src)) << std::hex << code;
            ASSERT_EQ(theirs, std::string(reinterpret_cast<char*>(&unit), 2)) << std::hex << code;
        }
    }
    // Characters that glibc also converts one way, to the code of their JIS X 0208 look-alike.
    const uint32_t kIconvOnly[] = {0xA2, 0xA3, 0xA5, 0xAC, 0x2014, 0x2016, 0x203E, 0x2212, 0x301C};
    for (uint32_t cp = 0x80; cp <= 0xFFFF; ++cp) {
        char utf8[4];
        const std::string ch(utf8, convertCharFromUtf16ToUtf8(utf8, 4, cp, nullptr));
        const std::string ours = outputs(kUtf8, ch).first, theirs = convertByIconv(toSjis, ch);
        if (ours == ch) {
            continue;  // Not looked up: passed through raw.
        } else if (ours != "\0"s) {
            ASSERT_EQ(ours, theirs) << std::hex << cp;
        } else if (std::count(std::begin(kIconvOnly), std::end(kIconvOnly), cp) == 0) {
            // iconv takes U+FEFF and U+FFFE at the start for byte-order marks and drops them.
            ASSERT_EQ(theirs, cp == 0xFEFF || cp == 0xFFFE ? "" : "FAILED") << std::hex << cp;
        }
    }
}

// Unmapped codes give a zero byte or U+203B; UTF-8 into Shift_JIS looks up only C2-D1, E2-E9 and
// EF; into UTF-16 a four-byte character is U+203B and a cut or malformed sequence ends the text.
TEST(CharConvertTest, ConversionsSubstituteCutAndRefuseByTheirOwnRules) {
    const std::tuple<bool, std::string, std::string, std::u16string> cases[] = {
        {kSjis, "\xB1\x85\x40z", "\xEF\xBD\xB1\0z"s, u"\uFF71\u203Bz"},        // no code 8540
        {kSjis, "\xF0\x80\xA0\xFF", "\xF0\x80\xA0\xFF", u"\xF0\x80\xA0\xFF"},  // not codes
        {kSjis, "\x82\x0A\x82\0z"s, "\0\0"s, u"\u203B\u203B"},  // unchecked 0A; cut by the end
        // Shared characters, the choice of Windows: FA5C over ED40, 81E6 over 879A
        {kUtf8, "\xE7\xBA\x8A\xE2\x88\xB5", "\xFA\x5C\x81\xE6", u"\u7E8A\u2235"},
        {kUtf8, "\xF0\x9F\x98\x80z", "\xF0\x9F\x98\x80z", u"\u203Bz"},
        {kUtf8, "\xD7\x90\xE1\x80\x80", "\xD7\x90\xE1\x80\x80", u"\u05D0\u1000"},
        {kUtf8, "x\xE2\x80\x80\xEF\xBB\xBFy", "x\0\0y"s, u"x\u2000\uFEFFy"},  // U+2000, BOM
        {kUtf8, "\xED\xA0\x80", "\xED\xA0\x80", u"\xD800"},  // encoded surrogates are not checked
        {kUtf8, "\xE3\x41\x42z", "\0z"s, u""},               // following bytes taken unchecked
        {kUtf8, "a\xE3\x81\0z"s, "a\0"s, u"a"},              // cut by the end
        {kUtf8, "a\xC0\x80z", "a\xC0\x80z", u"a"},           // overlong
        {kUtf8, "a\x80z", "a\x80z", u"FAILED"},
    };
    for (const auto& [sjis, in, out, utf16] : cases) {
        SCOPED_TRACE(in);
        EXPECT_EQ(outputs(sjis, in), std::make_pair(out, utf16));
    }
    // UTF-16 to UTF-8 encodes a lone surrogate as it is and refuses a byte-order mark anywhere.
    const unsigned short lone[] = {'a', 0x3B1, 0xD800, 0}, bom[][3] = {{0xFEFF}, {'a', 0xFFFE}};
    char out[8];
    EXPECT_EQ(convertStrFromUtf16ToUtf8(out, 8, lone), 7u);
    EXPECT_STREQ(out, "a\xCE\xB1\xED\xA0\x80");
    EXPECT_TRUE(convertStrFromUtf16ToUtf8(out, 8, bom[0]) == kFailure &&
                convertStrFromUtf16ToUtf8(out, 8, bom[1]) == kFailure);
}

TEST(CharConvertTest, CharacterFormsReportBytesUsedAndMarks) {
    char out[4];
    unsigned int used = 0;
    unsigned short unit = 0;
    int bom = -1;
    EXPECT_EQ(convertCharFromSjisToUtf8(out, 4, "\x85\x40", &used), 1u) << "unmapped";
    EXPECT_TRUE(out[0] == 0 && used == 2);
    EXPECT_EQ(convertCharFromUtf8ToSjis(nullptr, 5, "\xF0", &used), 1u) << "passes through";
    EXPECT_TRUE(convertCharFromSjisToUtf16(&unit, "A", &used) == 2 && unit == 'A') << "as it is";
    EXPECT_TRUE(convertCharFromUtf16ToUtf8(out, 4, 0xFFFE, &bom) == 0 && bom == 2);
    EXPECT_TRUE(convertCharFromUtf16ToUtf8(out, 4, 0xFEFF, &bom) == 0 && bom == 1);
    EXPECT_TRUE(convertCharFromUtf16ToUtf8(nullptr, 0, 0x800, &bom) == 3 && bom == 0);
    EXPECT_EQ(convertCharFromUtf8ToUtf16(&unit, "\xEF\xBB\xBF", &used), 1u);
    EXPECT_TRUE(unit == 0xFEFF && used == 3);
    for (const char* bad : {"", "\xF0\x9F\x98\x80", "\xE3\x81", "\x80"}) {
        EXPECT_EQ(convertCharFromUtf8ToUtf16(&unit, bad, &used), kFailure) << bad;
    }
}

// A size table row: `call` converts `s` (`src`, or null on request) into `d`, `n` `Unit`s.
#define FORM(Unit, src, call)                                            \
    sizeof(Unit), #call, [&](void* v, unsigned int n, bool nullSource) { \
        Unit* d = static_cast<Unit*>(v);                                 \
        const auto* s = nullSource ? nullptr : src;                      \
        return call;                                                     \
    }

// Size 0 answers `query`; `needed` units suffice, one fewer fail, neither writes beyond the size.
// The fuzzer checks the other conversions between encodings the same way, on arbitrary text.
TEST(CharConvertTest, EveryFormAnswersSizeQueriesAndStaysWithinTheBuffer) {
    const char *sjis = "a\x82\xA0\xB1", *utf8 = "a\xE3\x81\x82\xF0\x9F\x98\x80";
    const unsigned short utf16[] = {'a', 0x3042, 0};
    const auto* bytes = reinterpret_cast<const unsigned char*>(utf8);
    using Convert = std::function<unsigned int(void* dst, unsigned int size, bool nullSource)>;
    const std::tuple<std::size_t, const char*, Convert, unsigned int, unsigned int> forms[] = {
        {FORM(char, sjis, convertStrFromSjisToUtf8(d, n, s)), 8, 8},
        {FORM(char, utf8, convertStrFromTcharToChar(d, n, s)), 9, 9},
        {FORM(char, utf8, convertCharSet(d, n, s)), 9, 9},
        {FORM(char, utf16, convertStrFromUtf16ToUtf8(d, n, s)), 5, 5},
        {FORM(wchar_t, utf8, convertStrFromTcharToWchar(d, n, s)), 9, 4},
        {FORM(char, L"a\u3042\U0001F600", convertStrFromWcharToTchar(d, n, s)), 19, 9},
        {FORM(unsigned char, utf16, convertStrFromDcharToUint8(d, n, s, ~0u, 1)), 4, 4},
        {FORM(unsigned short, bytes, convertBinFromUint8ToDchar(d, n, s, 4, 1)), 2, 2},
        {FORM(char, sjis + 1, convertCharFromSjisToUtf8(d, n, s, nullptr)), 3, 3},
        {FORM(char, utf8 + 1, convertCharFromUtf8ToSjis(d, n, s, nullptr)), 2, 2},
    };
    for (const auto& [unit, call, convert, query, needed] : forms) {
        SCOPED_TRACE(call);
        EXPECT_EQ(convert(nullptr, 0, false), query);
        EXPECT_EQ(convert(nullptr, needed, false), kFailure);
        for (const unsigned int size : {needed, needed - 1}) {
            std::string buffer((needed + 1) * unit, 'Z');
            EXPECT_EQ(convert(&buffer[0], size, true), kFailure) << "null source";
            EXPECT_EQ(convert(&buffer[0], size, false), size == needed ? size : kFailure);
            EXPECT_EQ(buffer.find_first_not_of('Z', size * unit), std::string::npos) << size;
        }
    }
}

// `convert` on `text` into every size from 1 to one more than needed, between guard units: the
// expected units (`fails`: none) need their size exactly, and nothing lands beyond the size.
template <class Unit, class Char>
void convertsInEverySize(unsigned int (*convert)(Unit*, unsigned int, const char*),
                         const std::string& text, const std::basic_string<Char>& expected,
                         bool fails = false) {
    constexpr Unit kGuard = 0x5A;
    const auto needed = static_cast<unsigned int>(expected.size() + 1);
    ASSERT_EQ(convert(nullptr, 0, text.c_str()), fails ? kFailure : needed);
    for (unsigned int size = 1; size <= needed + 1; ++size) {
        std::vector<Unit> buffer(needed + 2, kGuard);
        const unsigned int result = convert(buffer.data(), size, text.c_str());
        ASSERT_EQ(result, fails || size < needed ? kFailure : needed) << "size " << size;
        ASSERT_TRUE(
            std::all_of(buffer.begin() + size, buffer.end(), [](Unit u) { return u == kGuard; }))
            << "size " << size;
        ASSERT_TRUE(result == kFailure ||
                    (std::equal(expected.begin(), expected.end(), buffer.begin(),
                                [](Char c, Unit u) { return static_cast<Unit>(c) == u; }) &&
                     buffer[needed - 1] == 0))
            << "size " << size;
    }
}

// Long texts are written in blocks without per-character checks, falling back to checked
// writing when the buffer is nearly full: runs of ASCII at every alignment, multi-byte characters
// and substitutions across the switch, and cut or malformed input at the end of a long text.
TEST(CharConvertTest, LongTextsConvertTheSameIntoEveryBufferSize) {
    using Pieces = std::vector<std::pair<std::string, std::string>>;
    std::string halfWidthRun;  // 16 one-byte characters that become three bytes each
    for (int i = 0; i < 16; ++i) {
        halfWidthRun += "\xEF\xBD\xB1";
    }
    const Pieces sjisPieces = {{"ABCDEFGHIJK", "ABCDEFGHIJK"},
                               {"\x82\xA0", "\xE3\x81\x82"},
                               {std::string(16, '\xB1'), halfWidthRun},
                               {"\x83\xBF", "\xCE\xB1"},
                               {"\x85\x40", "\0"s},
                               {"\x80\xFD", "\x80\xFD"}};
    const Pieces utf8Pieces = {
        {"abcdefghijk", "abcdefghijk"},   {"\xE3\x81\x82", "\x82\xA0"},
        {"\xEF\xBD\xB1", "\xB1"},         {"\xCE\xB1", "\x83\xBF"},
        {"\xEF\xBB\xBF", "\0"s},          {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
        {"\xE0\xA0\x80", "\xE0\xA0\x80"}, {"\xED\xA0\x80", "\xED\xA0\x80"}};
    const std::u16string utf16 = u"abcdefghijk\u3042\uFF71\u03B1\uFEFF\u203B\u0800\xD800";
    for (std::size_t shift = 0; shift < 9; ++shift) {
        SCOPED_TRACE(shift);
        const std::string lead(shift, '-');
        std::string sjis = lead, fromSjis = lead, utf8 = lead, toSjis = lead;
        std::u16string toUtf16(lead.begin(), lead.end());
        for (int repeat = 0; repeat < 4; ++repeat) {
            for (const auto& [in, out] : sjisPieces) {
                sjis += in;
                fromSjis += out;
            }
            for (const auto& [in, out] : utf8Pieces) {
                utf8 += in;
                toSjis += out;
            }
            toUtf16 += utf16;
        }
        convertsInEverySize(convertStrFromSjisToUtf8, sjis + "\x82", fromSjis + "\0"s);
        convertsInEverySize(convertStrFromUtf8ToSjis, utf8 + "\xE3\x81", toSjis + "\0"s);
        convertsInEverySize(convertStrFromUtf8ToUtf16, utf8 + "\xE3\x81", toUtf16);
        convertsInEverySize(convertStrFromUtf8ToUtf16, utf8 + "\xC0\x80" + utf8, toUtf16);
        convertsInEverySize(convertStrFromUtf8ToUtf16, utf8 + "\x80", std::u16string(), true);
    }
}

TEST(CharConvertTest, WideTextGoesThroughQvAndUnitBytesFollowTheByteOrder) {
    wchar_t wide[8];
    char bytes[4] = {'x', 'x', 'x', 'x'};
    ASSERT_EQ(convertStrFromTcharToWchar(wide, 8, "a\xE3\x81\x82\xF0\x9F\x98\x80"), 4u);
    EXPECT_EQ(std::wstring(wide), L"a\u3042\U0001F600");
    for (auto bad : {"\xE0\x9F\xBF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "a\xE3\x81", "\x80"}) {
        EXPECT_EQ(convertStrFromTcharToWchar(wide, 8, bad), kFailure) << bad;
    }
    EXPECT_TRUE(convertStrFromWcharToTchar(bytes, 4, L"a\xD800") == kFailure &&
                convertStrFromWcharToTchar(bytes, 4, L"a\x110000") == kFailure);
    // The qv functions count what they write and add no terminator.
    wchar_t units[3] = {L'x', L'x', L'x'};
    EXPECT_EQ(qv_mbtowc(units, 2, "a\xC3\xA9", 3, EN_VCP_UTF8), 2);
    EXPECT_EQ(std::wstring(units, 3), L"a\u00E9x");
    EXPECT_TRUE(qv_mbtowc(units, 1, "ab", 2, EN_VCP_UTF8) < 1 &&
                qv_mbtowc(units, 3, "ab", 2, static_cast<EN_VCP>(0)) < 1);
    EXPECT_EQ(qv_wctomb(bytes, 3, L"\u3042", 1, EN_VCP_UTF8), 3);
    EXPECT_EQ(std::string(bytes, 4), "\xE3\x81\x82x");
    // UTF-16 units as bytes, high byte first for byte order 1 only.
    const unsigned short dchars[] = {0x3042, 0x0041, 0, 0x1234};
    unsigned char octets[6] = {};
    EXPECT_EQ(convertStrFromDcharToUint8(octets, 4, dchars, ~0u, 1), 4u) << "stops at unit 0";
    EXPECT_EQ(convertStrFromDcharToUint8(octets + 4, 2, dchars, 1, 2), 2u) << "stops at the count";
    EXPECT_EQ(std::string(octets, octets + 6), "\x30\x42\x00\x41\x42\x30"s);
    unsigned short back[4] = {};
    EXPECT_EQ(convertBinFromUint8ToDchar(back, 2, octets + 2, 4, 0), 2u);
    EXPECT_EQ(convertBinFromUint8ToDchar(back + 2, 2, octets, 4, 1), 2u);
    EXPECT_EQ(std::u16string(back, back + 4), u"\u4100\u3042\u3042\u0041");
    EXPECT_EQ(convertBinFromUint8ToDchar(back, 2, octets, 3, 1), kFailure) << "odd byte count";
}

}  // namespace
