#include "UtlThreadManager.h"

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

#include "UtlKeepAlive.h"
#include "UtlLibraryLog.h"
#include "UtlMemory.h"
#include "UtlThreadWatchdog.h"

namespace {

constexpr const char* kSource = "source/UtlThreadManager";
constexpr int32_t kNoThread = 0;

static_assert(sizeof(pthread_t) == sizeof(unsigned long), "thread handles are unsigned long");

// The priority table: label index -> nice value.
constexpr int32_t kOsValues[] = {-4, -2, -1, 0, 1, 2, 3};
constexpr const char* kLabels[] = {"TIME_CRITICAL", "HIGH", "ABOVE_NORMAL", "NORMAL",
                                   "BELOW_NORMAL",  "LOW",  "IDLE"};
constexpr unsigned int kLabelCount = sizeof(kOsValues) / sizeof(kOsValues[0]);

// The kernel id of the calling thread, asked once per thread. A forked child's thread has a new
// id, so the child forgets the cached one.
thread_local int tCallerId = 0;

void forgetCallerIdInChild() {
    tCallerId = 0;
}

[[maybe_unused]] const int kAtForkRegistered =
    pthread_atfork(nullptr, nullptr, forgetCallerIdInChild);

// The process-wide manager: made on first use under the instantiation lock; read without the
// lock once made.
struct ManagerSingleton {
    utl::SyncObject mInstantiationSyncObject;
    uint32_t mEntryMax = utl::ThreadManager::DEFAULT_ENTRY_MAX;  // Guarded by the lock.
};

ManagerSingleton& singleton() {
    return utl::detail::immortalInstance<ManagerSingleton>();
}

[[maybe_unused]] const ManagerSingleton& kSingletonAtLoad = singleton();

// Waits without limit until `event` is on (an unlimited Event wait may end on a spurious wake).
void awaitOn(const utl::Event& event) {
    while (!event.isOn()) {
        event.waitToOn(0);
    }
}

bool kernelHasThread(int id) {
    return id > 0 && syscall(SYS_tgkill, getpid(), id, 0) == 0;
}

}  // namespace

