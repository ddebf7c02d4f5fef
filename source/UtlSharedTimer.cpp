#include "UtlSharedTimer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "UtlKeepAlive.h"
#include "UtlLibraryLog.h"
#include "UtlThreadWatchdog.h"
#include "UtlTimerSignal.h"

namespace utl {

namespace {

constexpr const char* kSource = "source/UtlSharedTimer";
constexpr int kNoTimer = -1;
constexpr unsigned int kTimerIdsAtFirst = 64;

constexpr ssize_t kTokenSize = 2 * sizeof(int32_t);
static_assert(kTokenSize == 8, "a token is 8 bytes");

bool isValidInterval(unsigned int interval) {
    return interval >= 1 && interval <= static_cast<unsigned int>(INT32_MAX);
}

// Waits without limit until `event` is off (an unlimited Event wait may end on a spurious wake).
void awaitOff(const Event& event) {
    while (event.isOn()) {
        event.waitToOff(0);
    }
}

// Holds the control lock, except on the timer thread: a caller that holds it may be waiting for
// that very thread.
class ControlGuard {
  public:
    ControlGuard(const SyncObject& lock, bool onTimerThread)
        : mLock(onTimerThread ? nullptr : &lock) {
        if (mLock != nullptr) {
            mLock->lock();
        }
    }
    ~ControlGuard() {
        if (mLock != nullptr) {
            mLock->unlock();
        }
    }
    ControlGuard(const ControlGuard&) = delete;
    ControlGuard& operator=(const ControlGuard&) = delete;

