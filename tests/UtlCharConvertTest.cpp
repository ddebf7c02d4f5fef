#include "UtlCharConvert.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace utl;

constexpr unsigned int kFailure = ~0u;
using Units = std::vector<unsigned short>;

// Plain binary searches of the tables, the reference for the indexed lookups.
const SjisCodeEntry* searchSjis(unsigned int key) {
    const auto end = std::end(SJIS_CODE_TBL);
    const auto at =
        std::lower_bound(std::begin(SJIS_CODE_TBL), end, key,
                         [](const SjisCodeEntry& e, unsigned int k) { return e.mSjis < k; });
    return at != end && at->mSjis == key ? at : nullptr;
}

uint16_t searchUtf8(uint32_t key) {
    const auto end = std::end(UTF8_CODE_TBL);
    const auto at =
        std::lower_bound(std::begin(UTF8_CODE_TBL), end, key,
                         [](const Utf8CodeEntry& e, uint32_t k) { return e.mUtf8 < k; });
    return at != end && at->mUtf8 == key ? at->mSjis : 0;
}

std::string bytesOf(uint32_t packed) {
    std::string out;
    for (int shift = 24; shift >= 0; shift -= 8) {
        if ((packed >> shift) != 0) {
            out += static_cast<char>(packed >> shift);
        }
    }
    return out;
}

// The whole output of a narrow string conversion (terminator and embedded zeros excluded), or
// "FAILED".
template <class Convert>
std::string narrow(Convert convert, const std::string& src) {
    char out[64];
    const unsigned int n = convert(out, sizeof out, src.c_str());
    return n == kFailure ? "FAILED" : std::string(out, n - 1);
}

Units wide(unsigned int (*convert)(unsigned short*, unsigned int, const char*),
           const std::string& src) {
    unsigned short out[32];
    const unsigned int n = convert(out, 32, src.c_str());
    return n == kFailure ? Units{0xDEAD} : Units(out, out + n - 1);
}

TEST(CharConvertTest, TablesAreSortedAndInverseOfEachOther) {
    EXPECT_TRUE(std::is_sorted(std::begin(SJIS_CODE_TBL), std::end(SJIS_CODE_TBL),
                               [](auto& a, auto& b) { return a.mSjis <= b.mSjis; }));
    EXPECT_TRUE(std::is_sorted(std::begin(UTF8_CODE_TBL), std::end(UTF8_CODE_TBL),
                               [](auto& a, auto& b) { return a.mUtf8 <= b.mUtf8; }));
    for (const SjisCodeEntry& e : SJIS_CODE_TBL) {
        char utf8[4];
        const unsigned int n = convertCharFromUtf16ToUtf8(utf8, 4, e.mUtf16, nullptr);
        ASSERT_EQ(std::string(utf8, n), bytesOf(e.mUtf8)) << std::hex << e.mSjis;
        const SjisCodeEntry* chosen = searchSjis(searchUtf8(e.mUtf8));
        ASSERT_TRUE(chosen != nullptr && chosen->mUtf16 == e.mUtf16) << std::hex << e.mSjis;
    }
    for (const Utf8CodeEntry& e : UTF8_CODE_TBL) {
        const SjisCodeEntry* code = searchSjis(e.mSjis);
        ASSERT_TRUE(code != nullptr && code->mUtf8 == e.mUtf8) << std::hex << e.mUtf8;
    }
}

TEST(CharConvertTest, IndexedLookupsEqualBinarySearchForEveryKey) {
    for (unsigned int key = 0; key <= 0xFFFF; ++key) {
        ASSERT_EQ(findSjisCode(static_cast<uint16_t>(key)), searchSjis(key)) << std::hex << key;
    }
    // Every key of one or two bytes, every three-byte key of the first bytes E0-EF, and
    // four-byte keys on the table's first bytes.
    for (uint32_t key = 0; key <= 0xEFFFFF; key = key == 0xFFFF ? 0xE00000 : key + 1) {
        ASSERT_EQ(findUtf8Code(key), searchUtf8(key)) << std::hex << key;
    }
    for (uint32_t lead : {0xC2u, 0xE3u, 0xEFu, 0xF0u}) {
        ASSERT_EQ(findUtf8Code(lead << 24 | 0x818283), 0);
    }
}

