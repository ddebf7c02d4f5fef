#include "UtlCharAttrib.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <tuple>

namespace {

using namespace utl;

constexpr unsigned int kFailure = ~0u;

// Code points in hex, separated by spaces, as a text.
std::wstring parseCodePoints(const std::string& hex) {
    std::istringstream in(hex);
    std::wstring text;
    for (unsigned long c = 0; in >> std::hex >> c;) {
        text += static_cast<wchar_t>(c);
    }
    return text;
}

bool isPairSide(const PairAttrib* row, const std::wstring& text, bool first) {
    for (; row->first.mNarrow != nullptr; ++row) {
        if (text == (first ? row->first.mWide : row->second.mWide)) {
            return true;
        }
    }
    return false;
}

// Against the NFKC forms from tools/gen_nfkc_pairs.py: both sides of a row share one compatibility
// form (an unvoiced side with its combining mark), and every character that Unicode maps between
// the widths, and every kana that composes with a voicing mark, has its row.
TEST(CharAttribTest, PairTablesAgreeWithAndCoverUnicodeCompatibilityMappings) {
    if (std::strlen(UTL_NFKC_DATA) == 0) {
        GTEST_SKIP() << "python3 was not found at configure time: no NFKC reference data";
    }
    std::map<std::wstring, std::wstring> forms;
    std::ifstream file(UTL_NFKC_DATA);
    for (std::string line; std::getline(file, line);) {
        const std::size_t split = line.find(';');
        forms[parseCodePoints(line.substr(0, split))] = parseCodePoints(line.substr(split + 1));
    }
    ASSERT_FALSE(forms.empty()) << "cannot read " << UTL_NFKC_DATA;
    const std::pair<const PairAttrib*, const wchar_t*> marked[] = {
        {HANKAKU_ZENKAKU_PAIR, L""},
        {NODAKUON_DAKUON_PAIR, L"\x3099"},
        {NODAKUON_HANDAKUON_PAIR, L"\x309A"}};
    for (const auto& [pair, mark] : marked) {
        for (const PairAttrib* row = pair; row->first.mNarrow != nullptr; ++row) {
            SCOPED_TRACE(std::string(row->first.mNarrow) + " / " + row->second.mNarrow);
            const std::wstring first = row->first.mWide + std::wstring(mark);
            const std::wstring second = row->second.mWide;
            // Unicode gives the spacing marks a space before the combining mark; Japanese text
            // pairs the half-width marks with them all the same (the combining ones are checked).
            if (second != L"\x309B" && second != L"\x309C") {
                ASSERT_EQ(forms.count(first) + forms.count(second), 2u);
                EXPECT_EQ(forms[first], forms[second]);
            }
        }
    }
    for (const auto& [text, form] : forms) {
        SCOPED_TRACE(testing::PrintToString(text));
        const wchar_t c = text[0];
        const bool composes = text.size() == 2 && form.size() == 1;
        if (text.size() == 1 && (c == 0x3000 || (c >= 0xFF01 && c <= 0xFF5E))) {
            EXPECT_TRUE(isPairSide(HANKAKU_ZENKAKU_PAIR, text, false));
        } else if ((text.size() == 1 || (composes && text[1] >= 0xFF9E)) && c >= 0xFF61) {
            EXPECT_TRUE(isPairSide(HANKAKU_ZENKAKU_PAIR, text, true));
        } else if (composes && (text[1] == 0x3099 || text[1] == 0x309A)) {
            EXPECT_TRUE(
                isPairSide(text[1] == 0x3099 ? NODAKUON_DAKUON_PAIR : NODAKUON_HANDAKUON_PAIR,
                           text.substr(0, 1), true));
        }
    }
}

TEST(CharAttribTest, BlockSizeIsDecidedByTheLastMatchingClass) {
    const std::tuple<const char*, int, unsigned int> cases[] = {
        {"", ATTRIB_END, 1},
        {"", ATTRIB_HAN_DIGIT | ATTRIB_OTHER, kFailure},
        {"\r\nx", ATTRIB_KAIGYO, 2},  // "\r\n" is listed before "\r"
        // A later class wins even when it is shorter, unless it fails.
        {"ab", ATTRIB_HAN_HEX | ATTRIB_LOWER_HAN_HEX_ALPHA, 1},
        {"+x", ATTRIB_HAN_SIGNED, kFailure},
        {"+x", ATTRIB_HAN_MARK | ATTRIB_HAN_SIGNED, 1},
        {"−１２", ATTRIB_ZEN_SIGNED, 9},
        // Hex: a prefix or a suffix, not both; a prefix needs a digit after it.
        {"0x1Fz", ATTRIB_HAN_HEX, 4},
        {"1Fh", ATTRIB_HAN_HEX, 3},
        {"0x1Fh", ATTRIB_HAN_HEX, kFailure},
        {"0xg", ATTRIB_HAN_HEX, kFailure},
        // Voiced syllables, precomposed or with a separate mark, then small kana; not a plain kana.
        {"ギャッと", ATTRIB_DAKU_ZEN_KATA, 9},
        {"キ゛ャ", ATTRIB_DAKU_ZEN_KATA, 9},
        {"ｷﾞｬｯ", ATTRIB_DAKU_HAN_KATA, 12},
        {"キャ", ATTRIB_DAKU_ZEN_KATA, kFailure},
        // ATTRIB_OTHER takes one valid character that no class claims.
        {"a", ATTRIB_OTHER, kFailure},
        {"漢字", ATTRIB_OTHER, 3},
        {"\xE6\xBC", ATTRIB_OTHER, kFailure},
        {nullptr, ATTRIB_END, kFailure},
    };
    for (const auto& [text, attrib, expected] : cases) {
        SCOPED_TRACE(testing::Message()
                     << (text ? text : "(null)") << " in " << std::hex << attrib);
        EXPECT_EQ(attribBlockSize(text, attrib), expected);
    }
}

TEST(CharAttribTest, WholeTextsAndSingleCharactersAreClassified) {
    const std::tuple<const char*, int, bool, bool> cases[] = {
        {nullptr, ATTRIB_END, true, true},
        {"", ATTRIB_CLASSES & ~ATTRIB_END, false, false},
        {"+1\r\n0x1F", ATTRIB_HAN_SIGNED | ATTRIB_HAN_HEX | ATTRIB_KAIGYO, true, false},
        {"12a", ATTRIB_HAN_DIGIT, false, true},
        {"漢", ATTRIB_OTHER, true, true},
        {"\xEF\xBB\xBF", ATTRIB_OTHER, true, false},
        {"\xE6\xBC", ATTRIB_OTHER, false, false},
    };
    for (const auto& [text, attrib, str, ch] : cases) {
        SCOPED_TRACE(text != nullptr ? text : "(null)");
        EXPECT_EQ(isStrAttribBase(text, attrib), str);
        EXPECT_EQ(isCharAttribBase(text, attrib), ch);
    }
}

// Each row (source, pair table, direction, size, truncate, result: null for failure) converts
// into its own buffer and in place.
TEST(CharAttribTest, ConvertAttribRewritesThroughEachPairTable) {
    using Case = std::tuple<const char*, const PairAttrib*, int, unsigned int, int, const char*>;
    const Case cases[] = {
        {"Ｘ１２－３　＃", HANKAKU_ZENKAKU_PAIR, 1, 64, 0, "X12-3 #"},
        {"ガパヴ。", HANKAKU_ZENKAKU_PAIR, 1, 64, 0, "ｶﾞﾊﾟｳﾞ｡"},
        {"ｶﾞﾊﾟｱ~", HANKAKU_ZENKAKU_PAIR, 0, 64, 0, "ガパア～"},
        {"カ\u3099", HANKAKU_ZENKAKU_PAIR, 1, 64, 0, "ｶﾞ"},
        {"ｶﾞｯｺｰ", HANKATA_HIRAGANA_PAIR, 0, 64, 0, "がっこー"},
        {"カタカナヴ", ZENKATA_HIRAGANA_PAIR, 0, 64, 0, "かたかなゔ"},
        {"ABCｄＥz", LOWER_UPPER_PAIR, 1, 64, 0, "abcｄｅz"},
        {"ｶﾞがガ", NODAKUON_DAKUON_PAIR, 1, 64, 0, "ｶかカ"},
        {"ﾊはハ", NODAKUON_HANDAKUON_PAIR, 0, 64, 0, "ﾊﾟぱパ"},
        // An invalid sequence ends the text, successfully.
        {"ab\xFFz", LOWER_UPPER_PAIR, 0, 64, 0, "AB"},
        // Too small: a failure, or with truncation cut at a character.
        {"ガパ１", HANKAKU_ZENKAKU_PAIR, 1, 14, 0, "ｶﾞﾊﾟ1"},
        {"ガパ１", HANKAKU_ZENKAKU_PAIR, 1, 13, 0, nullptr},
        {"ガパ１", HANKAKU_ZENKAKU_PAIR, 1, 5, 1, "ｶ"},
        {"ガパ１", HANKAKU_ZENKAKU_PAIR, 1, 1, 1, ""},
        {"ガパ１", HANKAKU_ZENKAKU_PAIR, 1, 0, 1, nullptr},
        {"a", nullptr, 0, 64, 0, nullptr},
    };
    for (const auto& [src, pair, direction, size, truncate, expected] : cases) {
        SCOPED_TRACE(testing::Message() << src << " into " << size << " truncate " << truncate);
        const unsigned int result = expected ? std::strlen(expected) + 1 : kFailure;
        char dst[64], same[64];
        std::strcpy(same, src);
        EXPECT_EQ(convertAttrib(dst, size, src, pair, direction, truncate), result);
        EXPECT_EQ(convertAttrib(same, size, same, pair, direction, truncate), result) << "in place";
        EXPECT_STREQ(expected != nullptr ? dst : nullptr, expected);
        EXPECT_STREQ(expected != nullptr ? same : nullptr, expected);
    }
}

TEST(CharAttribTest, ConvertAttribRefusesSourcesFromTheWorkAreaSizeOn) {
    const unsigned int limit = WorkingBuffer<char>::size();
    std::string src(limit - 1, 'a'), dst(limit, '\0');
    EXPECT_EQ(convertAttrib(&dst[0], limit, src.c_str(), LOWER_UPPER_PAIR, 0, 0), limit);
    EXPECT_EQ(dst.c_str(), std::string(limit - 1, 'A'));
    src += 'a';
    EXPECT_EQ(convertAttrib(&dst[0], limit, src.c_str(), LOWER_UPPER_PAIR, 0, 1), kFailure);
    EXPECT_EQ(convertAttrib<char>(&dst[0], 8, nullptr, LOWER_UPPER_PAIR, 0, 1), kFailure);
}

}  // namespace
