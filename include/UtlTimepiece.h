// Calendar time of utl: a date and time of day with sub-second fields, the system clock in UTC or
// local time, day and second differences, and the date form of HTTP headers.
//
// `Time` keeps nine separate unsigned 16-bit fields (year to nanosecond) in the proleptic
// Gregorian calendar; there is no epoch count inside and no time zone: a time is whatever the
// fields say. `getSystemTime` fills it in UTC, `getLocalTime` in the local time zone, both to the
// second (the sub-second fields are 0).
//
//   utl::Time now;
//   if (utl::getSystemTime(&now)) {
//       char header[40];
//       now.getHttpDate(header, sizeof header);  // "Sat, 01 Jan 2000 00:00:00 GMT"
//   }
//   utl::Time expires;
//   expires.setHttpDate("Sunday, 06-Nov-94 08:49:37 GMT");
//   uint32_t left = expires.getElapsedSeconds(now);  // ~0u when `expires` has passed
#ifndef UTL_TIMEPIECE_H
#define UTL_TIMEPIECE_H

#include <cstdint>
#include <type_traits>

namespace utl {

// The fields are unsigned short, as the signatures below spell them.
static_assert(std::is_same<uint16_t, unsigned short>::value, "uint16_t is unsigned short");

// A calendar date and time of day: year (0 to 65534), month (1-12), day (1-31), hour (0-23),
// minute (0-59), second (0-59), millisecond, microsecond and nanosecond (0-999 each).
//
// An object is either valid or the invalid marker (year 65535, month 13, day 32, hour 24, minute
// 60, second 60, each sub-second field 1000), which the default constructor and `reset()` store:
// the constructor and every setter either store a valid time or leave the object as it was. The
// day is not checked against its month, so 31 February is valid (its day number runs on into
// March). Year 0 counts as an ordinary year of 365 days.
//
// A plain value: copy it freely; an object is not thread-safe, distinct objects are independent.
class Time {
  public:
    // Year 0, 1 January, 00:00:00.000000000; a reference point for day numbers.
    static const Time DEFAULT_REFERENCE_TIME;

    // The invalid marker.
    constexpr Time() = default;
    // The given time; a second above 59 (a leap second) is stored as 59. Values that are still
    // not valid make the whole object the invalid marker.
    constexpr Time(uint16_t year, uint16_t month, uint16_t day, uint16_t hour, uint16_t minute,
                   uint16_t second, uint16_t millisecond = 0, uint16_t microsecond = 0,
                   uint16_t nanosecond = 0)
        : mYear(year),
          mMonth(month),
          mDay(day),
          mHour(hour),
          mMinute(minute),
          mSecond(second > 59 ? 59 : second),
          mMillisecond(millisecond),
          mMicrosecond(microsecond),
          mNanosecond(nanosecond) {
        if (!isValid()) {
            reset();
        }
    }
    virtual ~Time() = default;
    Time(const Time&) = default;
    Time& operator=(const Time&) = default;

    // Stores the given time, a leap second folded into second 59 as by the constructor. False,
    // with the object unchanged, when the values are not valid.
    bool set(uint16_t year, uint16_t month, uint16_t day, uint16_t hour, uint16_t minute,
             uint16_t second, uint16_t millisecond = 0, uint16_t microsecond = 0,
             uint16_t nanosecond = 0);
    // Copies each field to its pointer where the pointer is not null. False, copying nothing, for
    // the invalid marker.
    bool get(uint16_t* year, uint16_t* month, uint16_t* day, uint16_t* hour, uint16_t* minute,
             uint16_t* second, uint16_t* millisecond, uint16_t* microsecond,
             uint16_t* nanosecond) const;
    // Stores the invalid marker.
    constexpr void reset() {
        mYear = kInvalidYear;
        mMonth = kInvalidMonth;
        mDay = kInvalidDay;
        mHour = kInvalidHour;
        mMinute = kInvalidMinute;
        mSecond = kInvalidSecond;
        mMillisecond = kInvalidSubsecond;
        mMicrosecond = kInvalidSubsecond;
        mNanosecond = kInvalidSubsecond;
    }

    uint16_t year() const { return mYear; }
    uint16_t month() const { return mMonth; }
    uint16_t day() const { return mDay; }
    uint16_t hour() const { return mHour; }
    uint16_t minute() const { return mMinute; }
    uint16_t second() const { return mSecond; }
    uint16_t millisecond() const { return mMillisecond; }
    uint16_t microsecond() const { return mMicrosecond; }
    uint16_t nanosecond() const { return mNanosecond; }

    // Every field in its range (see the class comment); the day only up to 31.
    constexpr bool isValid() const {
        return mYear != kInvalidYear && mMonth >= 1 && mMonth <= 12 && mDay >= 1 && mDay <= 31 &&
               mHour <= 23 && mMinute <= 59 && mSecond <= 59 && mMillisecond <= 999 &&
               mMicrosecond <= 999 && mNanosecond <= 999;
    }

    // Equality of all nine fields; the order compares the fields in turn, year first and
    // nanosecond last (the invalid marker sorts after every valid time).
    bool operator==(const Time& other) const;
    bool operator!=(const Time& other) const { return !(*this == other); }
    bool operator<(const Time& other) const;
    bool operator>(const Time& other) const { return other < *this; }
    bool operator<=(const Time& other) const { return !(other < *this); }
    bool operator>=(const Time& other) const { return !(*this < other); }
    // Whether this time is before `other`.
    bool isPastTime(const Time& other) const { return *this < other; }