// Where several codes share a character, Windows and glibc's CP932 choose the same one.
TEST(CharConvertTest, SharedCharactersConvertToTheCodeWindowsChooses) {
    const struct {
        const char* utf8;
        const char* sjis;  // The chosen code; the others decode to the same character.
        const char* others;
    } cases[] = {
        {"\xE7\xBA\x8A", "\xFA\x5C", "\xED\x40"},          // U+7E8A: IBM over NEC-selected
        {"\xE2\x85\xB0", "\xFA\x40", "\xEE\xEF"},          // U+2170
        {"\xE2\x88\xB5", "\x81\xE6", "\x87\x9A\xFA\x5B"},  // U+2235: JIS over NEC and IBM
        {"\xEF\xBF\xA2", "\x81\xCA", "\xEE\xF9\xFA\x54"},  // U+FFE2
        {"\xE2\x85\xA0", "\x87\x54", "\xFA\x4A"},          // U+2160: NEC row 13 over IBM
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.utf8);
        EXPECT_EQ(narrow(convertStrFromUtf8ToSjis, c.utf8), c.sjis);
        const std::string utf8 = c.utf8;
        EXPECT_EQ(narrow(convertStrFromSjisToUtf8, std::string(c.sjis) + c.others),
                  utf8 + utf8 + (std::strlen(c.others) == 4 ? utf8 : ""));
    }
}

// glibc's CP932 as an independent reference. Its module is absent from the ARM cross sysroot.
class Iconv {
  public:
    Iconv(const char* to, const char* from) : mCd(iconv_open(to, from)) {}
    ~Iconv() {
        if (ok()) {
            iconv_close(mCd);
        }
    }
    bool ok() const { return mCd != reinterpret_cast<iconv_t>(-1); }

    // The converted bytes, or "FAILED".
    std::string operator()(const std::string& in) {
        iconv(mCd, nullptr, nullptr, nullptr, nullptr);
        char out[16];
        char* inPtr = const_cast<char*>(in.data());
        char* outPtr = out;
        std::size_t inLeft = in.size();
        std::size_t outLeft = sizeof out;
        if (iconv(mCd, &inPtr, &inLeft, &outPtr, &outLeft) == static_cast<std::size_t>(-1)) {
            return "FAILED";
        }
        return std::string(out, outPtr);
    }

  private:
    iconv_t mCd;
};

