#include "UtlTimeCounter.h"

#include <cerrno>
#include <ctime>

#include "UtlArray.h"
#include "UtlLibraryLog.h"
#include "UtlMemory.h"
#include "UtlSync.h"

namespace {

constexpr uint32_t kInvalidTime = ~0u;
constexpr unsigned int kMaxCounterIds = 50;

// The running ids and their start ticks, with the lock that guards them.
class CounterIds {
  public:
    CounterIds() : mMap(kMaxCounterIds, 0) {}

    utl::SyncObject mLock;
    utl::Map<unsigned int, unsigned int> mMap;  // Guarded by mLock.
};

// Made at library load and never destroyed, so that counters used during static destruction still
// work.
CounterIds& counterIds() {
    return utl::detail::immortalInstance<CounterIds>();
}

[[maybe_unused]] const CounterIds& kCounterIdsAtLoad = counterIds();

}  // namespace

namespace utl {

TimeCounter::TimeCounter() : mHasStarted(0), mStartTime(kInvalidTime) {}

TimeCounter::~TimeCounter() = default;

// static
uint32_t TimeCounter::getTickTime() {
    timespec now = {};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        UTL_LOG(LEVEL_ERROR, "[CAUTION!!!]clock_gettime() Failed. CLOCK_MONOTONIC. errno:[%d]",
                errno);
        return kInvalidTime;
    }
    // Unsigned 32-bit arithmetic on purpose: the tick wraps, and differences taken modulo 2^32
    // stay right across one wrap.
    return static_cast<uint32_t>(now.tv_sec) * 1000u + static_cast<uint32_t>(now.tv_nsec / 1000000);
}

bool TimeCounter::start() {
    // Stored before the check, and the flag left as it was: a failed restart leaves a running
    // counter running on an invalid start tick. Deliberate; the header says so.
    mStartTime = getTickTime();
    if (mStartTime == kInvalidTime) {
        UTL_LOG(LEVEL_ERROR, "TimeCounter::start() Failed.");
        return false;
    }
    mHasStarted = 1;
    return true;
}

uint32_t TimeCounter::watch() const {
    const uint32_t now = getTickTime();
    if (mHasStarted != 0 && now != kInvalidTime) {
        return getElapsedTime(mStartTime, now);
    }
    UTL_LOG(LEVEL_ERROR, "TimeCounter::watch()/stop() Failed. HasStarted:[%s], TickTime:[%u]",
            mHasStarted != 0 ? "On" : "Off", now);
    return kInvalidTime;
}

uint32_t TimeCounter::stop() {
    const uint32_t elapsed = watch();
    mHasStarted = 0;
    mStartTime = kInvalidTime;
    return elapsed;
}

// static
bool TimeCounter::start(unsigned int id) {
    CounterIds& ids = counterIds();
    SyncGuard guard(ids.mLock);
    if (!ids.mMap.insert(id, 0)) {
        UTL_LOG(LEVEL_ERROR, "TimeCounter::start(ID) Failed. InsertMap Error. CounterId:[%u]", id);
        return false;
    }
    const unsigned int pos = ids.mMap.findPosition(id);
    if (pos >= ids.mMap.getCount() || ids.mMap.getAt(pos).mKey != id) {
        UTL_LOG(LEVEL_ERROR,
                "TimeCounter::start(ID) Failed. Specified Key's Position Notfound. CounterId:[%u]",
                id);
        ids.mMap.erase(id);
        return false;
    }
    // The tick is taken after the table work, so that the measured time leaves it out.
    unsigned int& begin = ids.mMap.getAt(pos).mValue;
    begin = getTickTime();
    if (begin == kInvalidTime) {
        UTL_LOG(LEVEL_ERROR, "TimeCounter::start(ID) Failed. TickTime is Invalid. CounterId:[%u]",
                id);
        ids.mMap.erase(id);
        return false;
    }
    return true;
}

// static
uint32_t TimeCounter::watch(unsigned int id) {
    // Read before the lock, so that waiting for it is not counted.
    const uint32_t now = getTickTime();
    CounterIds& ids = counterIds();
    SyncGuard guard(ids.mLock);
    const unsigned int pos = ids.mMap.findPosition(id);
    if (pos >= ids.mMap.getCount() || ids.mMap.getAt(pos).mKey != id) {
        UTL_LOG(LEVEL_ERROR, "TimeCounter::Failed. Key Not Applicable. CounterId:[%u]", id);
        return kInvalidTime;
    }
    const uint32_t begin = ids.mMap.getAt(pos).mValue;
    if (begin != kInvalidTime && now != kInvalidTime) {
        return getElapsedTime(begin, now);
    }
    UTL_LOG(LEVEL_ERROR, "TimeCounter::watch(ID)/stop(ID) Failed. StartTime:[%u], TickTime:[%u]",
            begin, now);
    return kInvalidTime;
}

// static
uint32_t TimeCounter::stop(unsigned int id) {
    // Two separate holds of the lock: another thread may restart or stop the id in between, and
    // the id is removed even when watching it failed.
    const uint32_t elapsed = watch(id);
    CounterIds& ids = counterIds();
    SyncGuard guard(ids.mLock);
    ids.mMap.erase(id);
    return elapsed;
}

}  // namespace utl
