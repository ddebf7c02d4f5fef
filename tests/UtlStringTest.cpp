#include "UtlString.h"

#include <gtest/gtest.h>

#include "UtlCharAttrib.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

// U+3042 and U+3044 (3 bytes each), a byte-order mark and a byte that starts nothing.
#define KA "\xE3\x81\x82"
#define KI "\xE3\x81\x84"
#define BOM "\xEF\xBB\xBF"
#define STRAY "\x80"

constexpr unsigned int FAIL = ~0u;
constexpr unsigned int AREA = utl::StaticBuffer::AREA_SIZE;
using String = utl::BasicString<char>;

// A heap buffer of exactly `size` bytes (so that AddressSanitizer sees any overrun) holding as
// much of `text` as fits, the rest filled with 'X'.
std::vector<char> bufferWith(const char* text, unsigned int size) {
    std::vector<char> buffer(size, 'X');
    std::memcpy(buffer.data(), text, std::min<std::size_t>(size, std::strlen(text) + 1));
    return buffer;
}

// Overlong forms (C0 80, E0 80 80, F0 80 80 80) and cut sequences are invalid.
TEST(StringTest, CharactersAreMeasuredAndMatchedWhole) {
    const std::tuple<const char*, unsigned int, unsigned int> lengths[] = {
        {"a", 1, 1},          {"\xF0\x9F\x98\x80", 4, 4},
        {KA, 3, 3},           {"\xC0\x80", FAIL, 0},
        {BOM "a", 3, 3},      {"\xE0\x80\x80", FAIL, 0},
        {STRAY, FAIL, FAIL},  {"\xF0\x80\x80\x80", FAIL, 0},
        {"\xE3\x81", FAIL, 0}};
    for (auto [s, charlen, strCharBytes] : lengths) {
        SCOPED_TRACE(testing::PrintToString(std::string(s)));
        bool bom = std::strcmp(s, BOM "a") != 0;  // the opposite of what is expected
        EXPECT_EQ(utl::t_charlen(s, &bom), charlen);
        EXPECT_EQ(bom, std::strcmp(s, BOM "a") == 0);
        EXPECT_EQ(utl::strCharBytesBase(s, static_cast<bool*>(nullptr)), strCharBytes);
    }
    EXPECT_EQ(utl::getNearCharIndex("a" KA "b", 2, 1), 1u);
    EXPECT_EQ(utl::getNearCharIndex("a" KA "b", 2, 0), 4u);
    EXPECT_EQ(utl::getNearCharIndex("a" KA "b", 9, 1), 5u);
    EXPECT_EQ(utl::getNearCharIndex("a" STRAY "b", 2, 1), FAIL);

    const char* s = "ab" KA "ab" KA;  // "ab" at 0 and 5, the kana at 2 and 7
    EXPECT_EQ(utl::t_strstr(s, KA "a"), 2u);
    EXPECT_EQ(utl::t_strstr(KA KI, "\x82\xE3"), FAIL);
    EXPECT_EQ(utl::t_strstr(STRAY "b", "b"), 1u);
    EXPECT_EQ(utl::t_strspn(" \t" KA "x", " \t" KA), 5u);
    EXPECT_EQ(utl::t_strspn(" " STRAY " ", " " STRAY), 1u);  // an invalid sequence ends the run
    EXPECT_EQ(utl::t_strcspn(s, KA "b"), 1u);

    const std::tuple<const char*, unsigned int, unsigned int> lastOccurrences[] = {
        {"ab", FAIL, 5}, {"ab", 5, 5},      {"ab", 0, 0},       {KA, FAIL, 7},
        {KA, 1, FAIL},   {"b" KA, FAIL, 6}, {"zz", FAIL, FAIL}, {"", FAIL, FAIL}};
    for (auto [sub, pos, result] : lastOccurrences) {
        SCOPED_TRACE(testing::Message() << sub << " at or before " << pos);
        unsigned int found = 12345;
        EXPECT_EQ(utl::findReverseStr(s, sub, pos, &found), result);
        EXPECT_EQ(found, result);
    }
    EXPECT_EQ(utl::findReverseChar(s, KA "ab", FAIL, static_cast<unsigned int*>(nullptr)), 7u);
    EXPECT_EQ(utl::findReverseChar(BOM "a", BOM, FAIL, static_cast<unsigned int*>(nullptr)), FAIL);
}

