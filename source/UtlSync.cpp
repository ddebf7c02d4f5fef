#include "UtlSync.h"

#include <cerrno>
#include <ctime>

#include "UtlLibraryLog.h"
#include "UtlTimeCounter.h"

namespace {

void initMonotonicCondition(pthread_cond_t& condition) {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

void initRecursiveMutex(pthread_mutex_t& mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

// One timed wait on `condition` until `msec` milliseconds from now on the monotonic clock.
// The milliseconds are divided as a signed 32-bit number, so that a timeout above 2^31 - 1 ms
// gives a deadline in the past (or an invalid one) and the wait ends at once.
int waitMsec(pthread_cond_t& condition, pthread_mutex_t& mutex, uint32_t msec) {
    timespec deadline = {};
    if (clock_gettime(CLOCK_MONOTONIC, &deadline) != 0) {
        return utl::Event::WAIT_FAILED;
    }
    const int32_t signedMsec = static_cast<int32_t>(msec);
    deadline.tv_sec += signedMsec / 1000;
    deadline.tv_nsec += static_cast<long>(signedMsec % 1000) * 1000000L;
    if (deadline.tv_nsec > 999999999L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    const int result = pthread_cond_timedwait(&condition, &mutex, &deadline);
    if (result == 0) {
        return utl::Event::WAIT_OK;
    }
    return result == ETIMEDOUT ? utl::Event::WAIT_TIMEOUT : utl::Event::WAIT_FAILED;
}

}  // namespace

namespace utl {

SyncObject::SyncObject() {
    initRecursiveMutex(mMutex);
}

SyncObject::~SyncObject() {
    pthread_mutex_destroy(&mMutex);
}

void SyncObject::lock() const UTL_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&mMutex);
}

bool SyncObject::tryLock() const UTL_NO_THREAD_SAFETY_ANALYSIS {
    return pthread_mutex_trylock(&mMutex) == 0;
}

void SyncObject::unlock() const UTL_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&mMutex);
}

Event::Event(int initialState, int mode)
    : mOn(initialState != 0), mOff(initialState == 0), mOnWaiters(0), mOffWaiters(0), mMode(mode) {
    initMonotonicCondition(mOnCondition);
    if (mMode == TWO_WAY) {
        initMonotonicCondition(mOffCondition);
    }
}

Event::~Event() {
    pthread_cond_destroy(&mOnCondition);
    if (mMode == TWO_WAY) {
        pthread_cond_destroy(&mOffCondition);
    }
}

void Event::setOn() {
    SyncGuard guard(mLock);
    mOn = true;
    if (mMode == TWO_WAY) {
        mOff = false;
    }
    // Broadcast under the lock: a waiter that leaves last renews the condition, which must not
    // happen while a broadcast on it is still under way.
    pthread_cond_broadcast(&mOnCondition);
}

void Event::setOff() {
    SyncGuard guard(mLock);
    mOn = false;
    if (mMode == TWO_WAY) {
        mOff = true;
        pthread_cond_broadcast(&mOffCondition);
    }
}

bool Event::isOn() const {
    SyncGuard guard(mLock);
    return mOn;
}

bool Event::isOff() const {
    SyncGuard guard(mLock);
    return !mOn;
}

int Event::waitToOn(unsigned int timeoutMsec) const {
    return waitFor(true, timeoutMsec);
}

int Event::waitToOff(unsigned int timeoutMsec) const {
    if (mMode != TWO_WAY) {
        return WAIT_FAILED;
    }
    return waitFor(false, timeoutMsec);
}

int Event::waitFor(bool forOn, unsigned int timeoutMsec) const {
    SyncGuard guard(mLock);
    uint32_t& waiters = waitersFor(forOn);
    pthread_cond_t& condition = conditionFor(forOn);
    const uint32_t before = waiters++;
    if (hasState(forOn)) {
        waiters = before;
        if (before == 0) {
            renewCondition(condition);
        }
        return WAIT_OK;
    }

    int status = WAIT_OK;
    if (timeoutMsec == 0) {
        // An unlimited wait ends with its first wake-up, whatever the state then is.
        status = pthread_cond_wait(&condition, &mLock.mMutex) == 0 ? WAIT_OK : WAIT_FAILED;
    } else {
        // A wake-up may find the state switched back already (set and reset again before this
        // thread ran); the wait then goes on for what is left of the timeout, never longer. The
        // time spent logging that counts as waited.
        uint32_t remaining = timeoutMsec;
        TimeCounter counter;
        for (;;) {
            counter.start();
            status = waitMsec(condition, mLock.mMutex, remaining);
            if (status != WAIT_OK || hasState(forOn)) {
                break;
            }
            const uint32_t waited = counter.watch();
            if (remaining > waited) {
                logRetry(forOn, timeoutMsec, waited, remaining - waited);
            }
            const uint32_t spent = counter.stop();
            if (hasState(forOn)) {
                break;
            }
            if (remaining <= spent) {
                status = WAIT_TIMEOUT;
                break;
            }
            remaining -= spent;
        }
    }

    const uint32_t present = waiters;
    waiters = present - 1;
    if (hasState(forOn) && present == 1) {
        renewCondition(condition);
    }
    return status;
}

void Event::logRetry(bool forOn, unsigned int timeoutMsec, uint32_t waited,
                     uint32_t remaining) const {
    mLock.unlock();
    UTL_LOG(LEVEL_DETAIL,
            "Wait OK, but Status(%s)=false.  Timeout=%umsec Waited=%umsec Retry wait %umsec after",
            forOn ? "mOn" : "mOff", timeoutMsec, waited, remaining);
    mLock.lock();
}

// static
void Event::renewCondition(pthread_cond_t& condition) {
    pthread_cond_destroy(&condition);
    initMonotonicCondition(condition);
}

}  // namespace utl
