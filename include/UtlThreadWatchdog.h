// The thread watchdog of utl: notices threads that stop reporting that they are alive.
//
// A watched thread has an alive time in milliseconds and proves that it is alive by reporting
// statements (`StatementInfo`: source, function, line, sub-step) through
// `ThreadManager::keepAliveWatchdog`. The watchdog's own message thread, "Watchdog Thread", wakes
// on its timer and declares a timeout for each watched thread whose last report is older than
// its alive time: the error line "!!!!!!!! ThreadWatchdog Timeout ID:<id> Name:<name> !!!!!!!!"
// is logged and the thread's `WatchdogTimerListener` called, once until the thread reports
// again ("ThreadWatchdog Timeout->Alive ...").
//
//   utl::ThreadManager* manager = utl::ThreadManager::get();
//   manager->setWatchdogWatchInterval(100);             // scan every 100 ms
//   worker.start(1, 500, nullptr);                       // watched, alive time 500 ms
//   // in the worker, around anything that may block long:
//   manager->keepAliveWatchdog(utl::StatementInfo(__FILE__, __func__, __LINE__, 1));
//
// Library code brackets each blocking call with two reports (sub-step 1 before, 2 after), and a
// message thread idle in its read is not watched meanwhile, so only a thread that hangs in its
// own code times out.
#ifndef UTL_THREAD_WATCHDOG_H
#define UTL_THREAD_WATCHDOG_H

#include <atomic>
#include <cstdint>

#include "UtlArray.h"
#include "UtlMsgDrivenThread.h"
#include "UtlString.h"
#include "UtlSync.h"
#include "UtlThreadManager.h"

namespace utl {

// Where a liveness report was made: source file, function, line and sub-step (1 before a
// blocking call, 2 after it). Holds the two texts by pointer: they must outlive the report's use
// in the watchdog table (string literals, __FILE__ and __func__ do). A plain value type.
class StatementInfo {
  public:
    StatementInfo() : mFile(""), mFunction(""), mLine(0), mSub(0) {}
    StatementInfo(const char* file, const char* function, unsigned int line, unsigned int sub)
        : mFile(file != nullptr ? file : ""),
          mFunction(function != nullptr ? function : ""),
          mLine(line),
          mSub(sub) {}
    virtual ~StatementInfo() = default;
    StatementInfo(const StatementInfo&) = default;
    StatementInfo& operator=(const StatementInfo&) = default;

    // Equal when all four parts are (the texts by content).
    bool operator==(const StatementInfo& other) const;
    bool operator!=(const StatementInfo& other) const { return !(*this == other); }

    const char* getFile() const { return mFile; }
    const char* getFunction() const { return mFunction; }
    uint32_t getLine() const { return mLine; }
    uint32_t getSub() const { return mSub; }

  private:
    const char* mFile;
    const char* mFunction;
    uint32_t mLine;
    uint32_t mSub;
};

// The watchdog's record of one watched thread. A plain value type.
class WatchdogInfo {
  public:
    static constexpr int32_t STATUS_UNKNOWN = 0;  // never reported
    static constexpr int32_t STATUS_ALIVE = 1;
    static constexpr int32_t STATUS_TIMEOUT = 2;
    static constexpr uint32_t TICK_UNSET = ~0u;

    WatchdogInfo();
    WatchdogInfo(int id, unsigned int aliveTime, WatchdogTimerListener* listener, const char* name);
    virtual ~WatchdogInfo() = default;
    WatchdogInfo(const WatchdogInfo&) = default;
    WatchdogInfo& operator=(const WatchdogInfo&) = default;

