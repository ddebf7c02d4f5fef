#include "UtlThreadWatchdog.h"

#include <cstring>

#include "UtlLibraryLog.h"
#include "UtlTimeCounter.h"

namespace {

constexpr unsigned int kThreadMsgSize = 4;
constexpr unsigned int kThreadMsgCount = 64;
constexpr unsigned int kPrintedNameSize = 32;

// Set while this thread's report is being handled, so that a report made from inside that
// handling (a log sink that reports around its own blocking call, say) is dropped rather than
// taking the table lock again.
thread_local bool tReporting = false;

const char* watchStatus(const utl::WatchdogInfo& info) {
    return info.mStopped != 0 ? "NOT_WATCHING" : "WATCHING";
}

const char* aliveStatus(const utl::WatchdogInfo& info) {
    switch (info.mStatus) {
        case utl::WatchdogInfo::STATUS_ALIVE:
            return "ALIVE";
        case utl::WatchdogInfo::STATUS_TIMEOUT:
            return "TIMEOUT";
        default:
            return "UNKNOWN";
    }
}

void printTable(int level, const utl::WatchdogInfoMap& table) {
    applog(utl::detail::LOG_TYPE_UTL, level,
           "ThreadWatchdog:: Watchdog info of threads in this process.");
    applog(utl::detail::LOG_TYPE_UTL, level,
           "ID        , Name                            , AliveTime , WatchStatus , AliveStatus , "
           "TimeoutCount , LastAliveInfo(File, Function:Line:Sub) , ");
    for (unsigned int i = 0; i < table.getCount(); ++i) {
        const utl::WatchdogInfo& info = table.getAt(i).mValue;
        char name[kPrintedNameSize] = {};
        utl::copyStrBase(name, sizeof name, info.mName.c_str(), ~0u, 1);
        applog(utl::detail::LOG_TYPE_UTL, level,
               "%10d, %-32s, %10u, %-12s, %-12s, %13u, (%s, %s:%u:%u)", info.mId, name,
               info.mAliveTime, watchStatus(info), aliveStatus(info), info.mTimeoutCount,
               info.mLastStatement.getFile(), info.mLastStatement.getFunction(),
               info.mLastStatement.getLine(), info.mLastStatement.getSub());
    }
}

bool hasExpired(const utl::WatchdogInfo& info, uint32_t now) {
    return info.mStopped == 0 && info.mStatus != utl::WatchdogInfo::STATUS_TIMEOUT &&
           now >= info.mLastAliveTick && now - info.mLastAliveTick >= info.mAliveTime;
}

}  // namespace