// A call (as text and as a function of the buffer `b` of `n` bytes), the text the buffer first
// holds, `n`, and the text expected (null: the call fails with ~0u).
using Edit = std::tuple<const char*, unsigned int (*)(char*, unsigned int), const char*,
                        unsigned int, const char*>;
#define EDIT(call) #call, [](char* b, [[maybe_unused]] unsigned int n) { return call; }

TEST(StringTest, FixedBufferEditsKeepCharactersWholeOrRefuse) {
    const Edit edits[] = {
        // A cut or a count inside a character steps back to its start.
        {EDIT(utl::copyStrBase(b, n, "a" KA, ~0u, 1)), "", 3, "a"},
        {EDIT(utl::copyStrBase(b, n, "a" KA, ~0u, 0)), "", 3, nullptr},
        {EDIT(utl::copyStrBase(b, n, "a" KA, 2, 0)), "", 8, "a"},
        {EDIT(utl::copyStrBase(b, n, "a\xC0\x80", ~0u, 1)), "", 3, nullptr},
        {EDIT(utl::copyStrBase(b, n, "\x81\x82", 1, 0)), "", 8, nullptr},  // no start to step to
        {EDIT(utl::t_strncpy(b, n, "a" KA "b", 3)), "", 5, "a"},
        {EDIT(utl::formatStr(b, n, "%s-%d", "ab", 7)), "", 5, "ab-7"},
        {EDIT(utl::formatStr(b, n, "%s-%d", "ab", 7)), "", 4, nullptr},
        {EDIT(utl::truncateStr(b, 3)), "a" KA "b", 6, "a"},
        {EDIT(utl::truncateStr(b, 4)), "a" KA "b", 6, "a" KA},
        {EDIT(utl::truncateStr(b, 3)), "a" STRAY "bc", 5, nullptr},
        // Reversed by characters; a kana that does not fit whole ends the truncated result.
        {EDIT(utl::reverseStrBase(b, n, "a" KA "b", 0)), "", 6, "b" KA "a"},
        {EDIT(utl::reverseStrBase(b, n, "a" KA "b", 0)), "", 5, nullptr},
        {EDIT(utl::reverseStrBase(b, n, "a" KA "b", 1)), "", 4, "b"},
        {EDIT(utl::reverseStrBase(b, n, "a\xE3\x81", 0)), "", 4, nullptr},
        // After a piece was cut nothing may follow it, so a cut result is a prefix of the whole.
        {EDIT(utl::insertStr(b, n, 1, "XY", ~0u, 0)), "abc", 8, "aXYbc"},
        {EDIT(utl::insertStr(b, n, 4, "XY", ~0u, 0)), "abc", 8, nullptr},
        {EDIT(utl::insertStr(b, n, 2, "X", ~0u, 0)), "a" KA, 8, nullptr},
        {EDIT(utl::insertStr(b, n, 1, KA, ~0u, 1)), "ab", 4, "a"},
        {EDIT(utl::eraseStrSpan(b, 1, 2)), "abcdef", 7, "adef"},
        {EDIT(utl::eraseStrSpan(b, 4, 99)), "abcdef", 7, "abcd"},
        {EDIT(utl::eraseStrSpan(b, 7, 0)), "abcdef", 7, nullptr},
        // The empty text as replacement keeps only what precedes the first occurrence.
        {EDIT(utl::replaceStr(b, n, "a-b-c", "-", "", 0)), "", 6, "a"},
        {EDIT(utl::replaceStr(b, n, "a-b-c", "-", "--", 1)), "", 7, "a--b--"},
        {EDIT(utl::replaceStr(b, n, "aaa", "aa", "b", 0)), "", 4, "ba"},
        {EDIT(utl::replaceStr(b, n, KA KI, "\x82\xE3", "x", 0)), "", 8, KA KI},
        {EDIT(utl::replaceStr(b, n, "abc", "", "x", 0)), "", 4, "abc"},
        {EDIT(utl::replaceStr(b, n, "-", "--", 0)), "a-b-c", 8, "a--b--c"},
        {EDIT(utl::trimStrRight(b, KA)), "a" KA KI KA, 11, "a" KA KI},
        {EDIT(utl::trimStrRight(b, "\t ")), " \t", 3, ""},
        {EDIT(utl::trimStrRight(b, KA)), "a\xE3", 3, "a\xE3"},  // an invalid byte stays
    };
    for (auto [call, op, text, size, expected] : edits) {
        SCOPED_TRACE(call);
        std::vector<char> buffer = bufferWith(text, size);
        const unsigned int result = op(buffer.data(), size);
        EXPECT_EQ(result, expected != nullptr ? std::strlen(expected) + 1 : FAIL);
        EXPECT_STREQ(expected != nullptr && result != FAIL ? buffer.data() : nullptr, expected);
    }
    char untouched[] = "XY";
    EXPECT_EQ(utl::copyStrBase(untouched, sizeof untouched, "abc", 0, 0), 0u);
    EXPECT_STREQ(untouched, "XY");
    EXPECT_EQ(utl::copyStrBase(static_cast<char*>(nullptr), 0, "abc", ~0u, 0), 4u);
    EXPECT_EQ(utl::reverseStrBase(static_cast<char*>(nullptr), 0, "a" KA, 0), 5u);
}