    // The day number of the date: days since 1 January of year 0 (day 0), a day beyond the end
    // of its month running on into the next month. ~0u for the invalid marker.
    uint32_t getDays() const;
    // Whole days from `earlier` to this time: the calendar days between the dates, less one when
    // this time of day (to the nanosecond) is before that of `earlier`. ~0u when either time is
    // invalid or this time is before `earlier` (also by day number, as 31 February against
    // 1 March can be).
    uint32_t getElapsedDays(const Time& earlier) const;
    // Whole seconds from `earlier` to this time (a fraction short of a second is dropped), ~0u
    // when either time is invalid or this time is before `earlier`. The result must stay below
    // 2^32: ~0u when the whole days exceed 49710, or are 49710 and this time of day (in seconds)
    // differs from that of `earlier` by 23296 s or more, counted modulo 2^32 so that an earlier
    // time of day fails too (some such spans, short of 2^32 s, fail as well). Note that an
    // elapsed time of exactly 4294967295 s reads the same as the failure.
    uint32_t getElapsedSeconds(const Time& earlier) const;

    // Writes the date as "Sat, 01 Jan 2000 00:00:00 GMT" into `buffer` of `size` bytes; dates
    // before the Gregorian reform (15 October 1582) without the day name, as
    // "14 Oct 1582 00:00:00 GMT". The year is written with all its digits, at least three. The
    // fields are written as they are, without conversion to UTC. False for a year of 99 or
    // below, an invalid date or time of day (the sub-second fields do not matter), or a buffer
    // too small for the text and its terminator (the buffer then holds no usable text).
    bool getHttpDate(char* buffer, unsigned int size) const;
    // Reads a date of an HTTP header, cookie style: the three forms
    //   "Sun, 06 Nov 1994 08:49:37 GMT"
    //   "Sunday, 06-Nov-94 08:49:37 GMT"
    //   "Sun Nov  6 08:49:37 1994"
    // and variations of them. The text is split at the delimiters (tab, space, the punctuation
    // !"#$%&'()*+,-./;<=>?@[\]^_`{|}~ but not the colon; other control and non-ASCII bytes are
    // part of a token); at each other position the first of the parts not yet found that fits is
    // taken, in this order:
    //   time  - h:m:s of one or two digits each; the rest of the token is ignored;
    //   day   - one or two digits followed by a non-digit; the rest of the token is ignored;
    //   month - "Jan" to "Dec" in any case; the rest of the token is ignored ("November");
    //   year  - two to four digits followed by a non-digit; a value of 70-99 means 1970-1999
    //           and a value below 70 means 2000-2069 (whatever the number of digits: "0094" is
    //           1994); other values stand as they are.
    // Where nothing fits, scanning goes on at the next byte, so a token such as "X12" gives the
    // day 12. Day names, time zones and other text are passed over; no zone is applied. The
    // fields found must make a valid time (a leap second 60 is refused here); the sub-second
    // fields become 0. False, with the object unchanged, for a null or empty text, a missing
    // part, or a field out of range.
    bool setHttpDate(const char* text);

  private:
    // The invalid marker, field by field.
    static constexpr uint16_t kInvalidYear = 65535;
    static constexpr uint16_t kInvalidMonth = 13;
    static constexpr uint16_t kInvalidDay = 32;
    static constexpr uint16_t kInvalidHour = 24;
    static constexpr uint16_t kInvalidMinute = 60;
    static constexpr uint16_t kInvalidSecond = 60;
    static constexpr uint16_t kInvalidSubsecond = 1000;

    // The time of day in seconds and the sub-second part in nanoseconds.
    uint32_t secondOfDay() const;
    uint32_t nanosecondOfSecond() const;
    // Whether this time of day, to the nanosecond, is before that of `other`.
    bool isEarlierInDay(const Time& other) const;

    uint16_t mYear = kInvalidYear;
    uint16_t mMonth = kInvalidMonth;
    uint16_t mDay = kInvalidDay;
    uint16_t mHour = kInvalidHour;
    uint16_t mMinute = kInvalidMinute;
    uint16_t mSecond = kInvalidSecond;
    uint16_t mMillisecond = kInvalidSubsecond;
    uint16_t mMicrosecond = kInvalidSubsecond;
    uint16_t mNanosecond = kInvalidSubsecond;
};

// The system clock (`time()`) broken down in UTC (`gmtime_r`) into `*out`, sub-second fields 0; a
// leap second reads as second 59. False, with `*out` unchanged, for a null `out` or when the clock
// cannot be read or broken down into a valid time. Each of the two system calls is bracketed by
// liveness reports to the thread manager's watchdog (sub-step 1 before, 2 after), from source
// "source/UtlTimepiece", function "getSystemTime", line 100 around `time()` and line 110 around
// `gmtime_r`.
bool getSystemTime(Time* out);
// As `getSystemTime`, in the local time zone (`localtime_r`); the reports name the function
// "getLocalTime" and lines 200 (`time()`) and 210 (`localtime_r`).
bool getLocalTime(Time* out);

}  // namespace utl

#endif  // UTL_TIMEPIECE_H
