#include "UtlTimepiece.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "UtlThreadManager.h"

#ifdef UTL_TEST_HAVE_CURL
#include <curl/curl.h>
#endif

namespace {

using utl::Time;
constexpr uint32_t kFailed = ~0u;

std::string httpDate(const Time& t, unsigned int size = 64) {
    std::vector<char> buffer(size);
    return t.getHttpDate(buffer.data(), size) ? std::string(buffer.data()) : "(failed)";
}

std::string fields(const Time& t) {
    char text[64];
    snprintf(text, sizeof text, "%u-%u-%u %u:%u:%u.%u.%u.%u", t.year(), t.month(), t.day(),
             t.hour(), t.minute(), t.second(), t.millisecond(), t.microsecond(), t.nanosecond());
    return text;
}

Time fromTm(const tm& broken) {
    return Time(static_cast<uint16_t>(broken.tm_year + 1900),
                static_cast<uint16_t>(broken.tm_mon + 1), static_cast<uint16_t>(broken.tm_mday),
                static_cast<uint16_t>(broken.tm_hour), static_cast<uint16_t>(broken.tm_min),
                static_cast<uint16_t>(broken.tm_sec));
}

int daysInMonth(int year, int month) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : kDays[month - 1];
}

TEST(TimepieceTest, InvalidFieldsGiveTheMarkerAndALeapSecondIsFolded) {
    const std::string marker = "65535-13-32 24:60:60.1000.1000.1000";
    EXPECT_EQ(fields(Time()), marker);
    EXPECT_EQ(fields(Time::DEFAULT_REFERENCE_TIME), "0-1-1 0:0:0.0.0.0");
    EXPECT_EQ(fields(Time(2024, 2, 29, 23, 59, 60)), "2024-2-29 23:59:59.0.0.0");
    EXPECT_TRUE(Time(2023, 2, 31, 0, 0, 0).isValid()) << "the day is not checked against its month";
    for (const Time& bad :
         {Time(65535, 1, 1, 0, 0, 0), Time(2024, 13, 1, 0, 0, 0), Time(2024, 1, 0, 0, 0, 0),
          Time(2024, 1, 32, 0, 0, 0), Time(2024, 1, 1, 24, 0, 0), Time(2024, 1, 1, 0, 60, 0),
          Time(2024, 1, 1, 0, 0, 0, 1000), Time(2024, 1, 1, 0, 0, 0, 0, 0, 1000)}) {
        EXPECT_EQ(fields(bad), marker);
        uint16_t year = 7;
        EXPECT_FALSE(
            bad.get(&year, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
        EXPECT_EQ(year, 7);
    }
    Time t(1999, 12, 31, 1, 2, 3);
    EXPECT_FALSE(t.set(2024, 1, 1, 0, 0, 0, 0, 999, 1000));
    EXPECT_EQ(fields(t), "1999-12-31 1:2:3.0.0.0") << "a failed set leaves the object unchanged";
    ASSERT_TRUE(t.set(2000, 6, 30, 4, 5, 61, 6, 7, 8));
    uint16_t v[9] = {};
    ASSERT_TRUE(t.get(&v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7], &v[8]));
    EXPECT_EQ(std::vector<uint16_t>(v, v + 9),
              (std::vector<uint16_t>{2000, 6, 30, 4, 5, 59, 6, 7, 8}));
    t.reset();
    EXPECT_EQ(fields(t), marker);
}

TEST(TimepieceTest, OrderComparesTheFieldsYearFirstNanosecondLast) {
    const std::vector<Time> ascending = {
        Time(0, 1, 1, 0, 0, 0),          Time(1999, 12, 31, 23, 59, 59, 999, 999, 999),
        Time(2000, 1, 1, 0, 0, 0),       Time(2000, 1, 1, 0, 0, 0, 0, 0, 1),
        Time(2000, 1, 1, 0, 0, 0, 0, 1), Time(2000, 1, 1, 0, 0, 1),
        Time(2000, 2, 1, 0, 0, 0),       Time()};
    for (size_t i = 0; i < ascending.size(); ++i) {
        for (size_t j = 0; j < ascending.size(); ++j) {
            const Time& a = ascending[i];
            const Time& b = ascending[j];
            SCOPED_TRACE(fields(a) + " against " + fields(b));
            EXPECT_EQ(
                (std::vector<bool>{a == b, a != b, a<b, a.isPastTime(b), a> b, a <= b, a >= b}),
                (std::vector<bool>{i == j, i != j, i < j, i<j, i> j, i <= j, i >= j}));
        }
    }
}

TEST(TimepieceTest, ElapsedDaysAndSecondsCountWholeUnitsBelowTwoToTheThirtySecond) {
    const Time base(2000, 1, 1, 0, 0, 0);
    const uint32_t maxDays = 49710;  // 2^32 s are 49710 days and 23296 s
    struct Case {
        Time from, to;
        uint32_t days, seconds;
    } const cases[] = {
        {Time(2024, 1, 1, 23, 0, 0), Time(2024, 1, 2, 1, 0, 0), 0, 7200},
        {Time(2024, 1, 1, 23, 0, 0), Time(2024, 1, 2, 23, 0, 0), 1, 86400},
        {Time(2024, 1, 1, 0, 0, 0, 500), Time(2024, 1, 2, 0, 0, 0), 0, 86399},
        {Time(2024, 1, 1, 0, 0, 0, 500), Time(2024, 1, 1, 0, 0, 0, 600), 0, 0},
        {Time(2024, 2, 28, 0, 0, 0), Time(2024, 3, 1, 0, 0, 0), 2, 172800},
        {Time(1900, 2, 28, 0, 0, 0), Time(1900, 3, 1, 0, 0, 0), 1, 86400},
        {Time(2000, 2, 28, 0, 0, 0), Time(2000, 3, 1, 0, 0, 0), 2, 172800},
        {Time(0, 2, 28, 0, 0, 0), Time(0, 3, 1, 0, 0, 0), 1, 86400},  // year 0 is ordinary
        {Time(0, 1, 1, 0, 0, 0), Time(1, 1, 1, 0, 0, 0), 365, 365 * 86400},
        {Time(1600, 1, 1, 0, 0, 0), base, 146097, kFailed},
        // 2136-02-07 is 49710 days after the base.
        {base, Time(2136, 2, 6, 23, 59, 59), maxDays - 1, maxDays * 86400 - 1},
        {base, Time(2136, 2, 7, 6, 28, 15), maxDays, 4294967295u},  // the failure value, kept
        {base, Time(2136, 2, 7, 6, 28, 16), maxDays, kFailed},
        {base, Time(2136, 2, 8, 0, 0, 0), maxDays + 1, kFailed},
        {Time(2000, 1, 1, 12, 0, 0), Time(2136, 2, 7, 11, 0, 0), maxDays - 1,
         (maxDays - 1) * 86400 + 82800},
        // 49710 whole days and an earlier time of day: refused although below 2^32 s.
        {Time(2000, 1, 1, 23, 0, 0), Time(2136, 2, 8, 0, 0, 0), maxDays, kFailed},
        {Time(2024, 1, 2, 0, 0, 0), Time(2024, 1, 1, 0, 0, 0), kFailed, kFailed},
        {Time(2024, 1, 1, 0, 0, 0), Time(), kFailed, kFailed},
        {Time(2023, 2, 31, 0, 0, 0), Time(2023, 3, 1, 0, 0, 0), kFailed, kFailed},  // 31 Feb: 3 Mar
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(fields(c.from) + " to " + fields(c.to));
        EXPECT_EQ(c.to.getElapsedDays(c.from), c.days);
        EXPECT_EQ(c.to.getElapsedSeconds(c.from), c.seconds);
    }
    EXPECT_EQ(Time().getDays(), kFailed);
}

TEST(TimepieceTest, HttpDateOmitsTheDayNameBeforeTheReformAndNeedsRoom) {
    EXPECT_EQ(httpDate(Time(2000, 1, 1, 0, 0, 0)), "Sat, 01 Jan 2000 00:00:00 GMT");
    EXPECT_EQ(httpDate(Time(1582, 10, 14, 0, 0, 0)), "14 Oct 1582 00:00:00 GMT");
    EXPECT_EQ(httpDate(Time(1582, 10, 15, 1, 2, 3)), "Fri, 15 Oct 1582 01:02:03 GMT");
    EXPECT_EQ(httpDate(Time(100, 3, 9, 0, 0, 0)), "09 Mar 100 00:00:00 GMT");
    EXPECT_EQ(httpDate(Time(12345, 12, 31, 23, 59, 59)), "Mon, 31 Dec 12345 23:59:59 GMT");
    EXPECT_EQ(httpDate(Time(99, 1, 1, 0, 0, 0)), "(failed)");
    EXPECT_EQ(httpDate(Time()), "(failed)");
    EXPECT_EQ(httpDate(Time(2000, 1, 1, 0, 0, 0), 30), "Sat, 01 Jan 2000 00:00:00 GMT");
    EXPECT_EQ(httpDate(Time(2000, 1, 1, 0, 0, 0), 29), "(failed)");
    EXPECT_FALSE(Time(2000, 1, 1, 0, 0, 0).getHttpDate(nullptr, 30));
}

// strftime of a hand-made struct tm in the C locale (the test never calls setlocale).
TEST(TimepieceTest, HttpDateMatchesStrftimeOnEveryDayFrom1600To2400) {
    tm date = {};
    date.tm_wday = 5;  // the day before 1600-01-01, a Saturday
    for (date.tm_year = 1600 - 1900; date.tm_year <= 2400 - 1900; ++date.tm_year) {
        for (date.tm_mon = 0; date.tm_mon < 12; ++date.tm_mon) {
            const int days = daysInMonth(date.tm_year + 1900, date.tm_mon + 1);
            for (date.tm_mday = 1; date.tm_mday <= days; ++date.tm_mday) {
                date.tm_wday = (date.tm_wday + 1) % 7;
                for (const int hms : {0, 123456, 235959}) {
                    date.tm_hour = hms / 10000;
                    date.tm_min = hms / 100 % 100;
                    date.tm_sec = hms % 100;
                    char expected[64], text[64];
                    ASSERT_NE(
                        strftime(expected, sizeof expected, "%a, %d %b %Y %H:%M:%S GMT", &date),
                        0u);
                    ASSERT_TRUE(fromTm(date).getHttpDate(text, sizeof text)) << expected;
                    ASSERT_STREQ(text, expected);
                }
            }
        }
    }
}

TEST(TimepieceTest, HttpDateReadsTheThreeFormsAndTheTokenQuirks) {
    struct Case {
        const char* text;
        const char* expected;  // null: refused
    } const cases[] = {
        {"Sat, 01 Jan 2000 00:00:00 GMT", "2000-1-1 0:0:0.0.0.0"},
        {"Saturday, 01-Jan-00 00:00:00 GMT", "2000-1-1 0:0:0.0.0.0"},
        {"Sat Jan  1 00:00:00 2000", "2000-1-1 0:0:0.0.0.0"},
        {"14 Oct 1582 01:02:03 GMT", "1582-10-14 1:2:3.0.0.0"},
        {"6 NOVEMBER 94 8:9:7", "1994-11-6 8:9:7.0.0.0"},
        {"1 jan 70 00:00:00", "1970-1-1 0:0:0.0.0.0"},
        {"31 dec 69 00:00:00", "2069-12-31 0:0:0.0.0.0"},
        {"31 Feb 0094 00:00:00", "1994-2-31 0:0:0.0.0.0"},  // by value, not by digits
        {"Mon, X12 Jan 2001 10:11:12xyz", "2001-1-12 10:11:12.0.0.0"},
        {"2001;12:34:56;Mar;7", "2001-3-7 12:34:56.0.0.0"},
        {"Sat, 01 Jan 2000 GMT", nullptr},
        {"Sat, 01 Jan 2000 23:59:60 GMT", nullptr},  // no leap second here
        {"Sat, 123 Jan 2000 00:00:00 GMT", nullptr},
        {"01 2000 00:00:00", nullptr},
        {"", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Time t(2011, 11, 11, 11, 11, 11, 11, 11, 11);
        const std::string before = fields(t);
        EXPECT_EQ(t.setHttpDate(c.text), c.expected != nullptr);
        EXPECT_EQ(fields(t), c.expected != nullptr ? c.expected : before);
    }
    EXPECT_FALSE(Time().setHttpDate(nullptr));
}

#ifdef UTL_TEST_HAVE_CURL
// Texts where both parsers mean the same: years 1970-2037 (curl reads the two-digit 70 as 2070),
// three-letter month names, real day names (curl refuses others) and the zone GMT or none.
std::string generatedDate(std::mt19937& rng) {
    static const char* const kDays[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                        "Thursday", "Friday", "Saturday"};
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto pick = [&rng](int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(rng);
    };
    const int form = pick(0, 2), year = pick(form == 1 ? 1971 : 1970, 2037), month = pick(1, 12);
    const int day = pick(1, daysInMonth(year, month)), h = pick(0, 23), m = pick(0, 59);
    std::string name = kMonths[month - 1];
    for (char& c : name) {
        c = static_cast<char>(pick(0, 1) != 0 ? c | 0x20 : c & ~0x20);
    }
    const std::string dayName = std::string(kDays[pick(0, 6)]).substr(0, pick(0, 1) ? 3 : 9);
    const int s = pick(0, 59);
    char text[64];
    if (form == 0) {
        snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", dayName.c_str(), day,
                 name.c_str(), year, h, m, s);
    } else if (form == 1) {
        snprintf(text, sizeof text, "%s, %02d-%s-%02d %02d:%02d:%02d GMT", dayName.c_str(), day,
                 name.c_str(), year % 100, h, m, s);
    } else {
        snprintf(text, sizeof text, "%s %s %2d %02d:%02d:%02d %04d", dayName.c_str(), name.c_str(),
                 day, h, m, s, year);
    }
    std::string spaced;  // each space one to three
    for (const char* c = text; *c != '\0'; ++c) {
        spaced.append(*c == ' ' ? static_cast<size_t>(pick(1, 3)) : 1, *c);
    }
    return spaced;
}
#endif

TEST(TimepieceTest, HttpDateAgreesWithCurlGetdate) {
#ifndef UTL_TEST_HAVE_CURL
    GTEST_SKIP() << "libcurl is not installed: the curl_getdate cross-check is skipped";
#else
    std::vector<std::string> texts = {"Sun, 06 Nov 1994 08:49:37 GMT",
                                      "Sunday, 06-Nov-94 08:49:37 GMT", "Sun Nov  6 08:49:37 1994"};
    std::mt19937 rng(20240229);
    for (int i = 0; i < 400; ++i) {
        texts.push_back(generatedDate(rng));
    }
    for (const std::string& text : texts) {
        SCOPED_TRACE(text);
        Time t;
        ASSERT_TRUE(t.setHttpDate(text.c_str()));
        const time_t curl = curl_getdate(text.c_str(), nullptr);
        ASSERT_NE(curl, -1);
        EXPECT_EQ(t.getElapsedSeconds(Time(1970, 1, 1, 0, 0, 0)), static_cast<uint32_t>(curl));
    }
#endif
}

// `clock` read between two readings of time() broken down by `breakDown`; the watchdog keeps the
// report after the break-down call.
void expectClockBetween(bool (*clock)(Time*), tm* (*breakDown)(const time_t*, tm*),
                        const char* report) {
    tm before = {}, after = {};
    const time_t start = time(nullptr);
    Time t;
    ASSERT_TRUE(clock(&t));
    const time_t end = time(nullptr);
    LogCapture log;
    utl::ThreadManager::get()->printWatchdogInfo(3);
    EXPECT_TRUE(log.contains(report)) << report;
    ASSERT_TRUE(breakDown(&start, &before) != nullptr && breakDown(&end, &after) != nullptr);
    EXPECT_TRUE(fromTm(before) <= t && t <= fromTm(after)) << fields(t);
    EXPECT_FALSE(clock(nullptr));
}

TEST(TimepieceTest, SystemTimeIsUtcLocalTimeFollowsTheZoneAndBothReport) {
    utl::ThreadManager* manager = utl::ThreadManager::get();
    const int self = static_cast<int>(syscall(SYS_gettid));
    ASSERT_TRUE(manager->entryWatchdog(self, 60000, nullptr, "timepiece"));
    // Nine hours east of UTC without daylight saving, so that the two clocks differ.
    const char* savedZone = getenv("TZ");
    const std::string saved = savedZone != nullptr ? savedZone : "";
    setenv("TZ", "JST-9", 1);
    tzset();
    expectClockBetween(utl::getSystemTime, gmtime_r, "(source/UtlTimepiece, getSystemTime:110:2)");
    expectClockBetween(utl::getLocalTime, localtime_r, "(source/UtlTimepiece, getLocalTime:210:2)");
    Time utc, local;
    ASSERT_TRUE(utl::getSystemTime(&utc) && utl::getLocalTime(&local));
    EXPECT_NEAR(local.getElapsedSeconds(utc), 9 * 3600.0, 2.0);
    savedZone != nullptr ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
    manager->unregisterWatchdog(self);
}

}  // namespace