TEST(CharConvertTest, EverySingleCharacterConvertsAsIconvDoes) {
    Iconv toUtf8("UTF-8", "CP932");
    Iconv toUtf16("UTF-16LE", "CP932");
    Iconv toSjis("CP932", "UTF-8");
    if (!toUtf8.ok() || !toUtf16.ok() || !toSjis.ok()) {
        GTEST_SKIP() << "iconv_open(\"CP932\") failed: no gconv module for CP932 on this "
                        "system (the ARM cross sysroot has none); glibc comparison skipped";
    }
    // Every byte from 80 on, alone (second byte 0) and with every second byte. Where the
    // conversion takes one byte of two (a first byte that is not one), there is nothing to compare.
    for (unsigned int code = 0x8000; code <= 0xFFFF; ++code) {
        const char src[] = {static_cast<char>(code >> 8), static_cast<char>(code), 0};
        unsigned int used = 0;
        unsigned short unit = 0;
        const unsigned int result = convertCharFromSjisToUtf16(&unit, src, &used);
        if (used != std::strlen(src)) {
            continue;
        }
        if (result != 1 || unit == 0) {
            // Not a code or unmapped: iconv refuses it or gives the user-defined area.
            const std::string theirs = toUtf16(src);
            ASSERT_TRUE(theirs == "FAILED" || (theirs[1] & 0xFF) >= 0xE0) << std::hex << code;
            continue;
        }
        char utf8[4];
        const unsigned int n = convertCharFromSjisToUtf8(utf8, 4, src, nullptr);
        ASSERT_EQ(std::string(utf8, n), toUtf8(src)) << std::hex << code;
        ASSERT_EQ(toUtf16(src), std::string(reinterpret_cast<const char*>(&unit), 2));
    }
    // Characters that glibc also converts one way, to the code of a similar character (their
    // JIS X 0208 forms): U+00A2, U+00A3, U+00A5, U+00AC, U+2014, U+2016, U+203E, U+2212, U+301C.
    const std::string kIconvOnly[] = {"\xC2\xA2",     "\xC2\xA3",     "\xC2\xA5",
                                      "\xC2\xAC",     "\xE2\x80\x94", "\xE2\x80\x96",
                                      "\xE2\x80\xBE", "\xE2\x88\x92", "\xE3\x80\x9C"};
    for (uint32_t cp = 0x80; cp <= 0xFFFF; ++cp) {
        char utf8[4];
        const std::string ch(utf8, convertCharFromUtf16ToUtf8(utf8, 4, cp, nullptr));
        char sjis[2];
        unsigned int used = 0;
        const unsigned int n = convertCharFromUtf8ToSjis(sjis, 2, ch.c_str(), &used);
        if (used < ch.size()) {
            continue;  // Not looked up: passes through byte by byte.
        }
        const std::string theirs = toSjis(ch);
        if (sjis[0] == 0 && std::count(std::begin(kIconvOnly), std::end(kIconvOnly), ch) == 0) {
            // iconv takes U+FEFF and U+FFFE at the start for byte-order marks and drops them.
            const bool mark = cp == 0xFEFF || cp == 0xFFFE;
            ASSERT_EQ(theirs, mark ? "" : "FAILED") << std::hex << cp;
        } else if (sjis[0] != 0) {
            ASSERT_EQ(std::string(sjis, n), theirs) << std::hex << cp;
        }
    }
}

TEST(CharConvertTest, ShiftJisConversionsSubstituteUnmappedCodesUnevenly) {
    const struct {
        std::string sjis;
        std::string utf8;
        Units utf16;
    } cases[] = {
        {"a\x82\xA0\x81\x60", "a\xE3\x81\x82\xEF\xBD\x9E", {'a', 0x3042, 0xFF5E}},
        {"\xB1\x81\x61", "\xEF\xBD\xB1\xE2\x88\xA5", {0xFF71, 0x2225}},
        {"a\x85\x40z", std::string("a\0z", 3), {'a', 0x203B, 'z'}},          // no code 8540
        {"\xF0\x80\xA0\xFF", "\xF0\x80\xA0\xFF", {0xF0, 0x80, 0xA0, 0xFF}},  // not codes
        {"a\x82", std::string("a\0", 2), {'a', 0x203B}},  // a first byte cut by the end
        {"\x82\x0A", std::string("\0", 1), {0x203B}},     // the second byte is not checked
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sjis);
        EXPECT_EQ(narrow(convertStrFromSjisToUtf8, c.sjis), c.utf8);
        EXPECT_EQ(wide(convertStrFromSjisToUtf16, c.sjis), c.utf16);
    }
}

TEST(CharConvertTest, Utf8ToShiftJisLooksUpOnlyItsRangesAndZeroesTheUnmapped) {
    const struct {
        std::string utf8;
        std::string sjis;
    } cases[] = {
        {"a\xE3\x81\x82\xEF\xBD\xA1\xC2\xA7", "a\x82\xA0\xA1\x81\x98"},
        {"\xF0\x9F\x98\x80\xD7\x90\xE1\x80\x80", "\xF0\x9F\x98\x80\xD7\x90\xE1\x80\x80"},  // passed
        {"x\xE2\x80\x80y", std::string("x\0y", 3)},   // U+2000: no code
        {"\xEF\xBB\xBF\x61", std::string("\0a", 2)},  // byte-order mark
        {"\xE3\x41\x42z", std::string("\0z", 2)},     // taken unchecked
        {"a\xE3\x81", std::string("a\0", 2)},         // cut by the end
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.utf8);
        EXPECT_EQ(narrow(convertStrFromUtf8ToSjis, c.utf8), c.sjis);
    }
}