namespace utl {

bool StatementInfo::operator==(const StatementInfo& other) const {
    return mLine == other.mLine && mSub == other.mSub && std::strcmp(mFile, other.mFile) == 0 &&
           std::strcmp(mFunction, other.mFunction) == 0;
}

WatchdogInfo::WatchdogInfo() : WatchdogInfo(0, 0, nullptr, "") {}

WatchdogInfo::WatchdogInfo(int id, unsigned int aliveTime, WatchdogTimerListener* listener,
                           const char* name)
    : mId(id),
      mAliveTime(aliveTime),
      mListener(listener),
      mLastAliveTick(TICK_UNSET),
      mStopped(0),
      mStatus(STATUS_UNKNOWN),
      mTimeoutCount(0),
      mLastStatement(),
      mName(name, 0, 1) {}

void ThreadWatchdog::DefaultTimerListener::onTime(int, const WatchdogInfoMap& table) {
    printTable(detail::LEVEL_INFO, table);
}

ThreadWatchdog::ThreadWatchdog(unsigned int entryMax)
    : mThread(kThreadMsgSize, kThreadMsgCount, "Watchdog Thread", entryMax),
      mTimerId(-1),
      mInitialized(false),
      mTable(entryMax, 0) {}

ThreadWatchdog::~ThreadWatchdog() {
    shutdown();
}

bool ThreadWatchdog::initialize(unsigned int interval) {
    SyncGuard guard(mControlLock);
    if (isInitialized() ||
        mThread.start(this, 0, 0, nullptr, 1, 0, ThreadPriority(ThreadPriority::NORMAL), 0) != 0) {
        return false;
    }
    const int timerId = mThread.setTimer(interval, 0, 0, 0);
    if (timerId == -1) {
        return false;
    }
    mTimerId.store(timerId);
    mInitialized.store(true, std::memory_order_release);
    return true;
}

bool ThreadWatchdog::entry(int id, unsigned int aliveTime, WatchdogTimerListener* listener,
                           const char* name) {
    if (aliveTime == 0) {
        UTL_LOG(LEVEL_ERROR, "ThreadWatchdog Register AliveTime is 0 ID:%d ", id);
        return false;
    }
    const WatchdogInfo info(id, aliveTime, listener, name);
    bool inserted = false;
    {
        SyncGuard guard(mLock);
        inserted = mTable.insert(id, info);
    }
    if (!inserted) {
        UTL_LOG(LEVEL_ERROR, "ThreadWatchdog Register EntryMap ID:%d", id);
        return false;
    }
    UTL_LOG(LEVEL_DETAIL, "ThreadWatchdog Register ID:%d, AliveTime:%u, Name:%s", id, aliveTime,
            info.mName.c_str());
    return true;
}

bool ThreadWatchdog::unregister(int id) {
    SyncGuard guard(mLock);
    return mTable.erase(id);
}

bool ThreadWatchdog::isRegistered(int id) const {
    SyncGuard guard(mLock);
    return mTable.find(id) != nullptr;
}

bool ThreadWatchdog::isWatching(int id) const {
    SyncGuard guard(mLock);
    const WatchdogInfoMap::Entry* found = mTable.find(id);
    return found != nullptr && found->mValue.mStopped == 0;
}

bool ThreadWatchdog::start(int id) {
    const uint32_t now = TimeCounter::getTickTime();
    return changeEntry(id, [now](WatchdogInfo& info) {
        info.mStopped = 0;
        if (info.mLastAliveTick == WatchdogInfo::TICK_UNSET) {
            info.mLastAliveTick = now;
        }
    });
}

bool ThreadWatchdog::stop(int id) {
    return changeEntry(id, [](WatchdogInfo& info) {
        info.mStopped = 1;
        info.mLastAliveTick = WatchdogInfo::TICK_UNSET;
    });
}

bool ThreadWatchdog::setAliveTime(int id, unsigned int aliveTime) {
    if (isInitialized() && aliveTime == 0) {
        UTL_LOG(LEVEL_ERROR, "ThreadWatchdog Register AliveTime is 0 ID:%d ", id);
        return false;
    }
    const uint32_t now = TimeCounter::getTickTime();
    return changeEntry(id, [aliveTime, now](WatchdogInfo& info) {
        info.mAliveTime = aliveTime;
        if (info.mStopped == 0) {
            info.mLastAliveTick = now;
        }
    });
}

template <class Change>
bool ThreadWatchdog::changeEntry(int id, Change change) {
    if (!isInitialized()) {
        return false;
    }
    SyncGuard guard(mLock);
    WatchdogInfoMap::Entry* found = mTable.find(id);
    if (found == nullptr) {
        return false;
    }
    change(found->mValue);
    return true;
}

bool ThreadWatchdog::keepAlive(const StatementInfo& statement) {
    if (!isInitialized() || tReporting) {
        return false;
    }
    tReporting = true;
    const int id = ThreadManager::getCallerId();
    bool reported = false;
    bool backFromTimeout = false;
    BasicString<char> name(1, 1);
    {
        SyncGuard guard(mLock);
        WatchdogInfoMap::Entry* found = mTable.find(id);
        if (found != nullptr && found->mValue.mStopped == 0) {
            WatchdogInfo& info = found->mValue;
            backFromTimeout = info.mStatus == WatchdogInfo::STATUS_TIMEOUT;
            if (backFromTimeout) {
                name = info.mName;
            }
            info.mStatus = WatchdogInfo::STATUS_ALIVE;
            info.mLastStatement = statement;
            info.mLastAliveTick = TimeCounter::getTickTime();
            reported = true;
        }
    }
    if (backFromTimeout) {
        UTL_LOG(LEVEL_INFO, "ThreadWatchdog Timeout->Alive ID:%d Name:%s", id, name.c_str());
    }
    tReporting = false;
    return reported;
}

bool ThreadWatchdog::setWatchInterval(unsigned int interval) {
    SyncGuard guard(mControlLock);
    const int oldTimer = mTimerId.load();
    if (!isInitialized() || oldTimer == -1) {
        return false;
    }
    mThread.killTimer(oldTimer, 0);
    const int timerId = mThread.setTimer(interval, 0, 0, 0);
    mTimerId.store(timerId);
    return timerId != -1;
}

void ThreadWatchdog::shutdown() {
    SyncGuard guard(mControlLock);
    const int timerId = mTimerId.exchange(-1);
    if (timerId != -1) {
        mThread.killTimer(timerId, 0);
    }
    mThread.stop(1, 0);
}

void ThreadWatchdog::printWatchdogInfo(int level) const {
    WatchdogInfoMap table(0, 1);
    if (snapshot(&table)) {
        printTable(level, table);
    }
}

void ThreadWatchdog::receiveMsg(int, ThreadRawMsg& msg) {
    int msgId = MsgDrivenThread::MSG_ID_NONE;
    if (!msg.getMsgId(&msgId) || msgId != TimerMsg::ID) {
        return;
    }
    TimerMsg timer;
    if (timer.restoreFrom(msg) && timer.getTimerId() == mTimerId.load()) {
        watchThreads();
    }
}

void ThreadWatchdog::watchThreads() {
    const uint32_t now = TimeCounter::getTickTime();
    // Each timeout releases the lock, so the scan starts over; entries already in timeout are
    // passed over, which handles each expired thread once per pass.
    for (int id = findExpired(now); id != 0; id = findExpired(now)) {
        timeout(id);
    }
}

int ThreadWatchdog::findExpired(uint32_t now) const {
    SyncGuard guard(mLock);
    for (unsigned int i = 0; i < mTable.getCount(); ++i) {
        if (hasExpired(mTable.getAt(i).mValue, now)) {
            return mTable.getAt(i).mKey;
        }
    }
    return 0;
}

void ThreadWatchdog::timeout(int id) {
    WatchdogInfoMap table(0, 1);
    WatchdogTimerListener* listener = nullptr;
    BasicString<char> name(1, 1);
    {
        SyncGuard guard(mLock);
        WatchdogInfoMap::Entry* found = mTable.find(id);
        if (found == nullptr || found->mValue.mStopped != 0 ||
            found->mValue.mStatus == WatchdogInfo::STATUS_TIMEOUT) {
            return;
        }
        found->mValue.mStatus = WatchdogInfo::STATUS_TIMEOUT;
        ++found->mValue.mTimeoutCount;
        listener = found->mValue.mListener;
        name = found->mValue.mName;
        snapshot(&table);
    }
    UTL_LOG(LEVEL_ERROR, "!!!!!!!! ThreadWatchdog Timeout ID:%d Name:%s !!!!!!!!", id,
            name.c_str());
    (listener != nullptr ? listener : &mDefaultListener)->onTime(id, table);
}

bool ThreadWatchdog::snapshot(WatchdogInfoMap* out) const {
    SyncGuard guard(mLock);
    for (unsigned int i = 0; i < mTable.getCount(); ++i) {
        if (!out->insert(mTable.getAt(i).mKey, mTable.getAt(i).mValue)) {
            return false;
        }
    }
    return true;
}

}  // namespace utl
