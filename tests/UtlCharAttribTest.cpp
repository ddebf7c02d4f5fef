#include "UtlCharAttrib.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

namespace {

using namespace utl;

constexpr unsigned int kFailure = ~0u;

std::string utf8(const std::wstring& text) {
    std::string out;
    for (const wchar_t c : text) {
        const auto u = static_cast<unsigned long>(c);
        const int following = u < 0x80 ? 0 : u < 0x800 ? 1 : u < 0x10000 ? 2 : 3;
        static const unsigned char kLead[] = {0x00, 0xC0, 0xE0, 0xF0};
        out += static_cast<char>(kLead[following] | (u >> (6 * following)));
        for (int i = following - 1; i >= 0; --i) {
            out += static_cast<char>(0x80 | ((u >> (6 * i)) & 0x3F));
        }
    }
    return out;
}

// Each entry's narrow form is the UTF-8 of its wide form, so either may be used.
TEST(CharAttribTest, EveryEntryHoldsTheSameTextInBothForms) {
    // clang-format off
    const CodeEntry* const tables[] = {
        KAIGYO_TBL, TAB_FF_TBL, CTL_OTHER_TBL, HAN_SPACE_TBL, ZEN_SPACE_TBL, HAN_MARK_TBL,
        ZEN_MARK_TBL, HAN_DIGIT_TBL, ZEN_DIGIT_TBL, HAN_SIGN_TBL, ZEN_SIGN_TBL, HAN_HEX_PREFIX_TBL,
        ZEN_HEX_PREFIX_TBL, HAN_HEX_SUFFIX_TBL, ZEN_HEX_SUFFIX_TBL, LOWER_HAN_HEX_ALPHA_TBL,
        LOWER_ZEN_HEX_ALPHA_TBL, UPPER_HAN_HEX_ALPHA_TBL, UPPER_ZEN_HEX_ALPHA_TBL,
        LOWER_HAN_NOHEX_ALPHA_TBL, LOWER_ZEN_NOHEX_ALPHA_TBL, UPPER_HAN_NOHEX_ALPHA_TBL,
        UPPER_ZEN_NOHEX_ALPHA_TBL, NODAKU_HAN_KATA_TBL, NODAKU_ZEN_KATA_TBL, NODAKU_HIRA_TBL,
        DAKU_HAN_KATA_TBL, DAKU_ZEN_KATA_TBL, DAKU_HIRA_TBL, HANDAKU_HAN_KATA_TBL,
        HANDAKU_ZEN_KATA_TBL, HANDAKU_HIRA_TBL, HAN_DAKUTEN_TBL, ZEN_DAKUTEN_TBL,
        HAN_HANDAKUTEN_TBL, ZEN_HANDAKUTEN_TBL, HAN_KATA_YOUSOKU_TBL, ZEN_KATA_YOUSOKU_TBL,
        HIRA_YOUSOKU_TBL};
    // clang-format on
    const PairAttrib* const pairs[] = {HANKAKU_ZENKAKU_PAIR,  HANKATA_HIRAGANA_PAIR,
                                       ZENKATA_HIRAGANA_PAIR, LOWER_UPPER_PAIR,
                                       NODAKUON_DAKUON_PAIR,  NODAKUON_HANDAKUON_PAIR};
    const auto check = [](const CodeEntry& entry) {
        SCOPED_TRACE(entry.mNarrow);
        ASSERT_NE(entry.mWide, nullptr);
        EXPECT_NE(entry.mNarrow[0], '\0');
        EXPECT_EQ(entry.mNarrow, utf8(entry.mWide));
    };
    for (const CodeEntry* table : tables) {
        for (; table->mNarrow != nullptr; ++table) {
            check(*table);
        }
        EXPECT_EQ(table->mWide, nullptr);
    }
    for (const PairAttrib* row : pairs) {
        for (; row->first.mNarrow != nullptr; ++row) {
            check(row->first);
            check(row->second);
        }
    }
}

// The NFKC forms written by tools/gen_nfkc_pairs.py, by text.
std::map<std::wstring, std::wstring> loadNfkcForms() {
    std::map<std::wstring, std::wstring> forms;
    std::ifstream file(UTL_NFKC_DATA);
    const auto parse = [](const std::string& codePoints) {
        std::istringstream in(codePoints);
        std::wstring text;
        for (unsigned long c = 0; in >> std::hex >> c;) {
            text += static_cast<wchar_t>(c);
        }
        return text;
    };
    for (std::string line; std::getline(file, line);) {
        const std::size_t split = line.find(';');
        forms[parse(line.substr(0, split))] = parse(line.substr(split + 1));
    }
    return forms;
}

bool isPairSide(const PairAttrib* pair, const std::wstring& text, bool first) {
    for (const PairAttrib* row = pair; row->first.mNarrow != nullptr; ++row) {
        if (text == (first ? row->first.mWide : row->second.mWide)) {
            return true;
        }
    }
    return false;
}

class CharAttribNfkcTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::strlen(UTL_NFKC_DATA) == 0) {
            GTEST_SKIP() << "python3 was not found at configure time: no NFKC reference data";
        }
        mForms = loadNfkcForms();
        ASSERT_FALSE(mForms.empty()) << "cannot read " << UTL_NFKC_DATA;
    }

    std::map<std::wstring, std::wstring> mForms;
};