TEST(CharConvertTest, Utf16ConversionsFollowTheMarkAndLengthRules) {
    const struct {
        Units utf16;
        std::string utf8;
    } toUtf8[] = {
        {{'a', 0x3B1, 0x3042, 0xD800}, "a\xCE\xB1\xE3\x81\x82\xED\xA0\x80"},
        {{0xFEFF, 'a'}, "FAILED"},
        {{'a', 0xFFFE}, "FAILED"},
    };
    for (const auto& c : toUtf8) {
        SCOPED_TRACE(c.utf8);
        Units text = c.utf16;
        text.push_back(0);
        char out[16];
        const unsigned int n = convertStrFromUtf16ToUtf8(out, sizeof out, text.data());
        EXPECT_EQ(n == kFailure ? "FAILED" : std::string(out, n - 1), c.utf8);
        EXPECT_EQ(convertStrFromUtf16ToUtf8(nullptr, 0, text.data()) == kFailure, n == kFailure);
    }
    const struct {
        std::string utf8;
        Units utf16;
    } toUtf16[] = {
        {"a\xCE\xB1\xE3\x81\x82\xEF\xBB\xBF", {'a', 0x3B1, 0x3042, 0xFEFF}},
        {"\xF0\x9F\x98\x80z", {0x203B, 'z'}},  // beyond 16 bits
        {"\xED\xA0\x80", {0xD800}},            // encoded surrogates are not checked
        {"a\xE3\x81", {'a'}},                  // a cut sequence ends the text
        {"a\xC0\x80z", {'a'}},                 // and so does an overlong one
        {"a\xE0\x9F\xBFz", {'a'}},
        {"a\x80z", {0xDEAD}},  // a byte that starts no character fails
        {"\xF8", {0xDEAD}},
    };
    for (const auto& c : toUtf16) {
        SCOPED_TRACE(c.utf8);
        EXPECT_EQ(wide(convertStrFromUtf8ToUtf16, c.utf8), c.utf16);
    }
}

TEST(CharConvertTest, CharacterFormsReportUnitsAndBytesUsed) {
    char out[4] = {};
    unsigned short unit = 0;
    unsigned int used = 0;
    EXPECT_EQ(convertCharFromSjisToUtf8(out, 4, "\x82\xA0", &used), 3u);
    EXPECT_EQ(used, 2u);
    EXPECT_EQ(convertCharFromSjisToUtf8(nullptr, 0, "\xB1", &used), 3u);
    EXPECT_EQ(used, 1u);
    EXPECT_EQ(convertCharFromSjisToUtf8(out, 2, "\x82\xA0", nullptr), kFailure);
    EXPECT_EQ(convertCharFromSjisToUtf8(out, 4, "\x85\x40", nullptr), 1u);
    EXPECT_EQ(out[0], 0);

    EXPECT_EQ(convertCharFromUtf8ToSjis(nullptr, 5, "\xF0", &used), 1u) << "passes through";
    EXPECT_EQ(convertCharFromUtf8ToSjis(nullptr, 5, "\xE3\x81\x82", &used), kFailure);
    EXPECT_EQ(convertCharFromUtf8ToSjis(out, 1, "\xE3\x81\x82", &used), kFailure);
    EXPECT_EQ(convertCharFromUtf8ToSjis(out, 2, "\xE3\x81\x82", &used), 2u);
    EXPECT_EQ(used, 3u);

    EXPECT_EQ(convertCharFromSjisToUtf16(&unit, "\x82\xA0", &used), 1u);
    EXPECT_EQ(unit, 0x3042);
    EXPECT_EQ(convertCharFromSjisToUtf16(&unit, "A", &used), 2u) << "taken as it is";
    EXPECT_EQ(unit, 'A');

    int bom = -1;
    EXPECT_EQ(convertCharFromUtf16ToUtf8(out, 4, 0xFFFE, &bom), 0u);
    EXPECT_EQ(bom, 2);
    EXPECT_EQ(convertCharFromUtf16ToUtf8(out, 4, 0xFEFF, &bom), 0u);
    EXPECT_EQ(bom, 1);
    EXPECT_EQ(convertCharFromUtf16ToUtf8(out, 2, 0x800, &bom), kFailure);
    EXPECT_EQ(convertCharFromUtf16ToUtf8(nullptr, 0, 0x800, &bom), 3u);
    EXPECT_EQ(bom, 0);

    EXPECT_EQ(convertCharFromUtf8ToUtf16(&unit, "\xEF\xBB\xBF", &used), 1u);
    EXPECT_EQ(unit, 0xFEFF);
    EXPECT_EQ(used, 3u);
    for (const char* bad : {"", "\xF0\x9F\x98\x80", "\xE3\x81", "\x80"}) {
        EXPECT_EQ(convertCharFromUtf8ToUtf16(&unit, bad, &used), kFailure) << bad;
    }
}

