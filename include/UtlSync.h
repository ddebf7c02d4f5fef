// Locks and events of utl.
//
// `SyncObject` is the library's one lock: a recursive mutex, so a thread that holds it may call
// code that takes it again. `SyncGuard` holds a lock for the length of a scope. `Event` is a
// set/reset flag on which threads wait with a timeout in milliseconds.
//
//   utl::SyncObject lock;
//   {
//       utl::SyncGuard guard(lock);  // locked here
//       // ... touch the shared state ...
//   }                                // unlocked here
//
//   utl::Event done(0, utl::Event::ONE_WAY);
//   // worker thread: ... done.setOn();
//   if (done.waitToOn(500) == utl::Event::WAIT_TIMEOUT) { /* not within 500 ms */ }
#ifndef UTL_SYNC_H
#define UTL_SYNC_H

#include <pthread.h>

#include <cstdint>

// Annotations for clang's thread-safety analysis (-Wthread-safety), empty for other compilers.
// A lock type is a capability; a member that a lock guards names it with UTL_GUARDED_BY; a
// function that needs a lock held names it with UTL_REQUIRES.
#if defined(__clang__)
#define UTL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define UTL_THREAD_ANNOTATION(x)
#endif
#define UTL_CAPABILITY(name) UTL_THREAD_ANNOTATION(capability(name))
#define UTL_SCOPED_CAPABILITY UTL_THREAD_ANNOTATION(scoped_lockable)
#define UTL_GUARDED_BY(lock) UTL_THREAD_ANNOTATION(guarded_by(lock))
#define UTL_PT_GUARDED_BY(lock) UTL_THREAD_ANNOTATION(pt_guarded_by(lock))
#define UTL_REQUIRES(...) UTL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define UTL_EXCLUDES(...) UTL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define UTL_ACQUIRE(...) UTL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define UTL_RELEASE(...) UTL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define UTL_TRY_ACQUIRE(...) UTL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// For the lock primitives themselves, whose bodies the analysis cannot follow.
#define UTL_NO_THREAD_SAFETY_ANALYSIS UTL_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace utl {

class Event;

// Something that can be locked and unlocked. The operations are const so that a lock can be
// taken on a const object.
class UTL_CAPABILITY("mutex") SyncObjectBase {
  public:
    virtual ~SyncObjectBase() = default;
    // Blocks until this thread holds the lock.
    virtual void lock() const UTL_ACQUIRE() = 0;
    // Takes the lock if it is free (or already held by this thread); true when it was taken.
    virtual bool tryLock() const UTL_TRY_ACQUIRE(true) = 0;
    // Releases one hold of the lock.
    virtual void unlock() const UTL_RELEASE() = 0;
};

// A recursive POSIX mutex: the thread that holds it may lock it again and must unlock it as
// often. Any thread may use it; not copyable.
class SyncObject : public SyncObjectBase {
  public:
    SyncObject();
    ~SyncObject() override;

    SyncObject(const SyncObject&) = delete;
    SyncObject& operator=(const SyncObject&) = delete;

    void lock() const override UTL_ACQUIRE();
    bool tryLock() const override UTL_TRY_ACQUIRE(true);
    void unlock() const override UTL_RELEASE();

  private:
    // An event waits on its condition with the mutex of its own lock.
    friend class Event;

    mutable pthread_mutex_t mMutex;
};

// Locks a `SyncObjectBase` on construction and unlocks it on destruction.
class UTL_SCOPED_CAPABILITY SyncGuard {
  public:
    explicit SyncGuard(const SyncObjectBase& lock) UTL_ACQUIRE(lock) : mLock(lock) { mLock.lock(); }
    virtual ~SyncGuard() UTL_RELEASE() { mLock.unlock(); }

    SyncGuard(const SyncGuard&) = delete;
    SyncGuard& operator=(const SyncGuard&) = delete;

  private:
    const SyncObjectBase& mLock;
};

