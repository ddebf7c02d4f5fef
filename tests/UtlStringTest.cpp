#include "UtlString.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

// U+3042 and U+3044 (3 bytes each), a byte-order mark, a byte that starts nothing, and the
// full-width forms of A, a, 1 and +.
#define KA "\xE3\x81\x82"
#define KI "\xE3\x81\x84"
#define BOM "\xEF\xBB\xBF"
#define STRAY "\x80"
#define ZEN_UPPER_A "\xEF\xBC\xA1"
#define ZEN_LOWER_A "\xEF\xBD\x81"
#define ZEN_ONE "\xEF\xBC\x91"
#define ZEN_PLUS "\xEF\xBC\x8B"

constexpr unsigned int FAIL = ~0u;
constexpr unsigned int AREA = utl::StaticBuffer::AREA_SIZE;
using String = utl::BasicString<char>;

// A heap buffer of exactly `size` bytes (so that AddressSanitizer sees any overrun) holding
// `text`, the rest filled with 'X'.
std::vector<char> bufferWith(const char* text, unsigned int size) {
    std::vector<char> buffer(size, 'X');
    std::memcpy(buffer.data(), text, std::strlen(text) + 1);
    return buffer;
}

// Tables are walked with their row index (from 0) as the trace, which the comments refer to.

// A null `expected` wants the result `~0u`; otherwise the buffer holds `expected`, terminated
// where the result (its size) says.
void expectText(unsigned int result, const std::vector<char>& buffer, const char* expected) {
    if (expected == nullptr) {
        EXPECT_EQ(result, FAIL);
        return;
    }
    ASSERT_EQ(result, std::strlen(expected) + 1);
    ASSERT_LE(result, buffer.size());
    EXPECT_STREQ(buffer.data(), expected);
}

// Valid forms, then overlong forms and a sequence cut by the terminator.
TEST(StringTest, CharacterLengthsFollowTheFirstByteAndCheckTheRest) {
    struct Case {
        const char* s;
        unsigned int charlen, strCharBytes;
        bool bom;
    } cases[] = {{"a", 1, 1, false},
                 {KA, 3, 3, false},
                 {"\xF0\x9F\x98\x80", 4, 4, false},
                 {BOM "a", 3, 3, true},
                 {STRAY, FAIL, FAIL, false},
                 {"\xC0\x80", FAIL, 0, false},
                 {"\xE0\x80\x80", FAIL, 0, false},
                 {"\xF0\x80\x80\x80", FAIL, 0, false},
                 {"\xE3\x81", FAIL, 0, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        bool bom = !c.bom;
        EXPECT_EQ(utl::t_charlen(c.s, &bom), c.charlen);
        EXPECT_EQ(bom, c.bom);
        EXPECT_EQ(utl::strCharBytesBase(c.s, static_cast<bool*>(nullptr)), c.strCharBytes);
    }
}

TEST(StringTest, NearCharIndexRoundsInsideACharacter) {
    const char* s = "a" KA "b";
    EXPECT_EQ(utl::getNearCharIndex(s, 2, 1), 1u);
    EXPECT_EQ(utl::getNearCharIndex(s, 2, 0), 4u);
    EXPECT_EQ(utl::getNearCharIndex(s, 9, 1), 5u);
    EXPECT_EQ(utl::getNearCharIndex("a" STRAY "b", 2, 1), FAIL);
}

// Rows 2 and 3: a count inside a character steps back in both modes; the last two meet an
// invalid sequence while truncating and find no boundary to step back to.
TEST(StringTest, CopyStrBaseCutsAtCharactersOrRefuses) {
    struct Case {
        const char* src;
        unsigned int size, count;
        int truncate;
        const char* text;
    } cases[] = {{"a" KA, 3, FAIL, 1, "a"},     {"a" KA, 3, FAIL, 0, nullptr},
                 {"a" KA, 8, 2, 0, "a"},        {"a" KA, 8, 3, 1, "a"},
                 {"", 1, FAIL, 0, ""},          {"abc", 1, FAIL, 1, ""},
                 {"abc", 1, FAIL, 0, nullptr},  {"a\xC0\x80", 3, FAIL, 1, nullptr},
                 {"\x81\x82", 8, 1, 0, nullptr}};
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::vector<char> buffer(c.size, 'X');
        expectText(utl::copyStrBase(buffer.data(), c.size, c.src, c.count, c.truncate), buffer,
                   c.text);
    }
    char untouched[] = "XY";
    EXPECT_EQ(utl::copyStrBase(untouched, sizeof untouched, "abc", 0, 0), 0u);
    EXPECT_STREQ(untouched, "XY");
    EXPECT_EQ(utl::copyStrBase(static_cast<char*>(nullptr), 0, "abc", ~0u, 0), 4u);
}

