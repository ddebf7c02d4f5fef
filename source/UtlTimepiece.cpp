#include "UtlTimepiece.h"

#include <ctime>
#include <tuple>

#include "UtlKeepAlive.h"
#include "UtlString.h"

namespace {

using utl::Time;

constexpr const char* kSource = "source/UtlTimepiece";
constexpr uint32_t kFailed = ~0u;
constexpr uint32_t kSecondsPerDay = 86400;
// 2^32 seconds, 49710 days and 23296 seconds, is the first span getElapsedSeconds cannot return.
constexpr uint32_t kMaxElapsedDays = 49710;
constexpr uint32_t kSecondsBeyondMaxDays = 23296;
constexpr uint64_t kTwoTo32 = uint64_t{1} << 32;
static_assert(uint64_t{kMaxElapsedDays} * kSecondsPerDay + kSecondsBeyondMaxDays == kTwoTo32,
              "the span limit is 2^32 seconds");

// Days of the months before each month in a common year.
constexpr uint32_t kDaysBeforeMonth[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
const char* const kMonthNames[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char* const kDayNames[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

// The first day of the Gregorian calendar, as year * 10000 + month * 100 + day.
constexpr uint32_t kGregorianReform = 15821015;

// Year 0 is an ordinary year here, unlike in the proleptic Gregorian rule.
bool isLeapYear(uint32_t year) {
    return year != 0 && ((year % 4 == 0 && year % 100 != 0) || year % 400 == 0);
}

// 0 for Sunday to 6 for Saturday, for a year from 1583 on (Zeller's congruence).
uint32_t dayOfWeek(uint32_t year, uint32_t month, uint32_t day) {
    // January and February count as months 13 and 14 of the year before, so that the leap day
    // comes last.
    if (month <= 2) {
        month += 12;
        year -= 1;
    }
    return (year + year / 4 - year / 100 + year / 400 + (13 * month + 8) / 5 + day) % 7;
}

auto fieldsOf(const Time& t) {
    return std::make_tuple(t.year(), t.month(), t.day(), t.hour(), t.minute(), t.second(),
                           t.millisecond(), t.microsecond(), t.nanosecond());
}

void copyField(uint16_t* out, uint16_t value) {
    if (out != nullptr) {
        *out = value;
    }
}

// ---- The HTTP date tokenizer

// The parts of an HTTP date found so far; a missing part keeps an out-of-range value.
struct HttpDateParts {
    bool hasTime = false;
    bool hasDay = false;
    bool hasMonth = false;
    bool hasYear = false;
    uint16_t hour = 24;
    uint16_t minute = 60;
    uint16_t second = 60;
    uint16_t day = 32;
    uint16_t month = 13;
    uint16_t year = 65535;

    bool isComplete() const { return hasTime && hasDay && hasMonth && hasYear; }
};

// Tab, space, the punctuation other than the colon, and the terminator.
bool isDelimiter(char c) {
    const auto b = static_cast<unsigned char>(c);
    return b == 0x00 || b == 0x09 || (b >= 0x20 && b <= 0x2F) || (b >= 0x3B && b <= 0x40) ||
           (b >= 0x5B && b <= 0x60) || (b >= 0x7B && b <= 0x7E);
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The number of digits at `p`, counted up to `limit`.
unsigned int countDigits(const char* p, unsigned int limit) {
    unsigned int n = 0;
    while (n < limit && isDigit(p[n])) {
        ++n;
    }
    return n;
}

uint16_t digitsValue(const char* p, unsigned int count) {
    uint16_t value = 0;
    for (unsigned int i = 0; i < count; ++i) {
        value = static_cast<uint16_t>(value * 10 + (p[i] - '0'));
    }
    return value;
}

const char* skipToDelimiter(const char* p) {
    while (!isDelimiter(*p)) {
        ++p;
    }
    return p;
}

// The numbers of h:m:s, each one or two digits, where they stand in the text.
struct TimeShape {
    const char* start[3];
    unsigned int count[3];
};

// Whether h:m:s begins at `p`; fills `shape` and returns the end of the seconds, or null.
const char* findTimeShape(const char* p, TimeShape* shape) {
    for (unsigned int i = 0; i < 3; ++i) {
        if (i > 0 && *p++ != ':') {
            return nullptr;
        }
        shape->start[i] = p;
        shape->count[i] = countDigits(p, 2);
        if (shape->count[i] == 0) {
            return nullptr;
        }
        p += shape->count[i];
    }
    return p;
}

// h:m:s at `p`; the end of its token, or null. The numbers are read only once the shape fits,
// and only their digits go to strToInt, which would read on into the text around them.
const char* matchTime(const char* p, HttpDateParts* parts) {
    TimeShape shape;
    const char* end = findTimeShape(p, &shape);
    if (end == nullptr) {
        return nullptr;
    }
    uint16_t values[3] = {};
    for (unsigned int i = 0; i < 3; ++i) {
        const char digits[3] = {shape.start[i][0], shape.count[i] == 2 ? shape.start[i][1] : '\0',
                                '\0'};
        if (!utl::strToInt(&values[i], digits, 10)) {
            return nullptr;
        }
    }
    parts->hour = values[0];
    parts->minute = values[1];
    parts->second = values[2];
    parts->hasTime = true;
    return skipToDelimiter(end);
}

const char* matchDay(const char* p, HttpDateParts* parts) {
    const unsigned int count = countDigits(p, 3);
    if (count == 0 || count > 2) {
        return nullptr;
    }
    parts->day = digitsValue(p, count);
    parts->hasDay = true;
    return skipToDelimiter(p);
}

// Whether the three bytes of `head` are the letters of `name` in some case. Case folding turns
// ASCII letters only into ASCII letters, so no other text can compare equal to a name.
bool mayBeName(const char* head, const char* name) {
    for (unsigned int i = 0; i < 3; ++i) {
        if ((head[i] | 0x20) != (name[i] | 0x20)) {
            return false;
        }
    }
    return true;
}

const char* matchMonth(const char* p, HttpDateParts* parts) {
    // The comparison is made on a copy of the three bytes at `p`, so that its cost and its
    // length limit do not depend on the rest of the text; only a likely name is compared.
    char head[4] = {};
    for (unsigned int i = 0; i < 3 && p[i] != '\0'; ++i) {
        head[i] = p[i];
    }
    for (uint16_t month = 1; month <= 12; ++month) {
        const char* name = kMonthNames[month - 1];
        if (mayBeName(head, name) && utl::compareStrNoCase(head, name, 3) == 0) {
            parts->month = month;
            parts->hasMonth = true;
            return skipToDelimiter(p);
        }
    }
    return nullptr;
}

const char* matchYear(const char* p, HttpDateParts* parts) {
    const unsigned int count = countDigits(p, 5);
    if (count < 2 || count > 4) {
        return nullptr;
    }
    uint16_t year = digitsValue(p, count);
    if (year < 70) {
        year = static_cast<uint16_t>(year + 2000);
    } else if (year <= 99) {
        year = static_cast<uint16_t>(year + 1900);
    }
    parts->year = year;
    parts->hasYear = true;
    return p + count;
}

// Takes the first part not yet found that fits at `p`; where scanning goes on, or null.
const char* matchPart(const char* p, HttpDateParts* parts) {
    const char* next = nullptr;
    if (!parts->hasTime && (next = matchTime(p, parts)) != nullptr) {
        return next;
    }
    if (!parts->hasDay && (next = matchDay(p, parts)) != nullptr) {
        return next;
    }
    if (!parts->hasMonth && (next = matchMonth(p, parts)) != nullptr) {
        return next;
    }
    if (!parts->hasYear && (next = matchYear(p, parts)) != nullptr) {
        return next;
    }
    return nullptr;
}

// ---- The system clock

using BreakDown = tm* (*)(const time_t*, tm*);

// `time()` broken down by `breakDown` into `*out`, each call bracketed by liveness reports on
// the given lines.
bool readClock(Time* out, BreakDown breakDown, const char* function, unsigned int timeLine,
               unsigned int breakDownLine) {
    if (out == nullptr) {
        return false;
    }
    time_t now = 0;
    {
        utl::detail::BlockingCall call(kSource, function, timeLine);
        now = time(nullptr);
    }
    if (now == static_cast<time_t>(-1)) {
        return false;
    }
    tm fields = {};
    bool brokenDown = false;
    {
        utl::detail::BlockingCall call(kSource, function, breakDownLine);
        brokenDown = breakDown(&now, &fields) != nullptr;
    }
    // A year the fields cannot hold must not wrap into one they can.
    if (!brokenDown || fields.tm_year < -1900 || fields.tm_year > 65534 - 1900) {
        return false;
    }
    const auto field = [](int value) { return static_cast<uint16_t>(value); };
    const Time result(field(fields.tm_year + 1900), field(fields.tm_mon + 1), field(fields.tm_mday),
                      field(fields.tm_hour), field(fields.tm_min), field(fields.tm_sec), 0, 0, 0);
    if (!result.isValid()) {
        return false;
    }
    *out = result;
    return true;
}

}  // namespace

namespace utl {

// ---- Time

// static
const Time Time::DEFAULT_REFERENCE_TIME(0, 1, 1, 0, 0, 0, 0, 0, 0);

bool Time::set(uint16_t year, uint16_t month, uint16_t day, uint16_t hour, uint16_t minute,
               uint16_t second, uint16_t millisecond, uint16_t microsecond, uint16_t nanosecond) {
    const Time candidate(year, month, day, hour, minute, second, millisecond, microsecond,
                         nanosecond);
    if (!candidate.isValid()) {
        return false;
    }
    *this = candidate;
    return true;
}

bool Time::get(uint16_t* year, uint16_t* month, uint16_t* day, uint16_t* hour, uint16_t* minute,
               uint16_t* second, uint16_t* millisecond, uint16_t* microsecond,
               uint16_t* nanosecond) const {
    if (!isValid()) {
        return false;
    }
    copyField(year, mYear);
    copyField(month, mMonth);
    copyField(day, mDay);
    copyField(hour, mHour);
    copyField(minute, mMinute);
    copyField(second, mSecond);
    copyField(millisecond, mMillisecond);
    copyField(microsecond, mMicrosecond);
    copyField(nanosecond, mNanosecond);
    return true;
}

bool Time::operator==(const Time& other) const {
    return fieldsOf(*this) == fieldsOf(other);
}

bool Time::operator<(const Time& other) const {
    return fieldsOf(*this) < fieldsOf(other);
}

uint32_t Time::getDays() const {
    if (!isValid()) {
        return kFailed;
    }
    uint32_t days = 0;
    if (mYear > 0) {
        // The extra 365 are year 0's.
        const uint32_t y = mYear - 1u;
        days = 365 * y + y / 4 - y / 100 + y / 400 + 365;
    }
    days += kDaysBeforeMonth[mMonth - 1] + (mMonth > 2 && isLeapYear(mYear) ? 1 : 0);
    return days + mDay - 1;
}

uint32_t Time::getElapsedDays(const Time& earlier) const {
    if (!isValid() || !earlier.isValid() || *this < earlier) {
        return kFailed;
    }
    const uint32_t days = getDays();
    const uint32_t earlierDays = earlier.getDays();
    // Only days beyond the end of their month (31 February after 1 March) can get here.
    if (days < earlierDays) {
        return kFailed;
    }
    const uint32_t elapsed = days - earlierDays;
    if (elapsed == 0) {
        return 0;
    }
    return isEarlierInDay(earlier) ? elapsed - 1 : elapsed;
}

uint32_t Time::getElapsedSeconds(const Time& earlier) const {
    const uint32_t days = getElapsedDays(earlier);
    if (days == kFailed) {
        return kFailed;
    }
    // The limit is checked on whole days and the time-of-day difference taken modulo 2^32, so
    // an earlier time of day in the last day fails as well; kept so.
    const uint32_t daySecondsDifference = secondOfDay() - earlier.secondOfDay();
    if (days > kMaxElapsedDays || (days == kMaxElapsedDays && daySecondsDifference != 0 &&
                                   daySecondsDifference >= kSecondsBeyondMaxDays)) {
        return kFailed;
    }
    // Counted from the calendar days, not from `days`: where this time of day is the earlier
    // one, `days` has already given back the day that the negative difference takes.
    const int64_t total = int64_t{getDays() - earlier.getDays()} * kSecondsPerDay +
                          int64_t{secondOfDay()} - int64_t{earlier.secondOfDay()};
    if (total < 0) {
        return kFailed;  // Days beyond the end of their month again.
    }
    uint32_t seconds = static_cast<uint32_t>(total);
    if (seconds != 0 && nanosecondOfSecond() < earlier.nanosecondOfSecond()) {
        --seconds;
    }
    return seconds;
}

bool Time::getHttpDate(char* buffer, unsigned int size) const {
    // A valid object has valid sub-second fields as well, so isValid() is the check of year to
    // second.
    if (mYear <= 99 || !isValid()) {
        return false;
    }
    const char* month = kMonthNames[mMonth - 1];
    const auto u = [](uint16_t value) { return static_cast<unsigned int>(value); };
    const uint32_t date = mYear * 10000u + mMonth * 100u + mDay;
    unsigned int written = 0;
    if (date < kGregorianReform) {
        written = formatStr(buffer, size, "%02u %s %02u %02u:%02u:%02u GMT", u(mDay), month,
                            u(mYear), u(mHour), u(mMinute), u(mSecond));
    } else {
        const char* dayName = kDayNames[dayOfWeek(mYear, mMonth, mDay)];
        written = formatStr(buffer, size, "%s, %02u %s %02u %02u:%02u:%02u GMT", dayName, u(mDay),
                            month, u(mYear), u(mHour), u(mMinute), u(mSecond));
    }
    return written != kFailed;
}

bool Time::setHttpDate(const char* text) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    HttpDateParts parts;
    const char* p = text;
    while (*p != '\0' && !parts.isComplete()) {
        if (isDelimiter(*p)) {
            ++p;
            continue;
        }
        // An unmatched position is retried one byte further on, inside the same token.
        const char* next = matchPart(p, &parts);
        p = next != nullptr ? next : p + 1;
    }
    // Checked as found: a second of 60 is refused here, not folded as by the constructor.
    Time parsed;
    parsed.mYear = parts.year;
    parsed.mMonth = parts.month;
    parsed.mDay = parts.day;
    parsed.mHour = parts.hour;
    parsed.mMinute = parts.minute;
    parsed.mSecond = parts.second;
    parsed.mMillisecond = 0;
    parsed.mMicrosecond = 0;
    parsed.mNanosecond = 0;
    if (!parsed.isValid()) {
        return false;
    }
    *this = parsed;
    return true;
}

uint32_t Time::secondOfDay() const {
    return mHour * 3600u + mMinute * 60u + mSecond;
}

uint32_t Time::nanosecondOfSecond() const {
    return mMillisecond * 1000000u + mMicrosecond * 1000u + mNanosecond;
}

bool Time::isEarlierInDay(const Time& other) const {
    const uint32_t second = secondOfDay();
    const uint32_t otherSecond = other.secondOfDay();
    return second < otherSecond ||
           (second == otherSecond && nanosecondOfSecond() < other.nanosecondOfSecond());
}

// ---- The system clock

bool getSystemTime(Time* out) {
    return readClock(out, gmtime_r, "getSystemTime", 100, 110);
}

bool getLocalTime(Time* out) {
    return readClock(out, localtime_r, "getLocalTime", 200, 210);
}

}  // namespace utl