    int32_t mId;
    uint32_t mAliveTime;  // Milliseconds.
    WatchdogTimerListener* mListener;
    uint32_t mLastAliveTick;  // TimeCounter::getTickTime() of the last report; TICK_UNSET.
    int32_t mStopped;         // 1: not watching.
    int32_t mStatus;
    uint32_t mTimeoutCount;
    StatementInfo mLastStatement;
    BasicString<char> mName;
};

// The watchdog table: thread id to record, in id order.
using WatchdogInfoMap = Map<int, WatchdogInfo>;

// Receives the timeouts of the threads it was registered for.
class WatchdogTimerListener {
  public:
    virtual ~WatchdogTimerListener() = default;
    // Called in the watchdog thread, with no lock held, when thread `id` timed out; `table` is a
    // snapshot of the whole watchdog table.
    virtual void onTime(int id, const WatchdogInfoMap& table) = 0;
};

// Watches registered threads for liveness; normally used through `ThreadManager`.
//
//   state        | entry/unregister/is*  | start/stop/setAliveTime/keepAlive | initialize
//   -------------+-----------------------+-----------------------------------+-------------
//   constructed  | work on the table     | false, nothing done               | true
//   initialised  | work on the table     | work                              | false
//   shut down    | work on the table     | work (no scans run)               | false
//
// Every operation may be called from any thread. The table is guarded by one lock, which is
// released before logging and before a listener is called.
class ThreadWatchdog : public ThreadMsgListener {
  public:
    // Prints the table at information level (the listener of threads registered without one).
    class DefaultTimerListener : public WatchdogTimerListener {
      public:
        void onTime(int id, const WatchdogInfoMap& table) override;
    };

    // A table for `entryMax` threads; the watchdog thread is made but not started.
    explicit ThreadWatchdog(unsigned int entryMax);
    ~ThreadWatchdog() override;

    ThreadWatchdog(const ThreadWatchdog&) = delete;
    ThreadWatchdog& operator=(const ThreadWatchdog&) = delete;

    // Starts the watchdog thread and its timer scanning every `interval` ms. Once only; false
    // on a second call or when the thread or the timer cannot be started.
    bool initialize(unsigned int interval);
    bool isInitialized() const { return mInitialized.load(std::memory_order_acquire); }
    // Registers thread `id` (watching, status unknown). False, logged, for an alive time of 0
    // or a full table; an id already registered is overwritten.
    bool entry(int id, unsigned int aliveTime, WatchdogTimerListener* listener, const char* name);
    bool unregister(int id);
    bool isRegistered(int id) const;
    // Registered and not stopped.
    bool isWatching(int id) const;
    // Watches `id` again; its clock restarts only when it was unset. False before `initialize`
    // or for an unregistered id.
    bool start(int id);
    // Stops watching `id` (no timeouts) until `start`.
    bool stop(int id);
    // Changes the alive time (0 is refused, logged) and restarts the clock of a watching entry.
    bool setAliveTime(int id, unsigned int aliveTime);
    // Records a report of the calling thread: status alive, clock restarted, "Timeout->Alive"
    // logged after a timeout. Ignored (false) for unregistered or stopped callers, and for a
    // report made while the same thread's previous one is still being handled.
    bool keepAlive(const StatementInfo& statement);
    // Re-arms the scan timer with a new period; false before `initialize` or after `shutdown`.
    bool setWatchInterval(unsigned int interval);
    // Stops the scan timer and the watchdog thread; the table stays. Blocks until the thread
    // has ended.
    void shutdown();
    // Logs the table at `level`: a title, a header and one row per thread.
    void printWatchdogInfo(int level) const;

    // The scan, run for each of the watchdog thread's timer messages.
    void receiveMsg(int threadId, ThreadRawMsg& msg) override;

  private:
    // Applies `change` to the entry of `id` under the lock; false before `initialize` or for an
    // unregistered id.
    template <class Change>
    bool changeEntry(int id, Change change);
    void watchThreads();
    // The first watching entry that has expired at `now` and is not in timeout yet; 0 if none.
    int findExpired(uint32_t now) const;
    void timeout(int id);
    bool snapshot(WatchdogInfoMap* out) const;

    MsgDrivenThread mThread;
    SyncObject mControlLock;        // Serialises initialize, setWatchInterval and shutdown.
    std::atomic<int32_t> mTimerId;  // Written under mControlLock; -1 when none.
    std::atomic<bool> mInitialized;
    SyncObject mLock;
    WatchdogInfoMap mTable UTL_GUARDED_BY(mLock);
    DefaultTimerListener mDefaultListener;
};

}  // namespace utl

#endif  // UTL_THREAD_WATCHDOG_H