  private:
    const SyncObject* mLock;
};

}  // namespace

SharedTimer::SharedTimer(int watchdog, unsigned int aliveTime,
                         WatchdogTimerListener* watchdogListener, unsigned int maxTimerCount,
                         const char* name)
    : Thread(name, nullptr),
      mCtlQueue(CTL_QUEUE_SIZE),
      mTimers(maxTimerCount, 0),
      mNextUserTimerId(1),
      mNextSysTimerNumber(1),
      mReadFd(-1),
      mWriteFd(-1),
      mTaken(0),
      mAwaitedPosition(0),
      mAwaitedResult(false),
      mClosed(false),
      mPipe("SharedTimerThread", kSource),
      mControlDone(0, Event::TWO_WAY) {
    int fds[2] = {-1, -1};
    if (pipe2(fds, O_CLOEXEC) != 0) {
        UTL_LOG(LEVEL_ERROR, "SharedTimerThread(%s) pipe errno:%d", getName(), errno);
        mClosed = true;
    } else {
        mReadFd = fds[0];
        mWriteFd = fds[1];
        // The signal handler writes here on whatever thread the signal hits: a full pipe must
        // make that write fail rather than block.
        fcntl(mWriteFd, F_SETFL, fcntl(mWriteFd, F_GETFL) | O_NONBLOCK);
    }
    detail::TimerSignal& signal = detail::sharedTimerSignal();
    bool installedNow = false;
    if (!signal.install(&installedNow)) {
        UTL_LOG(LEVEL_ERROR, "SharedTimer sigaction  errno:%d", errno);
    } else if (installedNow) {
        UTL_LOG(LEVEL_DETAIL, "SharedTimer sigaction  success:%d", signal.number());
    }
    if (!mClosed && Thread::start(watchdog, aliveTime, watchdogListener, 1, 0,
                                  ThreadPriority(ThreadPriority::NORMAL), 0) != 0) {
        SyncGuard guard(mTableLock);
        mClosed = true;
    }
}

SharedTimer::~SharedTimer() {
    if (hasDone(0) && !isCallerLoop()) {
        Thread::stop(1, 0);
    }
    {
        SyncGuard guard(mTableLock);
        for (unsigned int i = 0; i < mTimers.getCount(); ++i) {
            TimerInfo& info = mTimers.getAt(i).mValue;
            detail::TimerSignal::disarm(&info);
            detail::TimerSignal::releaseRecord(info.mSignalRecord);
        }
    }
    if (mReadFd >= 0) {
        close(mReadFd);
        close(mWriteFd);
    }
}

bool SharedTimer::isCallerLoop() const {
    return getId() == ThreadManager::getCallerId();
}

TimerInfo* SharedTimer::findTimer(int timerId) {
    Map<int, TimerInfo>::Entry* found = mTimers.find(timerId);
    return found != nullptr ? &found->mValue : nullptr;
}

const TimerInfo* SharedTimer::findTimer(int timerId) const {
    const Map<int, TimerInfo>::Entry* found = mTimers.find(timerId);
    return found != nullptr ? &found->mValue : nullptr;
}

// ---- Timer table

int SharedTimer::addTimer(TimerListener* listener, unsigned int interval, unsigned int countLimit,
                          int runOn) {
    if (!isValidInterval(interval)) {
        return kNoTimer;
    }
    TimerInfo info = detail::makeTimerInfo(listener, interval, countLimit, runOn);
    SyncGuard guard(mTableLock);
    if (mClosed) {
        return kNoTimer;
    }
    return detail::enterTimer(mTimers, info, &mNextUserTimerId, {&mTimers});
}

bool SharedTimer::getTimerIdSet(Array<int>* out) const {
    if (out == nullptr) {
        return false;
    }
    while (out->getCount() > 0) {
        out->removeAt(out->getCount() - 1);
    }
    SyncGuard guard(mTableLock);
    for (unsigned int i = 0; i < mTimers.getCount(); ++i) {
        if (!out->insertAt(i, mTimers.getAt(i).mKey)) {
            return false;
        }
    }
    return true;
}

bool SharedTimer::setInterval(int timerId, unsigned int interval) {
    if (!isValidInterval(interval)) {
        return false;
    }
    SyncGuard guard(mTableLock);
    TimerInfo* info = findTimer(timerId);
    if (info == nullptr) {
        return false;
    }
    info->mInterval = static_cast<int32_t>(interval);
    info->mIntervalChanged = 1;
    return true;
}

unsigned int SharedTimer::getInterval(int timerId) const {
    SyncGuard guard(mTableLock);
    const TimerInfo* info = findTimer(timerId);
    return info != nullptr ? static_cast<unsigned int>(info->mInterval) : UNKNOWN_INTERVAL;
}

bool SharedTimer::isRunning(int timerId) const {
    SyncGuard guard(mTableLock);
    const TimerInfo* info = findTimer(timerId);
    return info != nullptr && info->mRunning->isOn();
}

// ---- Requests

bool SharedTimer::eraseTimer(int timerId, int noWait) {
    return request(MSG_ID_ERASE_TIMER, timerId, noWait, "eraseTimer");
}

bool SharedTimer::start(int timerId, int noWait) {
    return request(MSG_ID_START_TIMER, timerId, noWait, "start");
}

bool SharedTimer::stop(int timerId, int noWait) {
    return request(MSG_ID_STOP_TIMER, timerId, noWait, "stop");
}

// A stop that is not needed is a success too: only a stop that fails to queue fails the restart.
bool SharedTimer::restart(int timerId, int noWait) {
    ControlGuard control(mControlLock, isCallerLoop());
    {
        SyncGuard guard(mTableLock);
        if (findTimer(timerId) == nullptr) {
            return false;
        }
    }
    return stop(timerId, noWait) && start(timerId, noWait);
}

bool SharedTimer::startAll(int noWait) {
    return forEachTimer(noWait, &SharedTimer::start);
}

bool SharedTimer::stopAll(int noWait) {
    return forEachTimer(noWait, &SharedTimer::stop);
}

bool SharedTimer::restartAll(int noWait) {
    return forEachTimer(noWait, &SharedTimer::restart);
}

bool SharedTimer::forEachTimer(int noWait, bool (SharedTimer::*operation)(int, int)) {
    ControlGuard control(mControlLock, isCallerLoop());
    // Growing, because timers may be added while the ids are collected.
    Array<int> timerIds(kTimerIdsAtFirst, 1);
    if (!getTimerIdSet(&timerIds)) {
        return false;
    }
    bool all = true;
    for (unsigned int i = 0; i < timerIds.getCount(); ++i) {
        all = (this->*operation)(timerIds.getAt(i), noWait) && all;
    }
    return all;
}

// Callers that wait hold the control lock until the loop has handled their message; the loop
// itself never takes it and never waits.
bool SharedTimer::request(int msgId, int timerId, int noWait, const char* function) {
    if (isCallerLoop()) {
        return requestOnLoop(msgId, timerId);
    }
    const bool await = noWait == 0;
    SyncGuard control(mControlLock);
    switch (queueRequest(msgId, timerId, await)) {
        case REQUEST_FAILED:
            return false;
        case REQUEST_NEEDLESS:
            return true;
        case REQUEST_QUEUED:
            break;
    }
    if (!await) {
        return true;
    }
    {
        detail::BlockingCall call(kSource, function, __LINE__);
        awaitOff(mControlDone);
    }
    SyncGuard guard(mTableLock);
    return mAwaitedResult;
}

// A start or stop that the queued requests (or, without any, the timer's state) already make
// true is not queued. A stop or erase takes the timer's queued expiries out of the queue at once.
SharedTimer::RequestResult SharedTimer::queueRequest(int msgId, int timerId, bool await) {
    detail::DeferredLog log;
    SyncGuard guard(mTableLock);
    TimerInfo* info = findTimer(timerId);
    if (info == nullptr) {
        return REQUEST_FAILED;
    }
    if (msgId != MSG_ID_ERASE_TIMER && willRun(timerId, *info) == (msgId == MSG_ID_START_TIMER)) {
        return REQUEST_NEEDLESS;
    }
    if (!postLocked(msgId, timerId, log)) {
        return REQUEST_FAILED;
    }
    if (msgId != MSG_ID_START_TIMER) {
        dropQueuedExpiries(timerId, info);
    }
    if (await) {
        mAwaitedPosition = mTaken + mCtlQueue.getCount();
        mAwaitedResult = false;
        mControlDone.setOn();
    }
    return REQUEST_QUEUED;
}

// On the timer thread a request is carried out at once, unless a request for the same timer is
// still queued: it then takes its turn behind that one, so that a timer's requests always take
// effect in the order they were made.
bool SharedTimer::requestOnLoop(int msgId, int timerId) {
    detail::DeferredLog log;
    SyncGuard guard(mTableLock);
    if (findTimer(timerId) == nullptr) {
        return false;
    }
    if (lastQueuedRequest(timerId) != nullptr) {
        return queueRequest(msgId, timerId, false) != REQUEST_FAILED;
    }
    switch (msgId) {
        case MSG_ID_START_TIMER:
            return updateOnStart(timerId, log) == 0 && findTimer(timerId)->mRunning->isOn();
        case MSG_ID_STOP_TIMER:
            return updateOnStop(timerId, false, log) == 0;
        default:
            return updateOnStop(timerId, true, log) == 0;
    }
}

const SharedTimer::TimerCtlMsg* SharedTimer::lastQueuedRequest(int timerId) const {
    for (unsigned int i = mCtlQueue.getCount(); i > 0; --i) {
        const TimerCtlMsg& entry = mCtlQueue.at(i - 1);
        if (entry.mParam == timerId &&
            (entry.mMsgId == MSG_ID_START_TIMER || entry.mMsgId == MSG_ID_STOP_TIMER ||
             entry.mMsgId == MSG_ID_ERASE_TIMER)) {
            return &entry;
        }
    }
    return nullptr;
}

bool SharedTimer::willRun(int timerId, const TimerInfo& info) const {
    const TimerCtlMsg* last = lastQueuedRequest(timerId);
    return last != nullptr ? last->mMsgId == MSG_ID_START_TIMER : info.mRunning->isOn();
}

// The awaited entry is never an expiry; when one before it goes, it moves up a place.
void SharedTimer::dropQueuedExpiries(int timerId, TimerInfo* info) {
    for (unsigned int i = 0; i < mCtlQueue.getCount();) {
        const TimerCtlMsg& entry = mCtlQueue.at(i);
        if (entry.mMsgId != MSG_ID_TIMEOUT || entry.mParam != timerId) {
            ++i;
            continue;
        }
        mCtlQueue.eraseAt(i);
        if (mAwaitedPosition > mTaken + i + 1) {
            --mAwaitedPosition;
        }
    }
    info->mPending = 0;
}

void SharedTimer::requestStop() {
    // A full queue needs no stop message: the loop is busy and sees the stop after its current
    // message.
    postTimerCtlMsg(MSG_ID_STOP, -1);
}

bool SharedTimer::postTimerCtlMsg(int msgId, int param) {
    detail::DeferredLog log;
    SyncGuard guard(mTableLock);
    return postLocked(msgId, param, log);
}

bool SharedTimer::postLocked(int msgId, int param, detail::DeferredLog& log) {
    if (mClosed || !mCtlQueue.push(TimerCtlMsg(msgId, param))) {
        return false;
    }
    const ssize_t written = writeToken(msgId, param);
    if (written != kTokenSize) {
        log.add(detail::LEVEL_ERROR, "SharedTimerThread(%s) Error. write Ret:%u errno:%d",
                getName(), static_cast<unsigned int>(written), errno);
        return false;
    }
    return true;
}

ssize_t SharedTimer::writeToken(int msgId, int param) {
    const int32_t token[2] = {msgId, param};
    return write(mWriteFd, token, sizeof token);
}

// ---- The loop

// Every entry of the queue comes with a token, which lets the loop take the front entry whatever
// the token says. A timer signal's token queues an expiry. When no other token waits, the expiry
// takes the signal token's turn and is delivered at once; otherwise it is queued with a token of
// its own behind those waiting, so that after a long onTime the signals that piled up meanwhile
// are read (and dropped by the pending limit) before any is delivered: the listener then gets
// one or two expiries, not a burst.
unsigned int SharedTimer::execute() {
    unsigned int result = 0;
    for (;;) {
        TimerCtlMsg token;
        bool pipeEmpty = false;
        if (!mPipe.next(mReadFd, getId(), getName(), &token.mMsgId, &token.mParam, &pipeEmpty)) {
            result = ~0u;
            break;
        }
        reportSignalWriteFailure();
        if (token.mMsgId == MSG_ID_TIMER_SIGNAL) {
            executeTimeoutSignal(token.mParam, pipeEmpty);
            if (!pipeEmpty) {
                continue;
            }
        }
        TimerCtlMsg front;
        if (takeFront(&front)) {
            const int handled = dispatch(front);
            releaseWaiter(front);
            if (handled != 0) {
                UTL_LOG(LEVEL_ERROR, "!!!!!!!! SharedTimerThread(%s) Error. MsgId:0x%08x !!!!!!!!",
                        getName(), static_cast<unsigned int>(front.mMsgId));
            }
        }
        if (hasRequestedStop()) {
            break;
        }
    }
    closeLoop();
    return result;
}

void SharedTimer::onTime(int timerId) {
    TimerListener* listener = nullptr;
    {
        SyncGuard guard(mTableLock);
        const TimerInfo* info = findTimer(timerId);
        if (info == nullptr) {
            return;
        }
        listener = static_cast<TimerListener*>(info->mReserved);
    }
    if (listener != nullptr) {
        listener->onTime(timerId);
    }
}

void SharedTimer::reportSignalWriteFailure() {
    detail::TimerSignal::WriteFailure failure = {};
    if (detail::sharedTimerSignal().takeWriteFailure(&failure)) {
        UTL_LOG(LEVEL_ERROR, "SharedTimerThread() Error. write Ret:%u errno:%d",
                static_cast<unsigned int>(failure.mResult), failure.mErrno);
    }
}

// A signal becomes a queued expiry only while the timer runs and fewer expiries wait than it may
// keep: one, or two for a run-on timer, so that a busy listener is never flooded. With
// `takesSignalTurn` the expiry is queued without a token: the signal's token takes its turn.
// Otherwise a token that cannot be written (the pipe is full of signal tokens, which the handler
// reports) takes the expiry back: it is one more missed signal, and the signals behind it bring
// the next expiry.
void SharedTimer::executeTimeoutSignal(int sysTimerNumber, bool takesSignalTurn) {
    SyncGuard guard(mTableLock);
    const int timerId = detail::userTimerIdOf(mTimers, sysTimerNumber);
    TimerInfo* info = findTimer(timerId);
    if (info == nullptr || info->mPending >= 2 || (info->mPending == 1 && info->mRunOn == 0) ||
        !info->mRunning->isOn()) {
        return;
    }
    if (!mCtlQueue.push(TimerCtlMsg(MSG_ID_TIMEOUT, timerId))) {
        return;
    }
    if (!takesSignalTurn && writeToken(MSG_ID_TIMEOUT, timerId) != kTokenSize) {
        mCtlQueue.removeLast(1);
        return;
    }
    ++info->mPending;
}

bool SharedTimer::takeFront(TimerCtlMsg* front) {
    SyncGuard guard(mTableLock);
    if (!mCtlQueue.pop(front)) {
        return false;
    }
    ++mTaken;
    return true;
}

int SharedTimer::dispatch(const TimerCtlMsg& front) {
    detail::DeferredLog log;
    switch (front.mMsgId) {
        case MSG_ID_START_TIMER:
            return updateOnStart(front.mParam, log);
        case MSG_ID_STOP_TIMER:
            return updateOnStop(front.mParam, false, log);
        case MSG_ID_ERASE_TIMER:
            return updateOnStop(front.mParam, true, log);
        case MSG_ID_TIMEOUT:
            return handleExpiry(front.mParam);
        default:
            return 0;
    }
}

// A start of a running timer leaves it as it is (it may have been queued while the loop was
// handling an earlier start).
int SharedTimer::updateOnStart(int timerId, detail::DeferredLog& log) {
    SyncGuard guard(mTableLock);
    TimerInfo* info = findTimer(timerId);
    if (info == nullptr || info->mRunning->isOn()) {
        return 0;
    }
    info->mExpiryCount = 0;
    if (!startTimerByTimerInfo(info, log)) {
        return -1;
    }
    info->mRunning->setOn();
    finishUpdate(info);
    return 0;
}

int SharedTimer::updateOnStop(int timerId, bool erase, detail::DeferredLog& log) {
    SyncGuard guard(mTableLock);
    TimerInfo* info = findTimer(timerId);
    if (info == nullptr) {
        return 0;
    }
    const bool stopped = stopTimerByTimerInfo(timerId, info, log);
    if (erase) {
        info->mRunning->setOff();
        detail::TimerSignal::releaseRecord(info->mSignalRecord);
        mTimers.erase(timerId);
    } else if (stopped) {
        info->mRunning->setOff();
        finishUpdate(info);
    }
    return stopped ? 0 : -1;
}

// An expiry is delivered only while its timer runs: one posted by hand for a stopped timer is
// dropped.
int SharedTimer::handleExpiry(int timerId) {
    int32_t arming = -1;
    {
        SyncGuard guard(mTableLock);
        TimerInfo* info = findTimer(timerId);
        if (info == nullptr) {
            return 0;
        }
        if (!info->mRunning->isOn()) {
            info->mPending = info->mPending != 0 ? info->mPending - 1 : 0;
            return 0;
        }
        arming = info->mSysTimerNumber;
    }
    onTime(timerId);
    return updateOnTimeout(timerId, arming);
}

// A listener that stopped, restarted or erased its timer inside onTime has ended the run this
// expiry belonged to: the expiry then counts for nothing. The interval-changed mark is read and
// cleared in one hold of the table lock, so that a change made meanwhile is never lost. A timer
// that cannot be re-armed stops.
int SharedTimer::updateOnTimeout(int timerId, int32_t arming) {
    detail::DeferredLog log;
    SyncGuard guard(mTableLock);
    TimerInfo* info = findTimer(timerId);
    if (info == nullptr || info->mSysTimerNumber != arming) {
        return 0;
    }
    info->mPending = info->mPending != 0 ? info->mPending - 1 : 0;
    ++info->mExpiryCount;
    int result = 0;
    if (info->mCountLimit == 0 || info->mExpiryCount < info->mCountLimit) {
        if (info->mRunOn == 0 || info->mIntervalChanged != 0) {
            if (!stopTimerByTimerInfo(timerId, info, log) || !startTimerByTimerInfo(info, log)) {
                info->mRunning->setOff();
                result = -1;
            }
        }
    } else {
        stopTimerByTimerInfo(timerId, info, log);
        info->mRunning->setOff();
    }
    finishUpdate(info);
    return result;
}

void SharedTimer::finishUpdate(TimerInfo* info) {
    info->mIntervalChanged = 0;
}

// After the entry a caller waits for (or one after it, should it have left the queue unseen) the
// caller is released with what the entry achieved.
void SharedTimer::releaseWaiter(const TimerCtlMsg& handled) {
    SyncGuard guard(mTableLock);
    if (mAwaitedPosition == 0 || mTaken < mAwaitedPosition) {
        return;
    }
    const TimerInfo* info = findTimer(handled.mParam);
    const bool running = info != nullptr && info->mRunning->isOn();
    switch (handled.mMsgId) {
        case MSG_ID_START_TIMER:
            mAwaitedResult = running;
            break;
        case MSG_ID_STOP_TIMER:
            mAwaitedResult = !running;
            break;
        default:
            mAwaitedResult = info == nullptr;
            break;
    }
    mAwaitedPosition = 0;
    mControlDone.setOff();
}

bool SharedTimer::startTimerByTimerInfo(TimerInfo* info, detail::DeferredLog& log) {
    const int32_t number = detail::nextSysTimerNumber(mNextSysTimerNumber, {&mTimers});
    mNextSysTimerNumber = number;
    switch (detail::sharedTimerSignal().arm(info, mWriteFd, number)) {
        case detail::TimerSignal::ARMED:
            return true;
        case detail::TimerSignal::CREATE_FAILED:
            log.add(detail::LEVEL_ERROR,
                    "SharedTimerThread(%s) timer_create SysTimerId:0x%08x errno:%d", getName(),
                    static_cast<unsigned int>(number), errno);
            return false;
        case detail::TimerSignal::SETTIME_FAILED:
            log.add(detail::LEVEL_ERROR,
                    "SharedTimerThread(%s) timer_settime SysTimerId:0x%08x errno:%d", getName(),
                    static_cast<unsigned int>(number), errno);
            return false;
    }
    return false;
}

// Deletes the POSIX timer and takes the timer's queued expiries out of the queue.
bool SharedTimer::stopTimerByTimerInfo(int timerId, TimerInfo* info, detail::DeferredLog& log) {
    if (!detail::TimerSignal::disarm(info)) {
        log.add(detail::LEVEL_ERROR,
                "SharedTimerThread(%s) timer_delete SysTimerNum:0x%08x errno:%d", getName(),
                static_cast<unsigned int>(info->mSysTimerNumber), errno);
        return false;
    }
    dropQueuedExpiries(timerId, info);
    return true;
}

void SharedTimer::eraseAllTimer() {
    detail::DeferredLog log;
    SyncGuard guard(mTableLock);
    for (unsigned int i = 0; i < mTimers.getCount(); ++i) {
        Map<int, TimerInfo>::Entry& entry = mTimers.getAt(i);
        stopTimerByTimerInfo(entry.mKey, &entry.mValue, log);
        entry.mValue.mRunning->setOff();
    }
}

// Requests are refused from here on; those still queued are dropped, and a caller still waiting
// is released with false.
void SharedTimer::closeLoop() {
    eraseAllTimer();
    SyncGuard guard(mTableLock);
    mClosed = true;
    mCtlQueue.reset();
    mAwaitedPosition = 0;
    mControlDone.setOff();
}

// ---- Timer

Timer::Timer(unsigned int interval, int watchdog, unsigned int aliveTime,
             WatchdogTimerListener* watchdogListener, unsigned int countLimit, int runOn,
             const char* name)
    : Timer(nullptr, interval, watchdog, aliveTime, watchdogListener, countLimit, runOn, name) {}

Timer::Timer(TimerListener* listener, unsigned int interval, int watchdog, unsigned int aliveTime,
             WatchdogTimerListener* watchdogListener, unsigned int countLimit, int runOn,
             const char* name)
    : mSharedTimer(watchdog, aliveTime, watchdogListener, 1, name),
      mListener(listener),
      mTimerId(kNoTimer) {
    mTimerId.store(mSharedTimer.addTimer(this, interval, countLimit, runOn));
}

Timer::~Timer() {
    destroy();
}

bool Timer::start(int noWait) {
    return mSharedTimer.start(mTimerId.load(), noWait);
}

bool Timer::restart(int noWait) {
    return mSharedTimer.restart(mTimerId.load(), noWait);
}

bool Timer::stop(int noWait) {
    return mSharedTimer.stop(mTimerId.load(), noWait);
}

bool Timer::setInterval(unsigned int interval) {
    return mSharedTimer.setInterval(mTimerId.load(), interval);
}

unsigned int Timer::getInterval() const {
    return mSharedTimer.getInterval(mTimerId.load());
}

bool Timer::isRunning() const {
    return mSharedTimer.isRunning(mTimerId.load());
}

// Ending the thread disarms the timer and refuses every later request; on the timer thread
// itself the end comes after the current onTime.
bool Timer::destroy() {
    const bool hadTimer = mTimerId.exchange(kNoTimer) != kNoTimer;
    const bool onTimerThread = mSharedTimer.getId() == ThreadManager::getCallerId();
    mSharedTimer.Thread::stop(onTimerThread ? 0 : 1, 0);
    return hadTimer;
}

void Timer::onTime(int timerId) {
    if (mListener != nullptr) {
        mListener->onTime(timerId);
    }
}

}  // namespace utl