TEST(StringTest, StrncpyAndFormatStrRefuseWhatDoesNotFit) {
    std::vector<char> buffer(5, 'X');
    expectText(utl::t_strncpy(buffer.data(), 5, "a" KA "b", 3), buffer, "a");
    expectText(utl::t_strncpy(buffer.data(), 1, static_cast<const char*>(nullptr), ~0u), buffer,
               "");
    EXPECT_EQ(utl::t_strncpy(buffer.data(), 3, "a" KA, 3), FAIL);

    expectText(utl::formatStr(buffer.data(), 5, "%s-%d", "ab", 7), buffer, "ab-7");
    EXPECT_EQ(utl::formatStr(buffer.data(), 4, "%s-%d", "ab", 7), FAIL);
    EXPECT_EQ(utl::formatStr(buffer.data(), 0, "x"), FAIL);
}

TEST(StringTest, TruncateStrCutsAtTheStartOfTheSplitCharacter) {
    struct Case {
        unsigned int length;
        const char* text;
    } cases[] = {{0, ""}, {1, "a"}, {3, "a"}, {4, "a" KA}, {99, "a" KA "b"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::vector<char> buffer = bufferWith("a" KA "b", 6);
        expectText(utl::truncateStr(buffer.data(), c.length), buffer, c.text);
    }
    char invalid[] = "a" STRAY "bc";
    EXPECT_EQ(utl::truncateStr(invalid, 3), FAIL);
}

// Row 4: the kana does not fit whole, so nothing follows "b".
TEST(StringTest, ReverseKeepsTheBytesOfEachCharacterInOrder) {
    struct Case {
        const char* src;
        unsigned int size;
        int truncate;
        const char* text;
    } cases[] = {{"abc", 4, 0, "cba"},        {"a" KA "b", 6, 0, "b" KA "a"},
                 {"a" KA "b", 5, 0, nullptr}, {"a" KA "b", 5, 1, "b" KA},
                 {"a" KA "b", 4, 1, "b"},     {BOM "a", 5, 0, "a" BOM},
                 {"a\xE3\x81", 4, 0, nullptr}};
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::vector<char> buffer(c.size, 'X');
        expectText(utl::reverseStrBase(buffer.data(), c.size, c.src, c.truncate), buffer, c.text);
    }
    EXPECT_EQ(utl::reverseStrBase(static_cast<char*>(nullptr), 0, "a" KA, 0), 5u);
}

// Row 2: a count inside a character inserts less. Last row: the cut kana ends the text, and "b"
// must not follow it.
TEST(StringTest, InsertStrPlacesTextBeforeAPosition) {
    struct Case {
        const char *text, *src;
        unsigned int size, pos, count;
        int truncate;
        const char* expected;
    } cases[] = {{"abc", "XY", 8, 1, FAIL, 0, "aXYbc"}, {"abc", "XY", 8, 1, 1, 0, "aXbc"},
                 {"abc", KA, 8, 0, 2, 0, "abc"},        {"abc", "XY", 8, 4, FAIL, 0, nullptr},
                 {"a" KA, "X", 8, 2, FAIL, 0, nullptr}, {"abc", "XY", 5, 1, FAIL, 0, nullptr},
                 {"abc", "XY", 5, 1, FAIL, 1, "aXYb"},  {"ab", KA, 4, 1, FAIL, 1, "a"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::vector<char> buffer = bufferWith(c.text, c.size);
        expectText(utl::insertStr(buffer.data(), c.size, c.pos, c.src, c.count, c.truncate), buffer,
                   c.expected);
    }
}

TEST(StringTest, EraseStrSpanRemovesBytesUpToTheEnd) {
    struct Case {
        unsigned int pos, count;
        const char* text;
    } cases[] = {{1, 2, "adef"}, {4, 99, "abcd"}, {6, 1, "abcdef"}, {7, 0, nullptr}};
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::vector<char> buffer = bufferWith("abcdef", 7);
        expectText(utl::eraseStrSpan(buffer.data(), c.pos, c.count), buffer, c.text);
    }
}

