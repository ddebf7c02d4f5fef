// Threads of utl: priorities, the runnable `Thread` and the process-wide thread registry.
//
// Every thread of the library and of its applications is started by `ThreadManager::entry`,
// which creates a POSIX thread with default attributes, lets the new thread set its own nice
// value, waits until it really runs and registers it under its kernel thread id. `Thread` is the
// base class of a runnable object with a fixed life cycle built on it: derive, override
// `execute()` (and optionally `preExecute`, `postExecute`, `requestStop`), then `start` it.
//
//   class Worker : public utl::Thread {
//     public:
//       Worker() : utl::Thread("worker", nullptr) {}
//       unsigned int execute() override { while (!hasRequestedStop()) { /* work */ } return 0; }
//   };
//   Worker worker;
//   worker.start(0, 0, nullptr, 1, 0, utl::ThreadPriority(utl::ThreadPriority::NORMAL), 0);
//   worker.stop(1, 1000);  // request the stop and wait up to 1 s for the end
//
// No thread is ever joined: a thread's handle is detached when its registry entry is released.
#ifndef UTL_THREAD_MANAGER_H
#define UTL_THREAD_MANAGER_H

#include <atomic>
#include <cstdint>

#include "UtlArray.h"
#include "UtlSmartPointer.h"
#include "UtlString.h"
#include "UtlSync.h"

namespace utl {

class StatementInfo;
class ThreadWatchdog;
class WatchdogTimerListener;

// A thread priority: one of seven labels mapped onto a nice value (the "OS value") for
// `setpriority`. 100 is the invalid OS value. A plain value type; not thread-safe.
//
//   label          index  OS value      label          index  OS value
//   TIME_CRITICAL  0      -4            BELOW_NORMAL   4      1
//   HIGH           1      -2            LOW            5      2
//   ABOVE_NORMAL   2      -1            IDLE           6      3
//   NORMAL         3      0             INVALID        >6     100
class ThreadPriority {
  public:
    enum Priority {
        TIME_CRITICAL = 0,
        HIGH = 1,
        ABOVE_NORMAL = 2,
        NORMAL = 3,
        BELOW_NORMAL = 4,
        LOW = 5,
        IDLE = 6,
        INVALID = 7
    };
    static constexpr int32_t INVALID_OS_VALUE = 100;

    // From a label index; an index above 6 (as an unsigned number) gives the invalid OS value.
    explicit ThreadPriority(int label = NORMAL);
    virtual ~ThreadPriority() = default;
    ThreadPriority(const ThreadPriority&) = default;
    ThreadPriority& operator=(const ThreadPriority&) = default;

    // Sets the OS value from a label index, as the constructor does.
    void value(int label);
    ThreadPriority& operator=(Priority label);
    // The label of the OS value: below -3 gives 0, -3 and -2 give 1, -1 to 3 give 2 to 6;
    // anything else -1.
    int value() const;

    // Sets the nice value directly.
    void OsValue(int osValue) { mOsValue = osValue; }
    int OsValue() const { return mOsValue; }

    // The label's name ("NORMAL", ...) for the registry print; "INVALID" for any other value.
    const char* label() const;

    bool operator==(const ThreadPriority& other) const { return mOsValue == other.mOsValue; }
    bool operator!=(const ThreadPriority& other) const { return mOsValue != other.mOsValue; }

