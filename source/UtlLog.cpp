#include "UtlLog.h"

#include <sys/time.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "UtlArray.h"
#include "UtlFile.h"
#include "UtlLibraryLog.h"
#include "UtlLogStamp.h"
#include "UtlMemory.h"
#include "UtlString.h"
#include "UtlSync.h"

namespace {

constexpr int kFallbackType = -1;
constexpr int kMaxLevel = 5;
constexpr int kUnknownLevel = 6;
constexpr unsigned int kTagSize = 32;
constexpr unsigned int kLineSize = 256;
constexpr unsigned int kTimeSize = 64;
constexpr unsigned int kBinaryLogChannel = 3;
// The most bytes File::writeText takes; a composed line is far shorter, so it is written whole.
constexpr unsigned int kFileTextMax = 5119;

// One log type's settings.
struct LogTypeData {
    int32_t mFilterLevel;
    char mTag[kTagSize];
};

// The filter levels of the registered types, readable without the table lock, so that a message
// the filter drops (most of them) costs a few loads and no lock. Written only under the table
// lock of the log state, which stays the authority: a message that may pass is decided again under
// it. An open addressing table whose slots, once claimed by a type, keep it (types are never
// removed).
class FilterIndex {
  public:
    // Records the filter level of `type`; a full index is remembered, so that lookups of types it
    // could not take stop answering. Called under the table lock only.
    void store(int type, int32_t level) {
        const unsigned int at = probe(type);
        if (at == kSlots) {
            mFull.store(true, std::memory_order_relaxed);
            return;
        }
        Slot& slot = mSlots[at];
        slot.mLevel.store(level, std::memory_order_relaxed);
        if (!slot.mUsed.load(std::memory_order_relaxed)) {
            slot.mType = type;
            slot.mUsed.store(true, std::memory_order_release);
        }
    }

    // False when a message of `type` at `level` (1 to 5) cannot pass: the level is above the
    // filter level of the type, or of the fallback type for a type that is not registered. True
    // when it may pass, also whenever the index cannot tell.
    bool mayPass(int type, int level) const {
        const Slot* slot = find(type);
        if (slot == nullptr && !mFull.load(std::memory_order_relaxed)) {
            slot = find(kFallbackType);
        }
        return slot == nullptr || level <= slot->mLevel.load(std::memory_order_relaxed);
    }

  private:
    static constexpr unsigned int kSlots = 1024;

    struct Slot {
        std::atomic<bool> mUsed{false};
        int mType = 0;  // Written before mUsed is published, never changed after.
        std::atomic<int32_t> mLevel{0};
    };

    static unsigned int home(int type) {
        return static_cast<unsigned int>(static_cast<uint32_t>(type) * 2654435761u) % kSlots;
    }

    // The index of the slot that holds `type`, or else of the free slot where it goes; kSlots
    // when every slot holds another type.
    unsigned int probe(int type) const {
        unsigned int at = home(type);
        for (unsigned int i = 0; i < kSlots; ++i, at = (at + 1) % kSlots) {
            const Slot& slot = mSlots[at];
            if (!slot.mUsed.load(std::memory_order_acquire) || slot.mType == type) {
                return at;
            }
        }
        return kSlots;
    }

    // The slot of `type`; null when it has none. The slot found free may be claimed for another
    // type meanwhile, hence the second look at it.
    const Slot* find(int type) const {
        const unsigned int at = probe(type);
        if (at == kSlots) {
            return nullptr;
        }
        const Slot& slot = mSlots[at];
        return slot.mUsed.load(std::memory_order_acquire) && slot.mType == type ? &slot : nullptr;
    }

    Slot mSlots[kSlots];
    std::atomic<bool> mFull{false};
};

// Constant-initialised, so that it is ready before any code runs and costs no guard to reach.
FilterIndex gFilterIndex;

// The log type table with its lock, and the output lock with the process tag. The two locks are
// never held together.
class LogState {
  public:
    LogState() : mTable(64, 1), mProcessTag() {
        utl::SyncGuard guard(mTableLock);
        insertType(kFallbackType, {4, ""});
        insertType(utl::detail::LOG_TYPE_UTL, {4, "<UTIL> "});
    }