// Row 1: replacing with the empty text keeps what precedes the first occurrence. Row 6: the cut
// kana ends the text, and "b" must not follow it. Row 7: no match inside characters.
TEST(StringTest, ReplaceStrInBothForms) {
    struct Case {
        const char *src, *from, *to;
        unsigned int size;
        int truncate;
        const char* text;
    } cases[] = {{"a-b-c", "-", "+", 6, 0, "a+b+c"},    {"a-b-c", "-", "", 6, 0, "a"},
                 {"a-b-c", "-", "--", 8, 0, "a--b--c"}, {"a-b-c", "-", "--", 7, 0, nullptr},
                 {"a-b-c", "-", "--", 7, 1, "a--b--"},  {"aaa", "aa", "b", 4, 0, "ba"},
                 {"a-b", "-", KA, 4, 1, "a"},           {KA KI, "\x82\xE3", "x", 8, 0, KA KI},
                 {"abc", "", "x", 4, 0, "abc"},         {"abc", "b", "x", 0, 0, nullptr}};
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::vector<char> buffer(c.size, 'X');
        expectText(utl::replaceStr(buffer.data(), c.size, c.src, c.from, c.to, c.truncate), buffer,
                   c.text);
        if (std::strlen(c.src) < c.size) {
            buffer = bufferWith(c.src, c.size);
            expectText(utl::replaceStr(buffer.data(), c.size, c.from, c.to, c.truncate), buffer,
                       c.text);
        }
    }
}

TEST(StringTest, TrimStrRightRemovesTrailingCharactersOfTheSet) {
    struct Case {
        const char *text, *set, *trimmed;
    } cases[] = {
        {"ab \t ", " \t", "ab"}, {"a" KA KI KA, KA, "a" KA KI},      {" \t", "\t ", ""},
        {"ab ", nullptr, "ab "}, {"a\xE3", "\xE3\x81\x82", "a\xE3"},  // an invalid byte stays
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::vector<char> buffer = bufferWith(c.text, std::strlen(c.text) + 1);
        expectText(utl::trimStrRight(buffer.data(), c.set), buffer, c.trimmed);
    }
}

TEST(StringTest, SearchesMatchWholeCharactersOnly) {
    const char* s = "ab" KA "c" KI;
    EXPECT_EQ(utl::t_strstr(s, "c"), 5u);
    EXPECT_EQ(utl::t_strstr(KA KI, "\x82\xE3"), FAIL);
    EXPECT_EQ(utl::t_strstr(STRAY "b", "b"), 1u);
    EXPECT_EQ(utl::t_strstr(s, ""), 9u);
    EXPECT_EQ(utl::t_strstr("", "a"), FAIL);

    EXPECT_EQ(utl::t_strspn(" \t" KA "x", " \t" KA), 5u);
    EXPECT_EQ(utl::t_strspn(KA KI, "\xE3\x81"), 0u);  // bytes of a character are no character
    EXPECT_EQ(utl::t_strspn(" " STRAY " ", " " STRAY), 1u);  // an invalid sequence ends the run

    EXPECT_EQ(utl::t_strcspn(s, "c" KA), 2u);
    EXPECT_EQ(utl::t_strcspn(s, "xyz"), 9u);
}

TEST(StringTest, FindReverseFindsTheLastOccurrenceStartingAtOrBeforePos) {
    const char* s = "ab" KA "ab" KA;  // "ab" at 0 and 5, the kana at 2 and 7
    struct Case {
        const char* sub;
        unsigned int pos, result;
    } cases[] = {{"ab", FAIL, 5},    {"ab", 5, 5},    {"ab", 4, 0},  {"ab", 0, 0},
                 {KA, FAIL, 7},      {KA, 6, 2},      {KA, 1, FAIL}, {"b" KA, FAIL, 6},
                 {"zz", FAIL, FAIL}, {"", FAIL, FAIL}};
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        unsigned int found = 12345;
        EXPECT_EQ(utl::findReverseStr(s, c.sub, c.pos, &found), c.result);
        EXPECT_EQ(found, c.result);
    }
    EXPECT_EQ(utl::findReverseChar(s, KA "ab", FAIL, static_cast<unsigned int*>(nullptr)), 7u);
    for (const char* ch : {BOM, "\xE3\x81", ""}) {
        unsigned int found = 12345;
        EXPECT_EQ(utl::findReverseChar(s, ch, FAIL, &found), FAIL);
        EXPECT_EQ(found, FAIL);
    }
}

