#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "../source/UtlLogStamp.h"

// The tests are built with the library's definitions, so these are the sizes inside the library:
// 64-bit on the 32-bit target too.
TEST(UtlTimeBitsTest, TimesAndFileOffsetsAre64Bit) {
    EXPECT_EQ(8u, sizeof(time_t));
    EXPECT_EQ(8u, sizeof(timespec{}.tv_sec));
    EXPECT_EQ(8u, sizeof(timeval{}.tv_sec));
    EXPECT_EQ(8u, sizeof(off_t));
    const struct stat info = {};
    EXPECT_EQ(8u, sizeof(info.st_size));
    EXPECT_EQ(8u, sizeof(info.st_mtim.tv_sec));
}

// Local time in a zone nine hours east of UTC (for the rest of this program), past the signed
// and the unsigned 32-bit ends.
TEST(UtlTimeBitsTest, LogTimeStampIsRightBeyond2038And2106) {
    setenv("TZ", "JST-9", 1);
    tzset();
    struct Case {
        int64_t seconds;
        uint32_t microseconds;
        const char* stamp;
    };
    const Case cases[] = {
        {0, 0, "Jan  1 09:00:00.000"},
        {INT64_C(2147483647), 999999, "Jan 19 12:14:07.999"},
        {INT64_C(2147483648), 1000, "Jan 19 12:14:08.001"},
        {INT64_C(2214594429), 123456, "Mar  6 06:07:09.123"},
        {INT64_C(4294967296), 999, "Feb  7 15:28:16.000"},
        {INT64_C(4323283199), 500000, "Jan  1 08:59:59.500"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.seconds);
        char stamp[64] = {};
        utl::detail::formatTimeStamp(c.seconds, c.microseconds, stamp);
        EXPECT_STREQ(c.stamp, stamp);
        // The same as ctime_r's "Www Mmm dd hh:mm:ss yyyy" without weekday and year.
        const time_t time = c.seconds;
        char text[64] = {};
        ASSERT_NE(nullptr, ctime_r(&time, text));
        EXPECT_EQ(std::string(text + 4, 15), std::string(stamp, 15));
    }
}