// The two sides of a width row have the same compatibility form; so have an unvoiced kana with
// the combining mark and its voiced or semi-voiced side.
TEST_F(CharAttribNfkcTest, PairRowsAgreeWithUnicodeCompatibilityMappings) {
    const struct {
        const char* name;
        const PairAttrib* pair;
        const wchar_t* mark;
    } cases[] = {{"HANKAKU_ZENKAKU_PAIR", HANKAKU_ZENKAKU_PAIR, L""},
                 {"NODAKUON_DAKUON_PAIR", NODAKUON_DAKUON_PAIR, L"\x3099"},
                 {"NODAKUON_HANDAKUON_PAIR", NODAKUON_HANDAKUON_PAIR, L"\x309A"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const PairAttrib* row = c.pair; row->first.mNarrow != nullptr; ++row) {
            const std::wstring first = row->first.mWide + std::wstring(c.mark);
            const std::wstring second = row->second.mWide;
            // Unicode gives the spacing marks a space before the combining mark; Japanese text
            // pairs the half-width marks with them all the same (the combining ones are checked).
            if (second == L"\x309B" || second == L"\x309C") {
                continue;
            }
            SCOPED_TRACE(std::string(row->first.mNarrow) + " / " + row->second.mNarrow);
            ASSERT_EQ(mForms.count(first), 1u);
            ASSERT_EQ(mForms.count(second), 1u);
            EXPECT_EQ(utf8(mForms[first]), utf8(mForms[second]));
        }
    }
}

// Every character that Unicode maps between the widths, and every kana that composes with a
// voicing mark, has its row.
TEST_F(CharAttribNfkcTest, PairTablesCoverUnicodeCompatibilityMappings) {
    for (const auto& [text, form] : mForms) {
        SCOPED_TRACE(utf8(text));
        const wchar_t c = text[0];
        if (text.size() == 1 && (c == 0x3000 || (c >= 0xFF01 && c <= 0xFF5E))) {
            EXPECT_TRUE(isPairSide(HANKAKU_ZENKAKU_PAIR, text, false));
        } else if (text.size() == 1 && c >= 0xFF61 && c <= 0xFF9F) {
            EXPECT_TRUE(isPairSide(HANKAKU_ZENKAKU_PAIR, text, true));
        } else if (text.size() == 2 && form.size() == 1 && c >= 0xFF61 &&
                   (text[1] == 0xFF9E || text[1] == 0xFF9F)) {
            EXPECT_TRUE(isPairSide(HANKAKU_ZENKAKU_PAIR, text, true));
        } else if (text.size() == 2 && form.size() == 1 && text[1] == 0x3099) {
            EXPECT_TRUE(isPairSide(NODAKUON_DAKUON_PAIR, text.substr(0, 1), true));
        } else if (text.size() == 2 && form.size() == 1 && text[1] == 0x309A) {
            EXPECT_TRUE(isPairSide(NODAKUON_HANDAKUON_PAIR, text.substr(0, 1), true));
        }
    }
}

TEST(CharAttribTest, FindCodeTableAdvancesPastTheFirstMatchingEntry) {
    unsigned int pos = 1;
    EXPECT_EQ(findCodeTable("x\r\ny", KAIGYO_TBL, &pos), KAIGYO_TBL[0].mNarrow);
    EXPECT_EQ(pos, 3u);
    EXPECT_EQ(findCodeTable("x\r\ny", KAIGYO_TBL, &pos), nullptr);
    EXPECT_EQ(pos, 3u);
}