// A two-state event, set or reset, on which threads wait until it reaches a state.
//
// In one-way mode only the set state can be waited for; in two-way mode (mode `TWO_WAY`) the
// reset state too. `setOn` wakes every thread waiting for the set state, `setOff` in two-way mode
// every thread waiting for the reset state. Any thread may call any operation, concurrently;
// all state is read and written under the event's own lock. Not copyable.
//
//   state | setOn()          | setOff()                 | waitToOn(t) | waitToOff(t)
//   ------+------------------+--------------------------+-------------+---------------------
//   set   | stays set; wakes | reset; two-way: wakes    | 0 at once   | two-way: waits
//         | on-waiters       | off-waiters              |             | one-way: -1 at once
//   reset | set; wakes       | stays reset; two-way:    | waits       | two-way: 0 at once
//         | on-waiters       | wakes off-waiters        |             | one-way: -1 at once
//
// "waits": blocks until the state is reached (0), the timeout runs out (-2) or the condition
// wait fails (-1). In one-way mode the reset state is not kept apart: isOff() is !isOn().
//
// A wait that is woken without finding its state (the state was switched back before the waiter
// ran) logs a detail line under the library's log type and waits again for what is left of its
// timeout, the time spent logging included. The line is logged with the event's lock released,
// so a slow or stuck log output delays only that waiter, never `setOn`, `setOff` or `isOn`. That
// also makes those three safe inside an application's BinaryLogWrite (which runs under the log
// output lock); waiting there for an event that a logging thread sets is not: that thread waits
// for the output lock first.
//
// An unlimited wait (timeout 0) returns WAIT_OK after its first wake-up without testing the state
// again: callers that need the state must use a timeout.
class Event {
  public:
    static constexpr int WAIT_OK = 0;        // the state was reached (or an unlimited wait woke)
    static constexpr int WAIT_TIMEOUT = -2;  // the timeout ran out first
    static constexpr int WAIT_FAILED = -1;   // the condition wait failed, or waitToOff one-way

    static constexpr int ONE_WAY = 0;
    static constexpr int TWO_WAY = 1;  // any mode other than 1 is one-way

    // Set when `initialState` is nonzero, else reset. `mode` TWO_WAY makes the reset state
    // waitable.
    Event(int initialState, int mode);
    virtual ~Event();

    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    // Sets the event and wakes all threads in waitToOn. Does not block beyond the mutex.
    void setOn();
    // Resets the event; in two-way mode wakes all threads in waitToOff.
    void setOff();

    bool isOn() const;
    bool isOff() const;

    // Blocks until the event is set, at most `timeoutMsec` milliseconds (0: no limit). WAIT_OK,
    // WAIT_TIMEOUT or WAIT_FAILED. Timeouts above 2^31 - 1 ms count as negative and end the wait
    // at once with WAIT_TIMEOUT or WAIT_FAILED.
    int waitToOn(unsigned int timeoutMsec) const;
    // Blocks until the event is reset, with the same timeout rule and results as waitToOn. In
    // one-way mode WAIT_FAILED at once.
    int waitToOff(unsigned int timeoutMsec) const;

  private:
    // The wait of waitToOn (`forOn` true) or of waitToOff.
    int waitFor(bool forOn, unsigned int timeoutMsec) const UTL_EXCLUDES(mLock);
    bool hasState(bool on) const UTL_REQUIRES(mLock) { return on ? mOn : mOff; }
    uint32_t& waitersFor(bool on) const UTL_REQUIRES(mLock) {
        return on ? mOnWaiters : mOffWaiters;
    }
    pthread_cond_t& conditionFor(bool on) const { return on ? mOnCondition : mOffCondition; }
    // Logs the retry of a wait that woke without finding its state, with the lock released so
    // that a slow log output never holds up the threads that switch the event.
    void logRetry(bool forOn, unsigned int timeoutMsec, uint32_t waited, uint32_t remaining) const
        UTL_REQUIRES(mLock);
    // Destroys `condition` and initialises it again on the monotonic clock, so that each series
    // of waits starts on a fresh condition. Only while no thread waits on it.
    static void renewCondition(pthread_cond_t& condition);

    SyncObject mLock;  // Recursive.
    bool mOn UTL_GUARDED_BY(mLock);
    bool mOff UTL_GUARDED_BY(mLock);  // Maintained in two-way mode.
    mutable uint32_t mOnWaiters UTL_GUARDED_BY(mLock);
    mutable uint32_t mOffWaiters UTL_GUARDED_BY(mLock);
    mutable pthread_cond_t mOnCondition;   // Used with mLock.
    mutable pthread_cond_t mOffCondition;  // Used with mLock; initialised in two-way mode.
    const int32_t mMode;
};

}  // namespace utl

#endif  // UTL_SYNC_H