// The escapes are full-width A and a, and full-width + and 1.
#define FW_PLUS_ONE "\xEF\xBC\x8B\xEF\xBC\x91"
TEST(StringTest, CaseInsensitiveCompareAndNumberParsingTakeFullWidthForms) {
    EXPECT_EQ(utl::compareStrNoCase("\xEF\xBC\xA1" KA, "\xEF\xBD\x81" KA, ~0u), 0);
    EXPECT_GT(utl::compareStrNoCase("abD", "ABC", ~0u), 0);
    EXPECT_EQ(utl::compareStrNoCase("abX", "ABy", 2), 0);
    EXPECT_NE(utl::compareStrNoCase("\xEF\xBC\xA1", "a", ~0u), 0);  // the widths stay distinct

    // A value of -1 wants a failure that leaves the output as it was.
    const std::tuple<const char*, int, int> cases[] = {
        {"123", 10, 123}, {"-1", 10, -1},       {"0x1F", 0, 31},          {"017", 0, 15},
        {"0", 0, 0},      {"0x", 0, -1},        {"0x1F", 16, 0},          {"z", 36, 35},
        {"12ab", 10, 12}, {"65535", 10, 65535}, {"65536", 10, -1},        {"", 10, -1},
        {" 1", 10, -1},   {"1", 1, -1},         {FW_PLUS_ONE "2", 10, 12}};
    for (auto [s, base, expected] : cases) {
        SCOPED_TRACE(testing::Message() << s << " in base " << base);
        unsigned short value = 777;
        EXPECT_EQ(utl::strToInt(&value, s, base), expected >= 0);
        EXPECT_EQ(value, expected >= 0 ? expected : 777);
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

// Threads using the work buffer at once, long enough to overlap even on one core, stay apart.
TEST(StringTest, WorkBufferKeepsConcurrentCallersApart) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            const std::string text = std::string(200, static_cast<char>('a' + t)) + "-";
            for (int i = 0; i < 5000; ++i) {
                std::vector<char> buffer = bufferWith(text.c_str(), 300);
                failures[t] += utl::replaceStr(buffer.data(), 300, "-", "+", 0) != 202 ||
                               text.compare(0, 200, buffer.data(), 200) != 0 ||
                               utl::findReverseStr(text.c_str(), "-", ~0u, nullptr) != 200;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

// The results of every function that works in the work buffer, as one text per call.
std::vector<std::string> workAreaResults() {
    std::vector<std::string> results;
    auto edited = [&results](unsigned int result, const std::vector<char>& buffer) {
        results.push_back(std::to_string(result) + ":" + buffer.data());
    };
    std::vector<char> buffer = bufferWith("abc" KA "def  ", 64);
    edited(utl::eraseStrSpan(buffer.data(), 1, 2), buffer);
    edited(utl::insertStr(buffer.data(), 64, 1, KI "xy", ~0u, 0), buffer);
    edited(utl::replaceStr(buffer.data(), 64, "x", "XX", 0), buffer);
    edited(utl::trimStrRight(buffer.data(), " "), buffer);
    edited(utl::convertAttrib(buffer.data(), 64, buffer.data(), utl::LOWER_UPPER_PAIR, 1, 0),
           buffer);
    results.push_back(std::to_string(utl::findReverseStr("abcabc", "bc", ~0u, nullptr)));
    results.push_back(std::to_string(utl::compareStrNoCase("abc", "ABD", 3)));
    unsigned short value = 0;
    results.push_back(std::to_string(utl::strToInt(&value, FW_PLUS_ONE "7", 0)) + ":" +
                      std::to_string(value));
    results.push_back(std::to_string(utl::isCharAttribBase("\xE3\x80\x80", utl::ATTRIB_ZEN_SPACE)));
    String string("a-b-c", 0, 1);
    const bool replaced = string.replace("-", "--", 0);
    results.push_back(std::to_string(replaced) + ":" + string.c_str());
    return results;
}

// A function called while its caller holds work areas works in an area of its own: it gives the
// same results at every depth and leaves the outer areas as they were.
TEST(StringTest, WorkBufferFunctionsAreUnaffectedByAreasTheirCallersHold) {
    const std::vector<std::string> expected = workAreaResults();
    for (unsigned int held = 1; held <= 6; ++held) {
        SCOPED_TRACE(testing::Message() << held << " areas held");
        std::vector<std::unique_ptr<utl::WorkingBuffer<char>>> outer;
        for (unsigned int i = 0; i < held; ++i) {
            outer.push_back(std::make_unique<utl::WorkingBuffer<char>>());
            ASSERT_TRUE(outer.back()->assign(std::to_string(i).c_str()));
        }
        EXPECT_EQ(workAreaResults(), expected);
        for (unsigned int i = 0; i < held; ++i) {
            EXPECT_STREQ(outer[i]->get(), std::to_string(i).c_str());
        }
    }
}

std::string stateOf(const String& string) {
    return std::string(string.c_str()) + "/" + std::to_string(string.getMax());
}

TEST(BasicStringTest, StringsOfSizeOneShareTheEmptyTextWithoutWritingIt) {
    const char* shared = String::EMPTY_STR.mNarrow;
    String fromNull(nullptr, 0, 0);
    EXPECT_EQ(fromNull.c_str(), shared);
    EXPECT_TRUE(fromNull.copy("abc", ~0u, 1));  // cut to nothing; the shared text is read-only
    EXPECT_TRUE(fromNull.replace("a", "b", 0));

    String string("a" KA "b", 8, 0);
    const char* before = string.c_str();
    EXPECT_TRUE(string.resizeMax(8));
    EXPECT_EQ(string.c_str(), before);
    EXPECT_TRUE(string.resizeMax(4));  // cut before the kana
    EXPECT_EQ(stateOf(string), "a/4");
    EXPECT_TRUE(string.resizeMax(1));
    EXPECT_EQ(string.c_str(), shared);
}

TEST(BasicStringTest, FixedStringsRefuseOrCutAndGrowingOnesGrowToExactlyTheSizeNeeded) {
    String fixed(4, 0);
    fixed = "abc";
    fixed = "wxyz";
    fixed += "d";
    EXPECT_TRUE(fixed.copy("xyz", 0, 0));  // a count of 0 stores nothing
    EXPECT_EQ(stateOf(fixed), "abc/4");
    EXPECT_TRUE(fixed.copy("a" KA, ~0u, 1));
    EXPECT_EQ(stateOf(fixed), "a/4");
    fixed = "a-b";
    EXPECT_FALSE(fixed.replace("-", "--", 0));
    EXPECT_EQ(stateOf(fixed), "a-b/4");

    String growing(0, 1);
    growing = "abc";
    growing += "de";
    EXPECT_EQ(stateOf(growing), "abcde/6");
    EXPECT_TRUE(growing.replace("c", "--", 0));
    EXPECT_EQ(stateOf(growing), "ab--de/7");
    growing = "x";
    EXPECT_EQ(stateOf(growing), "x/7");  // never shrinks on its own
}

TEST(BasicStringTest, CopiesAndJoinsOwnTheirBufferAndMayTakeTextsFromTheStringItself) {
    String self("abc", 0, 1);
    self += self.c_str();     // "abcabc"
    self = self.c_str() + 2;  // "cabc"
    EXPECT_TRUE(self.replace(self.c_str() + 3, self.c_str(), 0));
    const String& same = self;
    self = same;
    EXPECT_EQ(stateOf(self), "cabcabcabc/11");

    String fixed("abc", 6, 0);
    String copied(fixed);
    fixed = "xyz";
    copied += "defg";
    EXPECT_EQ(stateOf(copied), "abc/6");  // its own buffer, and fixed like the original
    String growing("q", 0, 1);
    growing = fixed;
    growing += "defg";
    EXPECT_EQ(stateOf(growing), "xyz/6");  // took the fixed mode too

    String joined = "ab" + String("cd", 0, 0);
    joined += "e";
    EXPECT_EQ(stateOf(joined), "abcd/5");
}

}  // namespace