  private:
    int32_t mOsValue;
};

// Work that a `Thread` runs when its `execute()` is not overridden.
class Command {
  public:
    virtual ~Command() = default;
    // Runs the work; the result becomes the thread's result.
    virtual unsigned int execute() = 0;
};

// A runnable object with a fixed life cycle, started once through `ThreadManager::entry`.
//
// The new thread runs `preExecute()`, then `execute()` (by default the command's `execute`, or
// -1 without a command), then `postExecute()`. Four events mark the life cycle: 0 started (set by
// `start` once the thread is registered), 1 pre-executed, 2 stop requested, 3 finished.
//
//   state          | start()          | stop(mode, t)                      | waitTo(i, t)
//   ---------------+------------------+------------------------------------+---------------------
//   constructed    | starts; 0 or -1  | -1                                 | 0, 1: wait; 2, 3: -1
//   running        | -1               | requestStop(); mode 1 waits for 3  | waits for event i
//   finished       | -1               | -1                                 | 0 at once
//
// `start` and `stop` may be called from any thread (they are serialised by the thread's lock),
// `waitTo`, `hasDone`, `isRunning` too. The object must outlive its thread; its destructor takes
// a finished thread out of the registry (`leaveManagement`), so that its handle is detached.
class Thread {
  public:
    Thread(const char* name, Command* command);
    virtual ~Thread();

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts the thread through `ThreadManager::entry` with the watchdog switch (1 = watched),
    // alive time and listener, the priority and the reserved number (see `entry`). With
    // `waitMode` 1 it then waits up to `waitTimeout` ms (0: no limit) until `preExecute` has
    // returned and gives that wait's result (0, -2 timed out); otherwise 0. -1 when the thread
    // was started before or the manager could not start it.
    int start(int watchdog = 0, unsigned int aliveTime = 0,
              WatchdogTimerListener* listener = nullptr, int waitMode = 0,
              unsigned int waitTimeout = 0,
              const ThreadPriority& priority = ThreadPriority(ThreadPriority::NORMAL),
              unsigned int reserved = 0);
    // Requests the stop: unregisters the thread from the watchdog, sets event 2 and calls
    // `requestStop()`. With `waitMode` 1 it then waits up to `timeout` ms (0: no limit) for the
    // end and gives that wait's result; otherwise 0. -1 when the thread has not started or has
    // finished.
    int stop(int waitMode = 0, unsigned int timeout = 0);
    // Waits up to `timeout` ms (0: no limit) until event `index` is set; for 3 after the start,
    // until the thread has left its function. 0 reached, -2 timed out, -1 for an index outside
    // 0 to 3 and, before the start, for 2 and 3.
    int waitTo(int index, unsigned int timeout) const;
    // Whether event `index` is set; for 3 also that the thread no longer runs. False for an
    // index outside 0 to 3.
    bool hasDone(int index) const;
    bool hasRequestedStop() const { return mStopRequested.load(std::memory_order_acquire); }
    // Whether the manager still sees the thread running (`ThreadManager::isActive`).
    bool isRunning() const;
    // Stores the result of `execute()` when the thread has finished; false otherwise or for a
    // null `out`.
    bool getResult(unsigned int* out) const;
    // The kernel thread id; 0 before the start.
    int getId() const { return mId.load(std::memory_order_relaxed); }
    const char* getName() const { return mName.c_str(); }
    // `ThreadManager::setPriority`/`getPriority` with this thread's id: only the thread itself
    // may change its priority.
    bool setPriority(const ThreadPriority& priority);
    bool getPriority(ThreadPriority* priority) const;
    // Takes the finished thread out of the registry (`ThreadManager::unregister`); false while it
    // runs or when it is not registered.
    bool leaveManagement();

    // The watchdog operations of `ThreadManager` with this thread's id.
    bool startWatchdog();
    bool stopWatchdog();
    bool setWatchdogAliveTime(unsigned int aliveTime);
    bool keepAliveWatchdog(const StatementInfo& statement);

    // Sleeps `msec` milliseconds in the calling thread; a sleep interrupted by a signal goes on
    // for the rest of the time. 0, or -1 when nanosleep fails otherwise.
    static int sleep(unsigned int msec);

    // The life-cycle steps, run in the new thread in this order; derived classes override them.
    virtual void preExecute() {}
    // The thread's work; its result is stored for `getResult`.
    virtual unsigned int execute();
    virtual void postExecute() {}
    // Called by `stop` after event 2 is set: tell the work to end.
    virtual void requestStop() {}

  private:
    static constexpr int STARTED = 0;
    static constexpr int PRE_EXECUTED = 1;
    static constexpr int STOP_REQUESTED = 2;
    static constexpr int FINISHED = 3;
    static constexpr int EVENT_COUNT = 4;

    // The body of the new thread; `cell` holds the Thread*.
    static void startImpl(void* cell);