// A size-0 call answers `query`; `needed` units are enough and one fewer fail, writing nothing
// at or beyond the given size; null pointers fail.
template <class Unit, class Convert>
void expectSizeRules(Convert convert, unsigned int query, unsigned int needed) {
    constexpr Unit kCanary = 0x5A;
    EXPECT_EQ(convert(nullptr, 0), query);
    std::vector<Unit> buffer(needed + 1, kCanary);
    EXPECT_EQ(convert(buffer.data(), needed), needed);
    EXPECT_EQ(buffer[needed], kCanary);
    std::fill(buffer.begin(), buffer.end(), kCanary);
    EXPECT_EQ(convert(buffer.data(), needed - 1), kFailure);
    EXPECT_EQ(buffer[needed - 1], kCanary);
    EXPECT_EQ(convert(nullptr, needed), kFailure);
}

TEST(CharConvertTest, EveryStringFormAnswersSizeQueriesAndStaysWithinTheBuffer) {
    const char* sjis = "a\x82\xA0\xB1";
    const char* utf8 = "a\xE3\x81\x82\xF0\x9F\x98\x80";
    const unsigned short utf16[] = {'a', 0x3042, 0};
    const wchar_t* wide = L"a\u3042\U0001F600";
    using Narrow = unsigned int (*)(char*, unsigned int, const char*);
    const struct {
        Narrow convert;
        const char* src;
        unsigned int needed;
    } narrowCases[] = {
        {convertStrFromSjisToUtf8, sjis, 8},
        {convertStrFromUtf8ToSjis, utf8, 8},
        {convertStrFromTcharToChar, utf8, 9},
        {convertStrFromCharToTchar, utf8, 9},
        {convertCharSet, utf8, 9},
    };
    for (const auto& c : narrowCases) {
        SCOPED_TRACE(c.needed);
        expectSizeRules<char>([&](char* d, unsigned int n) { return c.convert(d, n, c.src); },
                              c.needed, c.needed);
        EXPECT_EQ(c.convert(nullptr, 0, nullptr), kFailure);
    }
    expectSizeRules<unsigned short>(
        [&](unsigned short* d, unsigned int n) { return convertStrFromSjisToUtf16(d, n, sjis); }, 4,
        4);
    expectSizeRules<unsigned short>(
        [&](unsigned short* d, unsigned int n) { return convertStrFromUtf8ToUtf16(d, n, utf8); }, 4,
        4);
    expectSizeRules<char>(
        [&](char* d, unsigned int n) { return convertStrFromUtf16ToUtf8(d, n, utf16); }, 5, 5);
    expectSizeRules<wchar_t>(
        [&](wchar_t* d, unsigned int n) { return convertStrFromTcharToWchar(d, n, utf8); }, 9, 4);
    expectSizeRules<char>(
        [&](char* d, unsigned int n) { return convertStrFromWcharToTchar(d, n, wide); }, 19, 9);
    expectSizeRules<unsigned char>(
        [&](unsigned char* d, unsigned int n) {
            return convertStrFromDcharToUint8(d, n, utf16, ~0u, 1);
        },
        4, 4);
    expectSizeRules<unsigned short>(
        [&](unsigned short* d, unsigned int n) {
            return convertBinFromUint8ToDchar(d, n, reinterpret_cast<const unsigned char*>("abcd"),
                                              4, 1);
        },
        2, 2);
}

