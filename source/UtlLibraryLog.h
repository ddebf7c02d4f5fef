// The library's own log type and levels, used by every source file that logs (not installed).
#ifndef UTL_LIBRARY_LOG_H
#define UTL_LIBRARY_LOG_H

#include "UtlLog.h"

namespace utl {
namespace detail {

// Every message of the library is logged under this type (tag "<UTIL> ").
constexpr int LOG_TYPE_UTL = -2;

constexpr int LEVEL_ERROR = 1;
constexpr int LEVEL_WARNING = 2;
constexpr int LEVEL_INFO = 3;
constexpr int LEVEL_DETAIL = 4;

}  // namespace detail
}  // namespace utl

// Logs one line of the library at `level` (one of the LEVEL_ constants above) with a printf
// format; the format is always a literal of the library, never caller data.
#define UTL_LOG(level, ...) applog(::utl::detail::LOG_TYPE_UTL, ::utl::detail::level, __VA_ARGS__)

#endif  // UTL_LIBRARY_LOG_H