    Command* mCommand;
    std::atomic<int32_t> mId;  // Stored by the new thread first, and by start().
    BasicString<char> mName;
    Event mEvents[EVENT_COUNT];
    // Set by stop() just before event 2: message loops test it for every message.
    std::atomic<bool> mStopRequested;
    SyncObject mLock;  // Serialises start and stop.
    uint32_t mResult;  // Written by the thread before event 3 is set.
};

// The process-wide registry of threads, and the thread watchdog's front door.
//
// One object (`get()`) serves the process; all operations may be called from any thread. The
// registry maps kernel thread ids in ascending order to entries (name, priority, handle, state);
// an entry stays after its thread has ended, marked "INACTIVE", until `unregister` removes it.
// The registry lock is held by `entry` across `pthread_create` and the wait for the new thread's
// start, and is never held while logging or calling the watchdog.
//
// The watchdog: the manager owns a `ThreadWatchdog` (UtlThreadWatchdog.h). It is initialised on
// first need: by the first `setWatchdogWatchInterval(ms)` with that interval, or by the first
// watched `entry` (or `entryWatchdog`) with a watch interval of DEFAULT_WATCH_INTERVAL ms. Until
// then reports and start/stop requests return false and cost only a check.
class ThreadManager {
  public:
    // How many threads the registry holds when `initializeEntryMax` was not called.
    static constexpr unsigned int DEFAULT_ENTRY_MAX = 256;
    // The watchdog's watch interval when a watched thread initialises it.
    static constexpr unsigned int DEFAULT_WATCH_INTERVAL = 100;

    // Disposal policy of a registry entry's thread handle: detaches the thread (`pthread_detach`,
    // bracketed by liveness reports) and frees the heap-held handle; a handle of 0 is left alone.
    struct DetachThread {
        virtual ~DetachThread() = default;
        void operator()(unsigned long* handle) const;
    };

    // One registered thread. Copies share the handle, the name and the thread's state, so a
    // copy taken under the registry lock can be waited on or marked ended after its release.
    class ThreadEntry {
      public:
        ThreadEntry();
        ThreadEntry(unsigned long handle, const char* name, const ThreadPriority& priority);
        virtual ~ThreadEntry() = default;
        ThreadEntry(const ThreadEntry&) = default;
        ThreadEntry& operator=(const ThreadEntry&) = default;

        // Marks the thread ended and releases `waitToStop` waiters.
        void toStop();
        // Waits up to `timeout` ms (0: no limit) for the end: 0, -2 timed out, -1 failed.
        int waitToStop(unsigned int timeout) const;
        bool isActive() const;
        // Whether the thread can still be acted on: it runs and has a handle.
        bool isControllable() const;
        // Lets go of the handle; the last holder detaches the thread.
        void detach() { mHandle.release(); }
        // A copy that shares the state but not the handle, so that letting it go never detaches.
        ThreadEntry withoutHandle() const {
            ThreadEntry copy(*this);
            copy.mHandle.release();
            return copy;
        }

        const char* getName() const;
        const ThreadPriority& getPriority() const { return mPriority; }
        void setPriority(const ThreadPriority& priority) { mPriority = priority; }

      private:
        struct Shared {
            Shared(const char* name)
                : mStopped(0, Event::ONE_WAY), mActive(true), mName(name, 0, 1) {}
            Event mStopped;  // Set once the thread's function has returned.
            std::atomic<bool> mActive;
            BasicString<char> mName;
        };

        CountingPointer<unsigned long, DetachThread> mHandle;
        SmartPointer<Shared> mShared;
        ThreadPriority mPriority;
    };

    // Prefer `get()`: a manager made directly has its own registry and watchdog, holding at
    // most `entryMax` threads.
    explicit ThreadManager(unsigned int entryMax);
    virtual ~ThreadManager();

    ThreadManager(const ThreadManager&) = delete;
    ThreadManager& operator=(const ThreadManager&) = delete;

    // The process-wide manager, made on first use.
    static ThreadManager* get();
    // The process-wide manager, or null when it has not been made.
    static ThreadManager* getIfCreated();
    // Deletes the process-wide manager (its watchdog is shut down first); the next `get()`
    // makes a new one. Only when no other thread uses it.
    static void destroy();
    // Sets how many threads the process-wide registry holds: before it is made, its capacity;
    // afterwards the new limit when it is not below the number of threads registered (false
    // otherwise).
    static bool initializeEntryMax(unsigned int entryMax);
    // The kernel thread id of the calling thread.
    static int getCallerId();