    // Enters or overwrites a type in the table and the index; false when the table cannot grow.
    bool insertType(int type, const LogTypeData& entry) UTL_REQUIRES(mTableLock) {
        if (!mTable.insert(type, entry)) {
            return false;
        }
        gFilterIndex.store(type, entry.mFilterLevel);
        return true;
    }

    // Sets the filter level of one entry of the table, and of its type in the index.
    void setLevel(utl::Pair<int, LogTypeData>& entry, int32_t level) UTL_REQUIRES(mTableLock) {
        entry.mValue.mFilterLevel = level;
        gFilterIndex.store(entry.mKey, level);
    }

    utl::SyncObject mTableLock;
    utl::Map<int, LogTypeData> mTable UTL_GUARDED_BY(mTableLock);
    utl::SyncObject mOutputLock;
    char mProcessTag[kTagSize] UTL_GUARDED_BY(mOutputLock);
};

// Made at library load and never destroyed, so that code running during static destruction can
// still log.
LogState& state() {
    return utl::detail::immortalInstance<LogState>();
}

[[maybe_unused]] const LogState& kStateAtLoad = state();

// Levels above 5 as an unsigned number (negative ones included) count as 5.
int clampLevel(int level) {
    return static_cast<unsigned int>(level) > kMaxLevel ? kMaxLevel : level;
}

const char* levelPrefix(int level) {
    static const char* const kPrefixes[] = {"NO : ", "ERR: ", "WRN: ", "INF: ", "DTL: ", "DBG: "};
    return kPrefixes[level];
}

// True for a message that the filter drops for sure, told without the table lock: the first step
// of every logging function, before it even reads its arguments.
inline bool droppedAtOnce(int type, int level) {
    return level == 0 || !gFilterIndex.mayPass(type, clampLevel(level));
}

// Whether a message of `type` at the clamped `level` (1 to 5: callers drop level 0 at once)
// passes the filter; copies the entry that decided (the type's own or the fallback) into `entry`
// when it is not null.
bool passesFilter(int type, int level, LogTypeData* entry) {
    LogState& s = state();
    utl::SyncGuard guard(s.mTableLock);
    const utl::Pair<int, LogTypeData>* found = s.mTable.find(type);
    if (found == nullptr) {
        found = s.mTable.find(kFallbackType);
    }
    if (found == nullptr || found->mValue.mFilterLevel < level) {
        return false;
    }
    if (entry != nullptr) {
        *entry = found->mValue;
    }
    return true;
}

// Appends `text` at `*end`, stopping before `limit`.
void appendBounded(char** end, const char* limit, const char* text) {
    while (*text != '\0' && *end < limit) {
        *(*end)++ = *text++;
    }
}

// Appends `value` with `digits` digits, padded with `pad` on the left.
void appendNumber(char** end, unsigned int value, int digits, char pad) {
    for (int i = digits - 1; i >= 0; --i) {
        (*end)[i] = value != 0 || i == digits - 1 ? static_cast<char>('0' + value % 10) : pad;
        value /= 10;
    }
    *end += digits;
}

}  // namespace

namespace utl {
namespace detail {

void formatTimeStamp(int64_t seconds, uint32_t microseconds, char* buffer) {
    static_assert(sizeof(time_t) >= sizeof(int64_t), "times are 64-bit, on 32-bit targets too");
    static const char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    const time_t time = seconds;
    tm local = {};
    if (localtime_r(&time, &local) == nullptr) {
        buffer[0] = '\0';
        return;
    }
    char* end = buffer;
    end = std::copy(kMonths + 3 * local.tm_mon, kMonths + 3 * local.tm_mon + 3, end);
    appendNumber(&end, static_cast<unsigned int>(local.tm_mday), 3, ' ');
    *end++ = ' ';
    appendNumber(&end, static_cast<unsigned int>(local.tm_hour), 2, '0');
    *end++ = ':';
    appendNumber(&end, static_cast<unsigned int>(local.tm_min), 2, '0');
    *end++ = ':';
    appendNumber(&end, static_cast<unsigned int>(local.tm_sec), 2, '0');
    *end++ = '.';
    appendNumber(&end, microseconds / 1000, 3, '0');
    *end = '\0';
}

}  // namespace detail
}  // namespace utl