namespace utl {

namespace detail {

std::atomic<ThreadManager*> gThreadManager{nullptr};

void reportAlive(ThreadManager* manager, const char* file, const char* function, unsigned int line,
                 unsigned int sub) {
    manager->keepAliveWatchdog(StatementInfo(file, function, line, sub));
}

}  // namespace detail

// ---- ThreadPriority

ThreadPriority::ThreadPriority(int label) : mOsValue(INVALID_OS_VALUE) {
    value(label);
}

void ThreadPriority::value(int label) {
    const unsigned int index = static_cast<unsigned int>(label);
    mOsValue = index < kLabelCount ? kOsValues[index] : INVALID_OS_VALUE;
}

ThreadPriority& ThreadPriority::operator=(Priority label) {
    value(label);
    return *this;
}

int ThreadPriority::value() const {
    if (mOsValue < -3) {
        return TIME_CRITICAL;
    }
    if (mOsValue <= -2) {
        return HIGH;
    }
    if (mOsValue <= 3) {
        return ABOVE_NORMAL + (mOsValue + 1);
    }
    return -1;
}

const char* ThreadPriority::label() const {
    const int index = value();
    return index >= 0 && mOsValue != INVALID_OS_VALUE ? kLabels[index] : "INVALID";
}

// ---- Thread

Thread::Thread(const char* name, Command* command)
    : mCommand(command),
      mId(kNoThread),
      mName(name, 0, 1),
      mEvents{Event(0, Event::ONE_WAY), Event(0, Event::ONE_WAY), Event(0, Event::ONE_WAY),
              Event(0, Event::ONE_WAY)},
      mStopRequested(false),
      mResult(0) {}

Thread::~Thread() {
    // A finished thread's registry entry goes with its object, so that its handle is detached;
    // a thread still running keeps its entry (it cannot be taken out).
    if (getId() != kNoThread) {
        leaveManagement();
    }
}

int Thread::start(int watchdog, unsigned int aliveTime, WatchdogTimerListener* listener,
                  int waitMode, unsigned int waitTimeout, const ThreadPriority& priority,
                  unsigned int reserved) {
    {
        SyncGuard guard(mLock);
        if (mEvents[STARTED].isOn()) {
            return -1;
        }
        // The thread object itself is the argument: the new thread may run to its end before
        // entry() returns, and nothing needs freeing on either side.
        const int id = ThreadManager::get()->entry(startImpl, this, watchdog, aliveTime, listener,
                                                   getName(), priority, reserved);
        if (id == kNoThread) {
            return -1;
        }
        mId.store(id);
        mEvents[STARTED].setOn();
    }
    return waitMode == 1 ? waitTo(PRE_EXECUTED, waitTimeout) : 0;
}

// static
void Thread::startImpl(void* cell) {
    Thread* thread = static_cast<Thread*>(cell);
    thread->mId.store(ThreadManager::getCallerId());
    thread->preExecute();
    thread->mEvents[PRE_EXECUTED].setOn();
    const unsigned int result = thread->execute();
    thread->postExecute();
    thread->mResult = result;
    // The object may be destroyed as soon as this event is on.
    thread->mEvents[FINISHED].setOn();
}

unsigned int Thread::execute() {
    return mCommand != nullptr ? mCommand->execute() : ~0u;
}

int Thread::stop(int waitMode, unsigned int timeout) {
    {
        SyncGuard guard(mLock);
        if (!mEvents[STARTED].isOn() || hasDone(FINISHED)) {
            return -1;
        }
    }
    ThreadManager::get()->unregisterWatchdog(getId());
    mStopRequested.store(true, std::memory_order_release);
    mEvents[STOP_REQUESTED].setOn();
    requestStop();
    return waitMode == 1 ? waitTo(FINISHED, timeout) : 0;
}

int Thread::waitTo(int index, unsigned int timeout) const {
    if (index < 0 || index >= EVENT_COUNT) {
        return -1;
    }
    if (!mEvents[STARTED].isOn()) {
        if (index == STOP_REQUESTED || index == FINISHED) {
            return -1;
        }
    } else if (index == FINISHED) {
        return ThreadManager::get()->waitToStop(getId(), timeout);
    }
    if (timeout == 0) {
        awaitOn(mEvents[index]);
        return Event::WAIT_OK;
    }
    return mEvents[index].waitToOn(timeout);
}

bool Thread::hasDone(int index) const {
    if (index == STOP_REQUESTED) {
        return hasRequestedStop();
    }
    if (index < 0 || index >= EVENT_COUNT || !mEvents[index].isOn()) {
        return false;
    }
    return index != FINISHED || !isRunning();
}

bool Thread::isRunning() const {
    const int id = getId();
    return id != kNoThread && ThreadManager::get()->isActive(id);
}

bool Thread::getResult(unsigned int* out) const {
    if (out == nullptr || !hasDone(FINISHED)) {
        return false;
    }
    *out = mResult;
    return true;
}

bool Thread::setPriority(const ThreadPriority& priority) {
    return ThreadManager::get()->setPriority(getId(), priority);
}

bool Thread::getPriority(ThreadPriority* priority) const {
    return ThreadManager::get()->getPriority(getId(), priority);
}

bool Thread::leaveManagement() {
    return ThreadManager::get()->unregister(getId());
}

bool Thread::startWatchdog() {
    return ThreadManager::get()->startWatchdog(getId());
}

bool Thread::stopWatchdog() {
    return ThreadManager::get()->stopWatchdog(getId());
}

bool Thread::setWatchdogAliveTime(unsigned int aliveTime) {
    return ThreadManager::get()->setWatchdogAliveTime(getId(), aliveTime);
}

bool Thread::keepAliveWatchdog(const StatementInfo& statement) {
    return ThreadManager::get()->keepAliveWatchdog(statement);
}

// static
int Thread::sleep(unsigned int msec) {
    timespec wanted = {static_cast<time_t>(msec / 1000), static_cast<long>(msec % 1000) * 1000000L};
    timespec remaining = {};
    while (nanosleep(&wanted, &remaining) != 0) {
        if (errno != EINTR) {
            return -1;
        }
        wanted = remaining;
    }
    return 0;
}

// ---- ThreadManager::DetachThread and ThreadEntry

void ThreadManager::DetachThread::operator()(unsigned long* handle) const {
    if (handle == nullptr || *handle == 0) {
        return;
    }
    {
        detail::BlockingCall call(kSource, "operator()", 150);
        pthread_detach(static_cast<pthread_t>(*handle));
    }
    delete handle;
}

ThreadManager::ThreadEntry::ThreadEntry() = default;

ThreadManager::ThreadEntry::ThreadEntry(unsigned long handle, const char* name,
                                        const ThreadPriority& priority)
    : mHandle(new (std::nothrow) unsigned long(handle)),
      mShared(new (std::nothrow) Shared(name)),
      mPriority(priority) {}

void ThreadManager::ThreadEntry::toStop() {
    if (!mShared.isNull()) {
        mShared->mActive.store(false);
        mShared->mStopped.setOn();
    }
}

int ThreadManager::ThreadEntry::waitToStop(unsigned int timeout) const {
    if (mShared.isNull()) {
        return Event::WAIT_FAILED;
    }
    if (timeout == 0) {
        awaitOn(mShared->mStopped);
        return Event::WAIT_OK;
    }
    return mShared->mStopped.waitToOn(timeout);
}

bool ThreadManager::ThreadEntry::isActive() const {
    return !mShared.isNull() && mShared->mActive.load();
}

bool ThreadManager::ThreadEntry::isControllable() const {
    return isActive() && !mHandle.isNull() && *mHandle != 0;
}

const char* ThreadManager::ThreadEntry::getName() const {
    return mShared.isNull() ? "" : mShared->mName.c_str();
}

// ---- ThreadManager

// A new thread's start: what it runs, and the id it reports back to entry().
struct ThreadManager::StartRecord {
    void (*mFunction)(void*);
    void* mArgument;
    int32_t mId;
    ThreadPriority mPriority;
    ThreadManager* mManager;
};

ThreadManager::ThreadManager(unsigned int entryMax)
    : mStartEvent(0, Event::ONE_WAY),
      mRegistry(16, 1),
      mEntryMax(entryMax),
      mRegistrationLog(false),
      mWatchdog(new (std::nothrow) ThreadWatchdog(entryMax)) {}

ThreadManager::~ThreadManager() {
    delete mWatchdog;
    mWatchdog = nullptr;
}

// static
ThreadManager* ThreadManager::get() {
    ManagerSingleton& s = singleton();
    ThreadManager* manager = detail::gThreadManager.load(std::memory_order_acquire);
    if (manager != nullptr) {
        return manager;
    }
    SyncGuard guard(s.mInstantiationSyncObject);
    manager = detail::gThreadManager.load(std::memory_order_relaxed);
    if (manager == nullptr) {
        manager = new (std::nothrow) ThreadManager(s.mEntryMax);
        detail::gThreadManager.store(manager, std::memory_order_release);
    }
    return manager;
}

// static
ThreadManager* ThreadManager::getIfCreated() {
    return detail::gThreadManager.load(std::memory_order_acquire);
}

// static
void ThreadManager::destroy() {
    ManagerSingleton& s = singleton();
    SyncGuard guard(s.mInstantiationSyncObject);
    // Deleted before the pointer is cleared: the watchdog thread's stop reaches the manager
    // through get(), which must not make a new one meanwhile.
    delete detail::gThreadManager.load(std::memory_order_relaxed);
    detail::gThreadManager.store(nullptr, std::memory_order_release);
}

// static
bool ThreadManager::initializeEntryMax(unsigned int entryMax) {
    ManagerSingleton& s = singleton();
    SyncGuard guard(s.mInstantiationSyncObject);
    ThreadManager* manager = detail::gThreadManager.load(std::memory_order_relaxed);
    if (manager == nullptr) {
        s.mEntryMax = entryMax;
        return true;
    }
    SyncGuard registryGuard(manager->mLock);
    if (entryMax < manager->mRegistry.getCount()) {
        return false;
    }
    manager->mEntryMax = entryMax;
    return true;
}

// static
int ThreadManager::getCallerId() {
    if (tCallerId == 0) {
        tCallerId = static_cast<int>(syscall(SYS_gettid));
    }
    return tCallerId;
}

int ThreadManager::entry(void (*function)(void*), void* argument, int watchdog,
                         unsigned int aliveTime, WatchdogTimerListener* listener, const char* name,
                         const ThreadPriority& priority, unsigned int reserved) {
    static_cast<void>(reserved);
    if (function == nullptr || name == nullptr) {
        return kNoThread;
    }
    int createResult = 0;
    int id = kNoThread;
    bool registered = false;
    bool logRegistration = false;
    {
        SyncGuard guard(mLock);
        if (mRegistry.getCount() >= mEntryMax) {
            return kNoThread;
        }
        mStartEvent.setOff();
        StartRecord* record = new (std::nothrow) StartRecord{
            function, argument, kNoThread, ThreadPriority(ThreadPriority::NORMAL), this};
        if (record == nullptr) {
            return kNoThread;
        }
        record->mPriority.OsValue(priority.OsValue());
        pthread_t handle = {};
        {
            detail::BlockingCall call(kSource, "entry", 490);
            createResult = pthread_create(&handle, nullptr, startThread, record);
        }
        if (createResult == 0) {
            awaitOn(mStartEvent);
            id = record->mId;
            mStartEvent.setOff();
            registered = registerEntry(id, ThreadEntry(handle, name, priority));
            logRegistration = mRegistrationLog;
        }
        delete record;
    }
    if (createResult != 0) {
        UTL_LOG(LEVEL_ERROR, "Thread Start Failed  Ret:%d, PriOs:%d, Name:%s", createResult,
                priority.OsValue(), name);
        return kNoThread;
    }
    if (!registered) {
        UTL_LOG(LEVEL_ERROR, "entry() Error Thread Register           ID:%d, PriOs:%d, Name:%s", id,
                priority.OsValue(), name);
        return kNoThread;
    }
    if (logRegistration) {
        UTL_LOG(LEVEL_INFO, "Thread Start and Register ID:%d, PriOs:%d, Name:%s", id,
                priority.OsValue(), name);
    }
    Memory::get()->registerThreadName(id, name);
    if (watchdog == 1) {
        entryWatchdog(id, aliveTime, listener, name);
    }
    return id;
}

// An entry left by an ended thread whose kernel id the new thread now has is replaced: the old
// thread is gone, and its handle is detached when the old entry goes.
bool ThreadManager::registerEntry(int id, const ThreadEntry& entry) {
    // Not controllable: a part of the entry could not be allocated.
    if (!entry.isControllable()) {
        return false;
    }
    return mRegistry.insert(id, entry);
}

// static
void* ThreadManager::startThread(void* argument) {
    StartRecord* record = static_cast<StartRecord*>(argument);
    const int osValue = record->mPriority.OsValue();
    int result = 0;
    {
        detail::BlockingCall call(kSource, "startThread", 1280);
        result = setpriority(PRIO_PROCESS, 0, osValue);
    }
    if (result != 0) {
        UTL_LOG(LEVEL_ERROR, "ThreadManager::startThread() Error setpriority() OsValue:%d",
                osValue);
    }
    // entry() frees the record once the start event is on: take what is needed first.
    void (*function)(void*) = record->mFunction;
    void* functionArgument = record->mArgument;
    ThreadManager* manager = record->mManager;
    const int id = getCallerId();
    record->mId = id;
    manager->mStartEvent.setOn();

    function(functionArgument);
    manager->markStopped(id);
    return nullptr;
}

// The entry is marked ended through a copy, after the lock is released: a waiter woken by it may
// destroy the manager at once, and this thread must not touch the manager after that. The copy
// does not hold the handle, so that its end never detaches the thread from here.
void ThreadManager::markStopped(int id) {
    ThreadEntry ended;
    {
        SyncGuard guard(mLock);
        if (const Map<int, ThreadEntry>::Entry* found = mRegistry.find(id)) {
            ended = found->mValue.withoutHandle();
        }
    }
    ended.toStop();
}

bool ThreadManager::setPriority(int id, const ThreadPriority& priority) {
    if (id != getCallerId() || !isThreadActive(id)) {
        return false;
    }
    const int osValue = priority.OsValue();
    if (osValue == ThreadPriority::INVALID_OS_VALUE) {
        UTL_LOG(LEVEL_ERROR, "ThreadManager::setPriority() Error ID:%d, invalidOsValue:%d", id,
                osValue);
        return false;
    }
    int result = 0;
    {
        detail::BlockingCall call(kSource, "setPriority", 770);
        result = setpriority(PRIO_PROCESS, 0, osValue);
    }
    if (result == -1) {
        const int error = errno;
        char text[8192] = {};
        UTL_LOG(LEVEL_ERROR,
                "ThreadManager::setPriority() Error setpriority() ID:%d, OsValue:%d er:%d erSt:%s",
                id, osValue, error, strerror_r(error, text, sizeof text));
        return false;
    }
    SyncGuard guard(mLock);
    if (Map<int, ThreadEntry>::Entry* found = mRegistry.find(id)) {
        found->mValue.setPriority(priority);
    }
    return true;
}

bool ThreadManager::getPriority(int id, ThreadPriority* out) const {
    SyncGuard guard(mLock);
    const Map<int, ThreadEntry>::Entry* found = mRegistry.find(id);
    if (found == nullptr || out == nullptr) {
        return false;
    }
    *out = found->mValue.getPriority();
    return true;
}

int ThreadManager::waitToStop(int id, unsigned int timeout) const {
    ThreadEntry entry;
    {
        SyncGuard guard(mLock);
        const Map<int, ThreadEntry>::Entry* found = mRegistry.find(id);
        if (found == nullptr) {
            return -1;
        }
        entry = found->mValue.withoutHandle();
    }
    return entry.waitToStop(timeout);
}

bool ThreadManager::isThreadExist(int id) const {
    SyncGuard guard(mLock);
    return mRegistry.find(id) != nullptr;
}

bool ThreadManager::isThreadActive(int id) const {
    SyncGuard guard(mLock);
    const Map<int, ThreadEntry>::Entry* found = mRegistry.find(id);
    return found != nullptr && found->mValue.isActive();
}

bool ThreadManager::isActive(int id) const {
    return isThreadActive(id) && kernelHasThread(id);
}

BasicString<char> ThreadManager::findName(int id) const {
    SyncGuard guard(mLock);
    const Map<int, ThreadEntry>::Entry* found = mRegistry.find(id);
    return BasicString<char>(found != nullptr ? found->mValue.getName() : "", 0, 1);
}

const char* ThreadManager::getName(int id) const {
    SyncGuard guard(mLock);
    const Map<int, ThreadEntry>::Entry* found = mRegistry.find(id);
    return found != nullptr ? found->mValue.getName() : "";
}

bool ThreadManager::unregister(int id) {
    // The entry leaves under the lock; its handle is let go (and the thread detached) after.
    ThreadEntry leaving;
    {
        SyncGuard guard(mLock);
        const unsigned int position = mRegistry.findPosition(id);
        if (position >= mRegistry.getCount() || mRegistry.getAt(position).mKey != id) {
            return false;
        }
        if (id != 0 && mRegistry.getAt(position).mValue.isActive()) {
            return false;
        }
        leaving = mRegistry.getAt(position).mValue;
        mRegistry.removeAt(position);
    }
    leaving.detach();
    return true;
}

void ThreadManager::enableRegistrationLog() {
    SyncGuard guard(mLock);
    mRegistrationLog = true;
}

void ThreadManager::printThreadInfoReg(int level) const {
    Map<int, ThreadEntry> rows(0, 1);
    {
        SyncGuard guard(mLock);
        for (unsigned int i = 0; i < mRegistry.getCount(); ++i) {
            const Map<int, ThreadEntry>::Entry& entry = mRegistry.getAt(i);
            rows.insert(entry.mKey, entry.mValue.withoutHandle());
        }
    }
    applog(detail::LOG_TYPE_UTL, level,
           "ID        , Name                            , Status      , Pri.Os    , "
           "Pri.Label       ,");
    for (unsigned int i = 0; i < rows.getCount(); ++i) {
        const int id = rows.getAt(i).mKey;
        const ThreadEntry& row = rows.getAt(i).mValue;
        // A thread registered as running that the kernel no longer has left without returning.
        const char* status = !row.isActive()       ? "INACTIVE"
                             : kernelHasThread(id) ? "ACTIVE"
                                                   : "UNKNOWN";
        applog(detail::LOG_TYPE_UTL, level, "%10d, %-32s, %-12s, %10d, %-16s,", id, row.getName(),
               status, row.getPriority().OsValue(), row.getPriority().label());
    }
}

// ---- ThreadManager: the watchdog

bool ThreadManager::ensureWatchdog(unsigned int interval) {
    return mWatchdog->initialize(interval) || mWatchdog->isInitialized();
}

// The thread is registered even when the watchdog cannot start: the table works without it.
bool ThreadManager::entryWatchdog(int id, unsigned int aliveTime, WatchdogTimerListener* listener,
                                  const char* name) {
    if (mWatchdog == nullptr) {
        return false;
    }
    ensureWatchdog(DEFAULT_WATCH_INTERVAL);
    return mWatchdog->entry(id, aliveTime, listener, name);
}

bool ThreadManager::unregisterWatchdog(int id) {
    return mWatchdog != nullptr && mWatchdog->unregister(id);
}

bool ThreadManager::isRegisteredWatchdog(int id) {
    return mWatchdog != nullptr && mWatchdog->isRegistered(id);
}

bool ThreadManager::isWatchingWatchdog(int id) {
    return mWatchdog != nullptr && mWatchdog->isWatching(id);
}

bool ThreadManager::setWatchdogWatchInterval(unsigned int interval) {
    if (mWatchdog == nullptr) {
        return false;
    }
    return mWatchdog->initialize(interval) || mWatchdog->setWatchInterval(interval);
}

bool ThreadManager::setWatchdogAliveTime(int id, unsigned int aliveTime) {
    return mWatchdog != nullptr && mWatchdog->setAliveTime(id, aliveTime);
}

bool ThreadManager::startWatchdog(int id) {
    return mWatchdog != nullptr && mWatchdog->start(id);
}

bool ThreadManager::stopWatchdog(int id) {
    return mWatchdog != nullptr && mWatchdog->stop(id);
}

bool ThreadManager::keepAliveWatchdog(const StatementInfo& statement) {
    return mWatchdog != nullptr && mWatchdog->keepAlive(statement);
}

void ThreadManager::printWatchdogInfo(int level) {
    if (mWatchdog != nullptr) {
        mWatchdog->printWatchdogInfo(level);
    }
}

}  // namespace utl
