#include "UtlTimerSignal.h"

#include <unistd.h>

#include <cerrno>
#include <new>

namespace utl {
namespace detail {

namespace {

constexpr int32_t kTimerSignalToken = static_cast<int32_t>(0x80000013);
constexpr unsigned int kMaxTimerSignals = 2;

// The timer signals of the process, registered by their constructors during static
// initialisation and read by the handler.
TimerSignal* gTimerSignals[kMaxTimerSignals] = {};

struct RecordPool {
    SyncObject mLock;
    TimerSignalRecord* mFree = nullptr;  // Guarded by mLock.
};

RecordPool& recordPool() {
    return immortalInstance<RecordPool>();
}

void emptyRecord(TimerSignalRecord* record) {
    record->mFd.store(-1);
    record->mNumber.store(0);
}

}  // namespace

TimerSignal::TimerSignal(int offsetFromRtMin)
    : mSignal(SIGRTMIN + offsetFromRtMin),
      mInstalled(false),
      mFailures(0),
      mReported(0),
      mFailedResult(0),
      mFailedErrno(0),
      mFailedNumber(0),
      mFailedFd(-1) {
    for (TimerSignal*& slot : gTimerSignals) {
        if (slot == nullptr) {
            slot = this;
            break;
        }
    }
}

bool TimerSignal::install(bool* installedNow) {
    SyncGuard guard(mInstallLock);
    if (installedNow != nullptr) {
        *installedNow = false;
    }
    if (mInstalled) {
        return true;
    }
    struct sigaction action = {};
    action.sa_sigaction = handle;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    mInstalled = sigaction(mSignal, &action, nullptr) == 0;
    if (installedNow != nullptr) {
        *installedNow = mInstalled;
    }
    return mInstalled;
}

bool TimerSignal::takeWriteFailure(WriteFailure* out) {
    uint32_t reported = mReported.load(std::memory_order_relaxed);
    const uint32_t failures = mFailures.load(std::memory_order_acquire);
    if (failures == reported ||
        !mReported.compare_exchange_strong(reported, failures, std::memory_order_relaxed)) {
        return false;
    }
    out->mResult = mFailedResult.load(std::memory_order_relaxed);
    out->mErrno = mFailedErrno.load(std::memory_order_relaxed);
    out->mNumber = mFailedNumber.load(std::memory_order_relaxed);
    out->mFd = mFailedFd.load(std::memory_order_relaxed);
    return true;
}

bool TimerSignal::createTimer(TimerSignalRecord* record, timer_t* timer) const {
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = mSignal;
    event.sigev_value.sival_ptr = record;
    return timer_create(CLOCK_MONOTONIC, &event, timer) == 0;
}

// static
bool TimerSignal::armTimer(timer_t timer, int32_t intervalMsec) {
    const timespec period = {static_cast<time_t>(intervalMsec / 1000),
                             static_cast<long>(intervalMsec % 1000) * 1000000L};
    const itimerspec timing = {period, period};
    return timer_settime(timer, 0, &timing, nullptr) == 0;
}

// The record is filled before the timer exists, so that its first expiry finds where to go.
TimerSignal::ArmResult TimerSignal::arm(TimerInfo* info, int fd, int32_t number) const {
    info->mSignalRecord->mFd.store(fd);
    info->mSignalRecord->mNumber.store(number);
    if (!createTimer(info->mSignalRecord, &info->mTimer)) {
        const int createErrno = errno;
        emptyRecord(info->mSignalRecord);
        errno = createErrno;
        return CREATE_FAILED;
    }
    if (!armTimer(info->mTimer, info->mInterval)) {
        const int settimeErrno = errno;
        timer_delete(info->mTimer);
        info->mTimer = timer_t();
        emptyRecord(info->mSignalRecord);
        errno = settimeErrno;
        return SETTIME_FAILED;
    }
    info->mSysTimerNumber = number;
    return ARMED;
}

// static
bool TimerSignal::disarm(TimerInfo* info) {
    if (info->mSysTimerNumber == -1) {
        return true;
    }
    if (timer_delete(info->mTimer) != 0) {
        return false;
    }
    emptyRecord(info->mSignalRecord);
    info->mTimer = timer_t();
    info->mPending = 0;
    info->mSysTimerNumber = -1;
    return true;
}

// static
TimerSignalRecord* TimerSignal::acquireRecord() {
    RecordPool& pool = recordPool();
    {
        SyncGuard guard(pool.mLock);
        if (TimerSignalRecord* record = pool.mFree) {
            pool.mFree = record->mNextFree;
            record->mNextFree = nullptr;
            return record;
        }
    }
    return new (std::nothrow) TimerSignalRecord;
}

// static
void TimerSignal::releaseRecord(TimerSignalRecord* record) {
    if (record == nullptr) {
        return;
    }
    emptyRecord(record);
    RecordPool& pool = recordPool();
    SyncGuard guard(pool.mLock);
    record->mNextFree = pool.mFree;
    pool.mFree = record;
}

// static
void TimerSignal::handle(int signal, siginfo_t* info, void*) {
    const int savedErrno = errno;
    const TimerSignalRecord* record = static_cast<TimerSignalRecord*>(info->si_value.sival_ptr);
    if (record != nullptr) {
        // Acquire: the record was made by another thread, and the store of the descriptor by
        // the thread that armed the timer publishes it to whichever thread the signal hits.
        const int32_t fd = record->mFd.load(std::memory_order_acquire);
        const int32_t token[2] = {kTimerSignalToken, record->mNumber.load()};
        const ssize_t written = fd >= 0 ? write(fd, token, sizeof token) : 0;
        if (fd >= 0 && written != static_cast<ssize_t>(sizeof token)) {
            for (TimerSignal* timerSignal : gTimerSignals) {
                if (timerSignal != nullptr && timerSignal->mSignal == signal) {
                    timerSignal->mFailedResult.store(static_cast<int32_t>(written));
                    timerSignal->mFailedErrno.store(errno);
                    timerSignal->mFailedNumber.store(token[1]);
                    timerSignal->mFailedFd.store(fd);
                    timerSignal->mFailures.fetch_add(1, std::memory_order_release);
                }
            }
        }
    }
    errno = savedErrno;
}

namespace {

// Never destroyed: timers of threads still running at exit may fire until the very end.
struct SharedTimerSignal : TimerSignal {
    SharedTimerSignal() : TimerSignal(1) {}
};

struct LoopTimerSignal : TimerSignal {
    LoopTimerSignal() : TimerSignal(2) {}
};

}  // namespace

TimerSignal& sharedTimerSignal() {
    return immortalInstance<SharedTimerSignal>();
}

TimerSignal& loopTimerSignal() {
    return immortalInstance<LoopTimerSignal>();
}

namespace {
[[maybe_unused]] const TimerSignal& kSharedTimerSignalAtLoad = sharedTimerSignal();
[[maybe_unused]] const TimerSignal& kLoopTimerSignalAtLoad = loopTimerSignal();
}  // namespace

// ---- Timer bookkeeping

TimerInfo makeTimerInfo(void* owner, unsigned int interval, unsigned int countLimit, int runOn) {
    TimerInfo info;
    info.mReserved = owner;
    info.mInterval = static_cast<int32_t>(interval);
    info.mCountLimit = countLimit;
    info.mRunOn = runOn;
    info.mRunning = CountingPointer<Event>(new (std::nothrow) Event(0, Event::TWO_WAY));
    return info;
}

int enterTimer(Map<int, TimerInfo>& timers, TimerInfo& info, int32_t* nextUserId, TimerMaps held) {
    if (info.mRunning.isNull() || timers.getCount() >= timers.getMax()) {
        return -1;
    }
    info.mSignalRecord = TimerSignal::acquireRecord();
    if (info.mSignalRecord == nullptr) {
        return -1;
    }
    const int timerId = *nextUserId;
    if (!timers.insert(timerId, info)) {
        TimerSignal::releaseRecord(info.mSignalRecord);
        return -1;
    }
    *nextUserId = nextUserTimerId(timerId, held);
    return timerId;
}

int32_t nextUserTimerId(int32_t id, TimerMaps maps) {
    const auto held = [maps](int32_t candidate) {
        for (const Map<int, TimerInfo>* map : maps) {
            if (map->find(candidate) != nullptr) {
                return true;
            }
        }
        return false;
    };
    do {
        id = id == INT32_MAX ? 1 : id + 1;
    } while (held(id));
    return id;
}

int32_t nextSysTimerNumber(int32_t last, TimerMaps maps) {
    const auto held = [maps](int32_t number) {
        for (const Map<int, TimerInfo>* map : maps) {
            for (unsigned int i = 0; i < map->getCount(); ++i) {
                if (map->getAt(i).mValue.mSysTimerNumber == number) {
                    return true;
                }
            }
        }
        return false;
    };
    if (last == INT32_MAX - 1) {
        return INT32_MAX;
    }
    int32_t next = last == INT32_MAX ? 1 : last + 1;
    while (next < INT32_MAX && held(next)) {
        ++next;
    }
    return next;
}

int userTimerIdOf(const Map<int, TimerInfo>& timers, int32_t sysTimerNumber) {
    if (sysTimerNumber == -1) {
        return -1;
    }
    for (unsigned int i = 0; i < timers.getCount(); ++i) {
        if (timers.getAt(i).mValue.mSysTimerNumber == sysTimerNumber) {
            return timers.getAt(i).mKey;
        }
    }
    return -1;
}

}  // namespace detail
}  // namespace utl
