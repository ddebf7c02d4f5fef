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

namespace utl {

// Something that can be locked and unlocked. The operations are const so that a lock can be
// taken on a const object.
class SyncObjectBase {
  public:
    virtual ~SyncObjectBase() = default;
    // Blocks until this thread holds the lock.
    virtual void lock() const = 0;
    // Takes the lock if it is free (or already held by this thread); true when it was taken.
    virtual bool tryLock() const = 0;
    // Releases one hold of the lock.
    virtual void unlock() const = 0;
};

// A recursive POSIX mutex: the thread that holds it may lock it again and must unlock it as
// often. Any thread may use it; not copyable.
class SyncObject : public SyncObjectBase {
  public:
    SyncObject();
    ~SyncObject() override;

    SyncObject(const SyncObject&) = delete;
    SyncObject& operator=(const SyncObject&) = delete;

    void lock() const override;
    bool tryLock() const override;
    void unlock() const override;

  private:
    mutable pthread_mutex_t mMutex;
};

// Locks a `SyncObjectBase` on construction and unlocks it on destruction.
class SyncGuard {
  public:
    explicit SyncGuard(const SyncObjectBase& lock) : mLock(lock) { mLock.lock(); }
    virtual ~SyncGuard() { mLock.unlock(); }

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
// all state is read and written under the event's own mutex. Not copyable.
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
// timeout. An unlimited wait (timeout 0) returns WAIT_OK after its first wake-up without testing
// the state again: callers that need the state must use a timeout.
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
    int waitFor(const bool& state, uint32_t& waiters, pthread_cond_t& condition,
                unsigned int timeoutMsec, const char* stateName) const;
    // Destroys `condition` and initialises it again on the monotonic clock, so that each series
    // of waits starts on a fresh condition. Only while no thread waits on it.
    static void renewCondition(pthread_cond_t& condition);

    bool mOn;                              // Guarded by mMutex.
    bool mOff;                             // Guarded by mMutex; maintained in two-way mode.
    mutable uint32_t mOnWaiters;           // Guarded by mMutex.
    mutable uint32_t mOffWaiters;          // Guarded by mMutex.
    mutable pthread_cond_t mOnCondition;   // Used with mMutex.
    mutable pthread_cond_t mOffCondition;  // Used with mMutex; initialised in two-way mode.
    mutable pthread_mutex_t mMutex;        // Recursive.
    const int32_t mMode;
};

}  // namespace utl

#endif  // UTL_SYNC_H