namespace {

// "Mmm dd hh:mm:ss.mmm" of the wall clock. Formatted by hand because this runs for every message.
void timeStamp(char (&buffer)[kTimeSize]) {
    static_assert(kTimeSize > utl::detail::TIME_STAMP_LENGTH, "room for the stamp");
    timeval now = {};
    gettimeofday(&now, nullptr);
    utl::detail::formatTimeStamp(now.tv_sec, static_cast<uint32_t>(now.tv_usec), buffer);
}

// Overwrites the end of a line that was cut with "...", so that it ends at `length` characters.
void markCut(char* line, unsigned int length) {
    utl::copyStrBase(line + length - 3, 4, "...", ~0u, 1);
}

// Composes a stamped line into `line`; returns the offset of the tag, where the text that goes
// to syslog starts.
std::size_t composeStampedLine(char (&line)[kLineSize], const LogTypeData& entry, int level,
                               const char* format, va_list args) {
    constexpr unsigned int kHeaderLimit = 253;
    char stamp[kTimeSize] = {};
    timeStamp(stamp);
    char* end = line;
    const char* const headerEnd = line + kHeaderLimit - 1;
    appendBounded(&end, headerEnd, stamp);
    appendBounded(&end, headerEnd, " ");
    const std::size_t tagOffset = static_cast<std::size_t>(end - line);
    appendBounded(&end, headerEnd, entry.mTag);
    appendBounded(&end, headerEnd, levelPrefix(level));
    const std::size_t header = static_cast<std::size_t>(end - line);
    const std::size_t room = kHeaderLimit + 1 - header;
    const int written = std::vsnprintf(end, room, format, args);
    if (written < 0 || static_cast<std::size_t>(written) >= room) {
        markCut(line, kHeaderLimit);
    }
    return tagOffset;
}

void composeRawLine(char (&line)[kLineSize], const char* format, va_list args) {
    const int written = std::vsnprintf(line, kLineSize, format, args);
    if (static_cast<unsigned int>(written) > kLineSize - 1) {
        markCut(line, kLineSize - 1);
    }
}

void appendLineEnd(char (&line)[kLineSize]) {
    const std::size_t length = std::strlen(line);
    utl::copyStrBase(line + length, 3, "\r\n", ~0u, 1);
}

// Syslog and standard output show a line as printf would with the line as its format and no
// arguments where that is defined: "%%" shows as "%", which callers rely on. Any other "%" is
// shown as it stands: as a format it would read arguments that do not exist.
void collapsePercents(const char* text, char (&shown)[kLineSize]) {
    unsigned int out = 0;
    for (const char* in = text; *in != '\0' && out < kLineSize - 1; ++in) {
        shown[out++] = *in;
        if (in[0] == '%' && in[1] == '%') {
            ++in;
        }
    }
    shown[out] = '\0';
}

void writeSyslog(int level, const char* text) {
    static const int kPriorities[] = {0, LOG_ERR, LOG_WARNING, LOG_INFO};
    if (text == nullptr || level < 1 || level > 3) {
        return;
    }
    char shown[kLineSize];
    collapsePercents(text, shown);
    utl::SyncGuard guard(state().mOutputLock);
    syslog(kPriorities[level], "%s", shown);
}

void writeStandardOutput(int level, const char* text) {
    if (text == nullptr || level < 1) {
        return;
    }
    char shown[kLineSize];
    collapsePercents(text, shown);
    utl::SyncGuard guard(state().mOutputLock);
    std::fputs(shown, stdout);
}

void writeBinaryLog(int level, const char* text) {
    if (text == nullptr || text[0] == '\0' || level < 1 || level > 3) {
        return;
    }
    utl::SyncGuard guard(state().mOutputLock);
    BinaryLogWrite(kBinaryLogChannel, text, static_cast<unsigned int>(std::strlen(text)));
}

// The sinks in their order; `syslogText` is the part of the line that syslog receives, and
// `file` (when not null) a caller's file that gets what standard output gets.
void writeSinks(int level, const char* syslogText, char (&line)[kLineSize], bool addLineEnd,
                utl::File* file) {
    writeSyslog(level, syslogText);
    if (addLineEnd) {
        appendLineEnd(line);
    }
    if (file != nullptr) {
        file->writeText(line, kFileTextMax, 0);
    }
    writeStandardOutput(level, line);
    writeBinaryLog(level, line);
}

void logStamped(int type, int level, utl::File* file, const char* format, va_list args) {
    level = clampLevel(level);
    LogTypeData entry;
    if (!passesFilter(type, level, &entry) || format == nullptr) {
        return;
    }
    char line[kLineSize] = {};
    const std::size_t tag = composeStampedLine(line, entry, level, format, args);
    writeSinks(level, line + tag, line, true, file);
}

void logRaw(int type, int level, utl::File* file, const char* format, va_list args) {
    level = clampLevel(level);
    if (!passesFilter(type, level, nullptr) || format == nullptr) {
        return;
    }
    char line[kLineSize] = {};
    composeRawLine(line, format, args);
    writeSinks(level, line, line, false, file);
}

}  // namespace