TEST(CharAttribTest, BlockSizeIsDecidedByTheLastMatchingClass) {
    const struct {
        const char* text;
        int attrib;
        unsigned int expected;
    } cases[] = {
        {"", ATTRIB_END, 1},
        {"", ATTRIB_HAN_DIGIT | ATTRIB_OTHER, kFailure},
        {"\r\nx", ATTRIB_KAIGYO, 2},
        // A later class wins even when it is shorter.
        {"1ab", ATTRIB_HAN_DIGIT | ATTRIB_HAN_HEX, 3},
        {"ab", ATTRIB_HAN_HEX | ATTRIB_LOWER_HAN_HEX_ALPHA, 1},
        {"+12", ATTRIB_HAN_MARK | ATTRIB_HAN_SIGNED, 3},
        {"+x", ATTRIB_HAN_SIGNED, kFailure},
        {"+x", ATTRIB_HAN_MARK | ATTRIB_HAN_SIGNED, 1},
        {"−１２", ATTRIB_ZEN_SIGNED, 9},
        {"0x1Fz", ATTRIB_HAN_HEX, 4},
        {"1Fh", ATTRIB_HAN_HEX, 3},
        {"0x1Fh", ATTRIB_HAN_HEX, kFailure},
        {"0xg", ATTRIB_HAN_HEX, kFailure},
        {"０ｘＡｆ", ATTRIB_ZEN_HEX, 12},
        {"ＡｆＨ", ATTRIB_ZEN_HEX, 9},
        {"０ｘ１Ｈ", ATTRIB_ZEN_HEX, kFailure},
        // Voiced syllables, precomposed or with the separate mark, take the small kana after
        // them; a plain kana is no voiced syllable.
        {"ギャッと", ATTRIB_DAKU_ZEN_KATA, 9},
        {"キ゛ャ", ATTRIB_DAKU_ZEN_KATA, 9},
        {"ｷﾞｬｯ", ATTRIB_DAKU_HAN_KATA, 12},
        {"ﾋﾟｮ", ATTRIB_HANDAKU_HAN_KATA, 9},
        {"ひ\u309Aょ", ATTRIB_HANDAKU_HIRA, 9},
        {"じゅ", ATTRIB_DAKU_HIRA, 6},
        {"キャ", ATTRIB_DAKU_ZEN_KATA, kFailure},
        {"ャ", ATTRIB_NODAKU_ZEN_KATA, 3},
        // ATTRIB_OTHER takes only what no class claims.
        {"a", ATTRIB_OTHER, kFailure},
        {"漢字", ATTRIB_OTHER, 3},
        {"\xE6\xBC", ATTRIB_OTHER, kFailure},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << '"' << c.text << "\" " << std::hex << c.attrib);
        EXPECT_EQ(attribBlockSize(c.text, c.attrib), c.expected);
    }
    EXPECT_EQ(attribBlockSize<char>(nullptr, ATTRIB_END), kFailure);
}

TEST(CharAttribTest, WholeTextsAndSingleCharactersAreClassified) {
    const struct {
        const char* text;
        int attrib;
        bool str;
        bool ch;
    } cases[] = {
        {"", ATTRIB_END, true, true},
        {nullptr, ATTRIB_END, true, true},
        {"", ATTRIB_CLASSES & ~ATTRIB_END, false, false},
        {"+1 0x1F\r\n", ATTRIB_HAN_SIGNED | ATTRIB_HAN_SPACE | ATTRIB_HAN_HEX | ATTRIB_KAIGYO, true,
         false},
        {"12a", ATTRIB_HAN_DIGIT, false, true},
        {"ｶﾞｷﾞｬ", ATTRIB_DAKU_HAN_KATA, true, false},
        {"漢", ATTRIB_OTHER, true, true},
        {"\xEF\xBB\xBF", ATTRIB_OTHER, true, false},
        {"\xE6\xBC", ATTRIB_OTHER, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text != nullptr ? c.text : "(null)");
        EXPECT_EQ(isStrAttribBase(c.text, c.attrib), c.str);
        EXPECT_EQ(isCharAttribBase(c.text, c.attrib), c.ch);
    }
}