TEST(StringTest, CompareStrNoCaseIgnoresHalfAndFullWidthCase) {
    EXPECT_EQ(utl::compareStrNoCase("HeLLo", "hello", ~0u), 0);
    EXPECT_EQ(utl::compareStrNoCase(ZEN_UPPER_A "b", ZEN_LOWER_A "B", ~0u), 0);
    EXPECT_GT(utl::compareStrNoCase("abD", "ABC", ~0u), 0);
    EXPECT_EQ(utl::compareStrNoCase("abX", "ABy", 2), 0);
    EXPECT_EQ(utl::compareStrNoCase(static_cast<const char*>(nullptr), "", ~0u), 0);
    EXPECT_NE(utl::compareStrNoCase(ZEN_UPPER_A, "a", ~0u), 0);  // the widths stay distinct
}

TEST(StringTest, StrToIntParsesUnsignedShortsAndLeavesTheOutputOnFailure) {
    struct Case {
        const char* s;
        int base;
        bool ok;
        unsigned short value;
    } cases[] = {{"123", 10, true, 123},
                 {"+42", 10, true, 42},
                 {"-1", 10, false, 0},
                 {"0x1F", 0, true, 31},
                 {"0X1f", 0, true, 31},
                 {"017", 0, true, 15},
                 {"0", 0, true, 0},
                 {"0x", 0, false, 0},
                 {"0x1F", 16, true, 0},
                 {"z", 36, true, 35},
                 {"12ab", 10, true, 12},
                 {"65535", 10, true, 65535},
                 {"65536", 10, false, 0},
                 {"", 10, false, 0},
                 {" 1", 10, false, 0},
                 {"1", 1, false, 0},
                 {ZEN_PLUS ZEN_ONE "2", 10, true, 12}};
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        unsigned short value = 777;
        EXPECT_EQ(utl::strToInt(&value, c.s, c.base), c.ok);
        EXPECT_EQ(value, c.ok ? c.value : 777);
    }
}

// Every function that copies its input into a work area takes texts of up to 10239 bytes.
TEST(StringTest, WorkAreaFunctionsRefuseTextsOfTheAreaSizeOrMore) {
    for (unsigned int length : {AREA - 1, AREA}) {
        SCOPED_TRACE(length);
        const bool fits = length < AREA;
        const std::string text(length, '0');
        std::vector<char> buffer = bufferWith(text.c_str(), AREA + 2);
        EXPECT_EQ(utl::eraseStrSpan(buffer.data(), 0, 0) != FAIL, fits);
        EXPECT_EQ(utl::insertStr(buffer.data(), AREA + 2, 0, "", ~0u, 0) != FAIL, fits);
        EXPECT_EQ(utl::replaceStr(buffer.data(), AREA + 2, "1", "2", 0) != FAIL, fits);
        EXPECT_EQ(utl::trimStrRight(buffer.data(), "x") != FAIL, fits);
        EXPECT_EQ(utl::findReverseStr(text.c_str(), "0", ~0u, nullptr) != FAIL, fits);
        EXPECT_EQ(utl::compareStrNoCase(text.c_str(), "0", 1) != utl::COMPARE_FAILED, fits);
        unsigned short value = 1;
        EXPECT_EQ(utl::strToInt(&value, text.c_str(), 10), fits);
        EXPECT_EQ(String(text.c_str(), 0, 1).replace("1", "2", 0), fits);
    }
}

