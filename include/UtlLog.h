// Logging of utl: filtered, tagged lines to the system log, standard output and the binary log.
//
// A message is logged under a log type (an id the application chooses) and a level. A
// process-wide table gives each registered type a filter level and a tag; a type that was never
// registered is filtered and tagged as the fallback type -1. The library logs its own messages
// under type -2 (tag "<UTIL> "). Both built-in types start at filter level 4.
//
//   registerLogType(100, "[net] ", 3);             // errors, warnings and information
//   applog(100, 1, "connect failed: %d", errno);   // "Jun  3 21:49:08.123 [net] ERR: connect ..."
//   applog(100, 4, "detail");                      // dropped: 4 is above the type's level 3
//   rawlog(100, 3, "%s", "the text alone");        // no time stamp, tag, prefix or line end
//
// Levels: 0 none (never output), 1 error "ERR: ", 2 warning "WRN: ", 3 information "INF: ",
// 4 detail "DTL: ", 5 debug "DBG: "; any other level counts as 5. A message passes when its
// level is not 0 and at most the type's filter level. It then goes, in this order, to syslog
// (levels 1-3 as LOG_ERR, LOG_WARNING, LOG_INFO, without the time stamp), to standard output with
// printf (levels 1-5) and to BinaryLogWrite channel 3 (levels 1-3). Syslog and standard output
// show the line as printf would with the line as its format: a "%%" inside the composed line
// (from the format's "%%%%" or from an argument) shows as "%", which callers rely on; any other
// "%" is shown as it stands, never read as a conversion. The binary log gets the line unchanged.
//
// Every function may be called from any thread. Lines are composed on the caller's stack (no
// heap allocation per message); each sink is written under one process-wide output lock, so a
// line reaches each sink whole. Logging never reports failure to the caller.
//
// BinaryLogWrite runs on the logging thread under that output lock, and every other thread that
// logs a passing line waits for it meanwhile. An application's definition must therefore return
// promptly and must not wait for anything a logging thread provides: never join or wait for a
// thread (or an `Event` set by a thread) that may log first, never take a lock that a thread
// holds while it logs. It must not log lines of levels 1-3 itself (they come back to it without
// end). Setting events, posting messages without waiting and copying the text away are fine.
#ifndef UTL_LOG_H
#define UTL_LOG_H

// Logs a stamped line: "Mmm dd hh:mm:ss.mmm ", the type's tag, the level prefix, the message
// formatted like printf, CR LF. A line longer than 253 characters is cut to 253 ending in "...".
// A null format logs nothing.
void applog(int type, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Logs the formatted message alone, cut to 255 characters ending in "..." when longer.
void rawlog(int type, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

namespace utl {
class File;
}  // namespace utl

// As the forms above, and the text that standard output gets (for applog the whole line with its
// time stamp and CR LF, for rawlog the bare text) is also written into `file` with
// `File::writeText(text, 5119, 0)`, in the file's own encoding, for every level that passes the
// filter. The file write comes after syslog and before standard output, outside the output lock:
// threads that share one File serialise these calls themselves. Its result is not examined. A
// null `file` makes them the forms above.
void applog(int type, int level, utl::File* file, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
void rawlog(int type, int level, utl::File* file, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Creates the log type `type`, or overwrites its tag and filter level. The tag (at most 31 bytes)
// is written before the level prefix with no separator of its own. A level above 4 (or negative)
// becomes 5. False, changing nothing, for a null or too long tag or when the table cannot grow.
bool registerLogType(int type, const char* tag, int level);

// Sets the filter level of a registered type (a level above 4, or negative, becomes 5). An
// unregistered type is ignored: no entry is made and the fallback type -1 is not touched.
void setFilterLevel(int type, int level);

// Sets the filter level of every type, the built-in ones included (above 4 or negative: 5).
void setAllFilterLevel(int level);

// The filter level of a registered type; 6 for a type that is not in the table (no fallback).
int getFilterLevel(int type);

// Stores the process tag (at most 31 bytes); false, keeping the old one, for a null or too long
// tag. No output includes it.
bool setLogTag(const char* tag);

// The binary log sink: receives channel 3 and each error, warning and information line (without
// its terminator). The library defines it as a weak no-op; an application that links the binary
// log library, or defines this function itself, replaces it, in a shared and in a static build.
//
// The application's definition is the one called when it is
//   - in an object file of the executable, with libutl.a or libutl.so;
//   - in a static library given before libutl.a or libutl.so on the link line;
//   - in a shared library given before libutl.so; with --as-needed (the default of many
//     toolchains) only when an object of the executable includes this header.
// It is not called when its library comes after libutl on the link line (the library's default
// has settled the symbol by then), nor from a shared library when libutl.a is linked: the
// executable's own copy of the default then wins over every shared library.
// Each object that includes this header refers to the function, so that a static library holding
// it is taken from the archive and a shared one stays needed. The CMake package and pkg-config
// also pass the linker --undefined for it, which takes it from a static library given after that
// option even when no object includes this header.
void BinaryLogWrite(int channel, const char* data, unsigned int length);

namespace utl {
namespace detail {

// The reference to BinaryLogWrite that every object including this header carries.
[[maybe_unused]] __attribute__((used)) static void (*const binaryLogWriteReference)(
    int, const char*, unsigned int) = &BinaryLogWrite;

}  // namespace detail
}  // namespace utl

namespace utl {
namespace detail {

// Library-internal: log lines decided while a lock is held and written once it has been released,
// so that no sink runs under a lock that other threads need. Each line is formatted when it is
// added (exactly as the library's log call would format it) and logged by `flush`. Holds up to
// CAPACITY lines; further ones are dropped. Not thread-safe: one owner at a time.
class DeferredLog {
  public:
    static constexpr unsigned int CAPACITY = 8;
    static constexpr unsigned int LINE_SIZE = 256;

    DeferredLog() : mCount(0) {}
    DeferredLog(const DeferredLog&) = delete;
    DeferredLog& operator=(const DeferredLog&) = delete;
    virtual ~DeferredLog() { flush(); }

    void add(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    // Logs the lines held, in order, and forgets them.
    void flush() {
        if (mCount != 0) {
            writeLines();
        }
    }

  private:
    void writeLines();

    char mLines[CAPACITY][LINE_SIZE];
    int mLevels[CAPACITY];
    unsigned int mCount;
};

}  // namespace detail
}  // namespace utl

#endif  // UTL_LOG_H