void applog(int type, int level, const char* format, ...) {
    if (droppedAtOnce(type, level)) {
        return;
    }
    va_list args;
    va_start(args, format);
    logStamped(type, level, nullptr, format, args);
    va_end(args);
}

void rawlog(int type, int level, const char* format, ...) {
    if (droppedAtOnce(type, level)) {
        return;
    }
    va_list args;
    va_start(args, format);
    logRaw(type, level, nullptr, format, args);
    va_end(args);
}

void applog(int type, int level, utl::File* file, const char* format, ...) {
    if (droppedAtOnce(type, level)) {
        return;
    }
    va_list args;
    va_start(args, format);
    logStamped(type, level, file, format, args);
    va_end(args);
}

void rawlog(int type, int level, utl::File* file, const char* format, ...) {
    if (droppedAtOnce(type, level)) {
        return;
    }
    va_list args;
    va_start(args, format);
    logRaw(type, level, file, format, args);
    va_end(args);
}

bool registerLogType(int type, const char* tag, int level) {
    LogTypeData entry = {clampLevel(level), ""};
    if (utl::copyStrBase(entry.mTag, kTagSize, tag, ~0u, 0) == ~0u) {
        return false;
    }
    LogState& s = state();
    utl::SyncGuard guard(s.mTableLock);
    return s.insertType(type, entry);
}

void setFilterLevel(int type, int level) {
    level = clampLevel(level);
    LogState& s = state();
    utl::SyncGuard guard(s.mTableLock);
    if (utl::Pair<int, LogTypeData>* found = s.mTable.find(type)) {
        s.setLevel(*found, level);
    }
}

void setAllFilterLevel(int level) {
    level = clampLevel(level);
    LogState& s = state();
    utl::SyncGuard guard(s.mTableLock);
    for (unsigned int i = 0; i < s.mTable.getCount(); ++i) {
        s.setLevel(s.mTable.getAt(i), level);
    }
}

int getFilterLevel(int type) {
    LogState& s = state();
    utl::SyncGuard guard(s.mTableLock);
    const utl::Pair<int, LogTypeData>* found = s.mTable.find(type);
    return found != nullptr ? found->mValue.mFilterLevel : kUnknownLevel;
}

bool setLogTag(const char* tag) {
    if (tag == nullptr) {
        return false;
    }
    LogState& s = state();
    utl::SyncGuard guard(s.mOutputLock);
    return utl::copyStrBase(s.mProcessTag, kTagSize, tag, ~0u, 0) != ~0u;
}

namespace utl {
namespace detail {

void DeferredLog::add(int level, const char* format, ...) {
    if (mCount == CAPACITY) {
        return;
    }
    va_list args;
    va_start(args, format);
    vsnprintf(mLines[mCount], LINE_SIZE, format, args);
    va_end(args);
    mLevels[mCount] = level;
    ++mCount;
}

void DeferredLog::writeLines() {
    for (unsigned int i = 0; i < mCount; ++i) {
        applog(LOG_TYPE_UTL, mLevels[i], "%s", mLines[i]);
    }
    mCount = 0;
}

}  // namespace detail
}  // namespace utl

__attribute__((weak)) void BinaryLogWrite(int, const char*, unsigned int) {}