// Threads that use the work buffer at once must each see their own text.
TEST(StringTest, WorkBufferKeepsConcurrentCallersApart) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            const std::string text = std::string(200, static_cast<char>('a' + t)) + "-";
            for (int i = 0; i < 500; ++i) {
                std::vector<char> buffer = bufferWith(text.c_str(), 300);
                const bool ok = utl::replaceStr(buffer.data(), 300, "-", "+", 0) == 202 &&
                                text.compare(0, 200, buffer.data(), 200) == 0 &&
                                utl::findReverseStr(text.c_str(), "-", ~0u, nullptr) == 200;
                failures[t] += ok ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

TEST(BasicStringTest, StringsOfSizeOneShareTheEmptyTextWithoutWritingIt) {
    const char* shared = String::EMPTY_STR.mNarrow;

    String fromNull(nullptr, 0, 0);
    EXPECT_EQ(fromNull.getMax(), 1u);
    EXPECT_EQ(fromNull.c_str(), shared);
    EXPECT_TRUE(fromNull.copy("abc", ~0u, 1));  // cut to nothing; the shared text is read-only
    fromNull += "";
    EXPECT_TRUE(fromNull.replace("a", "b", 0));

    String string("a" KA "b", 8, 0);
    const char* before = string.c_str();
    EXPECT_TRUE(string.resizeMax(8));
    EXPECT_EQ(string.c_str(), before);
    EXPECT_TRUE(string.resizeMax(4));  // cut before the kana
    EXPECT_STREQ(string.c_str(), "a");
    EXPECT_TRUE(string.resizeMax(1));
    EXPECT_EQ(string.c_str(), shared);
    EXPECT_EQ(string.getMax(), 1u);
}

TEST(BasicStringTest, FixedStringRefusesOrCutsWhatDoesNotFit) {
    String string(4, 0);
    string = "abc";
    string = "abcd";
    EXPECT_STREQ(string.c_str(), "abc");
    string += "d";
    EXPECT_STREQ(string.c_str(), "abc");
    EXPECT_FALSE(string.copy("a" KA, ~0u, 0));
    EXPECT_TRUE(string.copy("xyz", 0, 0));  // a count of 0 stores nothing
    EXPECT_STREQ(string.c_str(), "abc");
    EXPECT_TRUE(string.copy("a" KA, ~0u, 1));
    EXPECT_STREQ(string.c_str(), "a");
    string = "";
    EXPECT_STREQ(string.c_str(), "");
    EXPECT_EQ(string.getMax(), 4u);
}

TEST(BasicStringTest, AutoExtendingStringGrowsToExactlyTheSizeNeeded) {
    String string(0, 1);
    string = "abc";
    EXPECT_EQ(string.getMax(), 4u);
    string += "de";
    EXPECT_STREQ(string.c_str(), "abcde");
    EXPECT_EQ(string.getMax(), 6u);
    EXPECT_TRUE(string.copy("abcdefgh", 7, 0));
    EXPECT_STREQ(string.c_str(), "abcdefg");
    EXPECT_EQ(string.getMax(), 8u);
    string = "x";
    EXPECT_EQ(string.getMax(), 8u);  // never shrinks on its own
}

TEST(BasicStringTest, ReplaceGrowsOrCutsAndLeavesTheTextOnFailure) {
    String growing("a-b-c", 0, 1);
    EXPECT_TRUE(growing.replace("-", "--", 0));
    EXPECT_STREQ(growing.c_str(), "a--b--c");
    EXPECT_EQ(growing.getMax(), 8u);
    EXPECT_TRUE(growing.replace("--", "", 0));
    EXPECT_STREQ(growing.c_str(), "a");

    String fixed("a-b-c", 0, 0);
    EXPECT_FALSE(fixed.replace("-", "--", 0));
    EXPECT_STREQ(fixed.c_str(), "a-b-c");
    EXPECT_TRUE(fixed.replace("-", "--", 1));
    EXPECT_STREQ(fixed.c_str(), "a--b-");
}

TEST(BasicStringTest, TextsFromTheStringItselfAreSafe) {
    String string("abc", 0, 1);
    string += string.c_str();
    EXPECT_STREQ(string.c_str(), "abcabc");
    string = string.c_str() + 2;
    EXPECT_STREQ(string.c_str(), "cabc");
    EXPECT_TRUE(string.replace(string.c_str() + 3, string.c_str(), 0));
    EXPECT_STREQ(string.c_str(), "cabcabcabc");
}

TEST(BasicStringTest, CopiesOwnTheirBufferAndKeepSizeAndGrowthMode) {
    String fixed("abc", 6, 0);
    String copied(fixed);
    EXPECT_EQ(copied.getMax(), 6u);
    fixed = "xyz";
    EXPECT_STREQ(copied.c_str(), "abc");
    copied += "defg";
    EXPECT_STREQ(copied.c_str(), "abc");  // fixed like the original

    String growing("q", 0, 1);
    growing = fixed;
    EXPECT_STREQ(growing.c_str(), "xyz");
    EXPECT_EQ(growing.getMax(), 6u);
    growing += "defg";
    EXPECT_STREQ(growing.c_str(), "xyz");  // took the fixed mode too
    const String& same = growing;
    growing = same;
    EXPECT_STREQ(growing.c_str(), "xyz");
    growing = String(nullptr, 0, 1);
    EXPECT_EQ(growing.c_str(), String::EMPTY_STR.mNarrow);
}

TEST(BasicStringTest, PlusJoinsIntoANewStringWithTheGrowthModeOfTheRightSide) {
    String joined = "ab" + String("cd", 0, 0);
    EXPECT_STREQ(joined.c_str(), "abcd");
    EXPECT_EQ(joined.getMax(), 5u);
    joined += "e";
    EXPECT_STREQ(joined.c_str(), "abcd");

    String growing = static_cast<const char*>(nullptr) + String("cd", 0, 1);
    growing += "e";
    EXPECT_STREQ(growing.c_str(), "cde");
}

}  // namespace