    // Starts `function(argument)` on a new thread named `name` that first sets its own nice
    // value to `priority`. Blocks until the thread runs and is registered; with `watchdog` 1 it
    // is then registered with the watchdog (alive time in ms, listener). `reserved` is accepted
    // for interface compatibility and has no effect: threads are always created with the default
    // POSIX attributes (default stack size, joinable until detached by the registry). Returns the
    // kernel thread id, or 0 when `function` or `name` is null, the registry is full, or the
    // thread cannot be created or registered.
    int entry(void (*function)(void*), void* argument, int watchdog, unsigned int aliveTime,
              WatchdogTimerListener* listener, const char* name, const ThreadPriority& priority,
              unsigned int reserved);

    // Sets the nice value of the calling thread, which must be the registered, running thread
    // `id`; false for any other id, an invalid priority, or a failed `setpriority` (logged).
    bool setPriority(int id, const ThreadPriority& priority);
    // The registered priority of `id`; false when it is not registered or `out` is null.
    bool getPriority(int id, ThreadPriority* out) const;
    // Waits up to `timeout` ms (0: no limit) until thread `id` has left its function: 0, -2 timed
    // out, -1 when `id` is not registered.
    int waitToStop(int id, unsigned int timeout) const;
    // Whether `id` is registered (running or ended).
    bool isThreadExist(int id) const;
    // Whether `id` is registered and its function has not returned.
    bool isThreadActive(int id) const;
    // As isThreadActive, and the kernel still has the thread (one that left by pthread_exit
    // without returning is not active).
    bool isActive(int id) const;
    // The registered name of `id`, or the empty text.
    BasicString<char> findName(int id) const;
    // The registered name of `id`, or "" when it is not registered. The text lives as long as
    // the registry entry; prefer `findName` when the thread may be unregistered meanwhile.
    const char* getName(int id) const;
    // Removes the entry of an ended thread (detaching its handle); false when `id` is not
    // registered or its thread still runs.
    bool unregister(int id);
    // From now on, each registration logs "Thread Start and Register ..." at information level.
    void enableRegistrationLog();
    // Logs the registry at `level`: a header line and one row per thread in id order.
    void printThreadInfoReg(int level) const;

    // The watchdog operations, forwarded to the manager's `ThreadWatchdog` (see the class
    // comment for when it is initialised). False when the watchdog refuses or is not running.
    bool entryWatchdog(int id, unsigned int aliveTime, WatchdogTimerListener* listener,
                       const char* name);
    bool unregisterWatchdog(int id);
    bool isRegisteredWatchdog(int id);
    bool isWatchingWatchdog(int id);
    // Initialises the watchdog with this interval, or changes the interval of a running one.
    bool setWatchdogWatchInterval(unsigned int interval);
    bool setWatchdogAliveTime(int id, unsigned int aliveTime);
    bool startWatchdog(int id);
    bool stopWatchdog(int id);
    // Reports that the calling thread is alive at `statement`; ignored for unwatched threads.
    bool keepAliveWatchdog(const StatementInfo& statement);
    void printWatchdogInfo(int level);
    // The manager's watchdog; null only when it could not be allocated.
    ThreadWatchdog* getWatchdog() { return mWatchdog; }

  private:
    struct StartRecord;

    // First code of every new thread: priority, id, start signal, then the function.
    static void* startThread(void* record);
    // Marks the calling thread's entry ended once its function has returned.
    void markStopped(int id);
    // Initialises the watchdog with `interval` unless it runs already; whether it runs.
    bool ensureWatchdog(unsigned int interval);
    bool registerEntry(int id, const ThreadEntry& entry) UTL_REQUIRES(mLock);

    SyncObject mLock;
    Event mStartEvent;
    Map<int, ThreadEntry> mRegistry UTL_GUARDED_BY(mLock);
    uint32_t mEntryMax UTL_GUARDED_BY(mLock);
    bool mRegistrationLog UTL_GUARDED_BY(mLock);
    ThreadWatchdog* mWatchdog;
};

}  // namespace utl

#endif  // UTL_THREAD_MANAGER_H