TEST(CharConvertTest, WideTextGoesThroughTheQvFunctions) {
    const char* utf8 = "a\xE3\x81\x82\xF0\x9F\x98\x80";
    wchar_t wide[8];
    ASSERT_EQ(convertStrFromTcharToWchar(wide, 8, utf8), 4u);
    EXPECT_EQ(std::wstring(wide), L"a\u3042\U0001F600");
    char back[16];
    ASSERT_EQ(convertStrFromWcharToTchar(back, sizeof back, wide), 9u);
    EXPECT_STREQ(back, utf8);
    EXPECT_EQ(convertStrFromTcharToWchar(wide, 1, ""), 1u);
    EXPECT_EQ(wide[0], 0);

    for (const char* bad : {"\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "a\xE3\x81", "\x80"}) {
        EXPECT_EQ(convertStrFromTcharToWchar(wide, 8, bad), kFailure) << bad;
    }
    for (const wchar_t bad : {wchar_t(0xD800), wchar_t(0x110000)}) {
        const wchar_t text[] = {L'a', bad, 0};
        EXPECT_EQ(convertStrFromWcharToTchar(back, sizeof back, text), kFailure);
    }

    // The qv functions count what they write and add no terminator.
    wchar_t units[3] = {L'x', L'x', L'x'};
    EXPECT_EQ(qv_mbtowc(units, 2, "a\xC3\xA9", 3, EN_VCP_UTF8), 2);
    EXPECT_EQ(units[1], L'\u00E9');
    EXPECT_EQ(units[2], L'x');
    EXPECT_LT(qv_mbtowc(units, 1, "ab", 2, EN_VCP_UTF8), 1);
    EXPECT_LT(qv_mbtowc(units, 3, "ab", 2, static_cast<EN_VCP>(0)), 1);
    char bytes[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(qv_wctomb(bytes, 3, L"\u3042", 1, EN_VCP_UTF8), 3);
    EXPECT_EQ(bytes[3], 'x');
    EXPECT_LT(qv_wctomb(bytes, 2, L"\u3042", 1, EN_VCP_UTF8), 1);
}

TEST(CharConvertTest, UnitBytesFollowTheByteOrderSwitch) {
    const unsigned short units[] = {0x3042, 0x0041, 0, 0x1234};
    unsigned char bytes[8] = {};
    ASSERT_EQ(convertStrFromDcharToUint8(bytes, 8, units, ~0u, 1), 4u) << "stops at the zero unit";
    EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + 4),
              (std::vector<unsigned char>{0x30, 0x42, 0x00, 0x41}));
    ASSERT_EQ(convertStrFromDcharToUint8(bytes, 8, units, 1, 2), 2u);
    EXPECT_EQ(bytes[0], 0x42);
    EXPECT_EQ(bytes[1], 0x30);

    unsigned short back[2] = {};
    ASSERT_EQ(convertBinFromUint8ToDchar(back, 2, bytes, 2, 0), 1u);
    EXPECT_EQ(back[0], 0x3042);
    ASSERT_EQ(convertBinFromUint8ToDchar(back, 2, bytes, 2, 1), 1u);
    EXPECT_EQ(back[0], 0x4230);
    EXPECT_EQ(convertBinFromUint8ToDchar(back, 2, bytes, 3, 1), kFailure) << "odd byte count";
}

}  // namespace