TEST(CharAttribTest, ConvertAttribRewritesThroughEachPairTable) {
    const struct {
        const char* src;
        const PairAttrib* pair;
        int direction;
        const char* expected;
    } cases[] = {
        {"Ｘ１２－３　＃", HANKAKU_ZENKAKU_PAIR, 1, "X12-3 #"},
        {"ガパヴ。", HANKAKU_ZENKAKU_PAIR, 1, "ｶﾞﾊﾟｳﾞ｡"},
        {"ｶﾞﾊﾟｱ~", HANKAKU_ZENKAKU_PAIR, 0, "ガパア～"},
        {"カ\u3099", HANKAKU_ZENKAKU_PAIR, 1, "ｶﾞ"},
        {"ｶﾞｯｺｰ", HANKATA_HIRAGANA_PAIR, 0, "がっこー"},
        {"がっこう", HANKATA_HIRAGANA_PAIR, 1, "ｶﾞｯｺｳ"},
        {"カタカナヴ", ZENKATA_HIRAGANA_PAIR, 0, "かたかなゔ"},
        {"ABCｄＥz", LOWER_UPPER_PAIR, 1, "abcｄｅz"},
        {"ｶﾞがガ", NODAKUON_DAKUON_PAIR, 1, "ｶかカ"},
        {"ﾊはハ", NODAKUON_HANDAKUON_PAIR, 0, "ﾊﾟぱパ"},
        // An invalid sequence ends the text, successfully.
        {"ab\xFFz", LOWER_UPPER_PAIR, 0, "AB"},
        {"\xFF", LOWER_UPPER_PAIR, 0, ""},
        {"", LOWER_UPPER_PAIR, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.src);
        char dst[64];
        EXPECT_EQ(convertAttrib(dst, sizeof dst, c.src, c.pair, c.direction, 0),
                  std::strlen(c.expected) + 1);
        EXPECT_STREQ(dst, c.expected);
    }
}

TEST(CharAttribTest, ConvertAttribMayWriteOverItsSource) {
    char text[32] = "ガパ１";
    EXPECT_EQ(convertAttrib(text, sizeof text, text, HANKAKU_ZENKAKU_PAIR, 1, 0), 14u);
    EXPECT_STREQ(text, "ｶﾞﾊﾟ1");
}

TEST(CharAttribTest, ConvertAttribCutsOnlyWhenTold) {
    const struct {
        unsigned int size;
        int truncate;
        unsigned int expected;
        const char* text;
    } cases[] = {
        {14, 0, 14, "ｶﾞﾊﾟ1"},
        {13, 0, kFailure, nullptr},
        {13, 1, 13, "ｶﾞﾊﾟ"},
        {9, 1, 7, "ｶﾞ"},
        {5, 1, 4, "ｶ"},
        {1, 1, 1, ""},
        {0, 1, kFailure, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "size " << c.size << " truncate " << c.truncate);
        char dst[16];
        EXPECT_EQ(convertAttrib(dst, c.size, "ガパ１", HANKAKU_ZENKAKU_PAIR, 1, c.truncate),
                  c.expected);
        if (c.text != nullptr) {
            EXPECT_STREQ(dst, c.text);
        }
    }
}

TEST(CharAttribTest, ConvertAttribRefusesSourcesFromTheWorkAreaSizeOn) {
    std::string src(WorkingBuffer<char>::size() - 1, 'a');
    std::string dst(WorkingBuffer<char>::size(), '\0');
    EXPECT_EQ(
        convertAttrib(&dst[0], WorkingBuffer<char>::size(), src.c_str(), LOWER_UPPER_PAIR, 0, 0),
        WorkingBuffer<char>::size());
    EXPECT_EQ(dst.c_str(), std::string(src.size(), 'A'));
    src += 'a';
    EXPECT_EQ(
        convertAttrib(&dst[0], WorkingBuffer<char>::size(), src.c_str(), LOWER_UPPER_PAIR, 0, 1),
        kFailure);
    EXPECT_EQ(convertAttrib<char>(&dst[0], 8, nullptr, LOWER_UPPER_PAIR, 0, 1), kFailure);
    EXPECT_EQ(convertAttrib(&dst[0], 8, "a", nullptr, 0, 1), kFailure);
}

}  // namespace
