// The time stamp of applog lines, formatted from a given time (not installed; the tests reach it
// to check times that the wall clock cannot show, beyond 2038 and 2106).
#ifndef UTL_LOG_STAMP_H
#define UTL_LOG_STAMP_H

#include <cstdint>

namespace utl {
namespace detail {

// Characters of a stamp, "Mmm dd hh:mm:ss.mmm", without the terminator.
constexpr unsigned int TIME_STAMP_LENGTH = 19;

// Writes the stamp of `seconds` since the epoch (local time) and `microseconds` (0 to 999999,
// shown as whole milliseconds) with its terminator into `buffer`, which holds at least
// TIME_STAMP_LENGTH + 1 bytes. The text is that of ctime_r without the weekday and with the year
// replaced by the milliseconds; a day of month below 10 is padded with a blank. Writes an empty
// text when the time cannot be converted.
void formatTimeStamp(int64_t seconds, uint32_t microseconds, char* buffer);

}  // namespace detail
}  // namespace utl

#endif  // UTL_LOG_STAMP_H
