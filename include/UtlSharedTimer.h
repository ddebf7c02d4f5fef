// Timer threads of utl: one thread that runs many timers and calls their listeners.
//
// A `SharedTimer` is a thread, started by its constructor, that owns any number of timers (up to
// a count fixed at construction) and calls each timer's `TimerListener::onTime` in its own
// thread when the timer expires. Timers are POSIX timers on the monotonic clock; their expiry
// signal (SIGRTMIN + 1) only writes a token into the thread's pipe. `Timer` is the one-timer
// convenience: an object with its own `SharedTimer`.
//
//   class Blink : public utl::TimerListener {
//       void onTime(int timerId) override { /* toggle the LED */ }
//   };
//   utl::SharedTimer timers(0, 0, nullptr, 8, "timers");  // unwatched, up to 8 timers
//   int fast = timers.addTimer(&blink, 100, 0, 1);        // every 100 ms, created stopped
//   timers.start(fast, 0);                                // returns once it runs
//   utl::Timer once(&blink, 500, 0, 0, nullptr, 1, 0, "once");  // one expiry after 500 ms
//   once.start(0);
#ifndef UTL_SHARED_TIMER_H
#define UTL_SHARED_TIMER_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "UtlArray.h"
#include "UtlLog.h"
#include "UtlMsgDrivenThread.h"
#include "UtlQueue.h"
#include "UtlSync.h"
#include "UtlThreadManager.h"

namespace utl {

class WatchdogTimerListener;

// The receiver of a timer's expiries.
class TimerListener {
  public:
    virtual ~TimerListener() = default;
    // Called in the timer thread for each expiry of timer `timerId`, with no lock of the thread
    // held. It may call `start`, `stop`, `restart`, `setInterval` and `eraseTimer` of its own
    // `SharedTimer` (from here they never wait; see there), and must not destroy that object.
    virtual void onTime(int timerId) = 0;
};

// A thread that runs timers for listeners.
//
// Every operation may be called from any thread. `start`, `stop`, `restart`, `eraseTimer` and the
// "all" forms go to the timer thread as control messages in one queue of 256, in the order they
// are made; with the no-wait flag 0 the caller blocks until the thread has handled its message
// (callers that wait are serialised by the control lock). The timer table and the queue are
// guarded by the table lock, which is never held while a listener runs.
//
// Called from inside `onTime` (the timer thread itself), those operations never take the control
// lock and never wait, whatever the flag: they are carried out at once and return their outcome,
// unless a message for the same timer is still queued, in which case theirs is queued behind it
// (and the result says whether it was queued). A timer's requests so take effect in the order
// they were made. (A wait there would wait for its own thread, and the control lock may be held
// by another caller that waits for this thread.)
//
//   state            | addTimer  | start, restart, erase  | stop      | setInterval, getInterval,
//                    |           |                        |           | isRunning
//   -----------------+-----------+------------------------+-----------+--------------------------
//   running          | id or -1  | as documented below    | as below  | as documented below
//   thread ended or  | -1        | false (a caller still  | true      | work on the table; no
//   never started    |           | waiting gets false)    |           | timer runs
//
// The thread ends when its object is destroyed (or through `Thread::stop`); it is not started
// when the pipe cannot be made or the thread manager refuses it. The destructor stops the thread
// and waits for its end, so that no listener is called afterwards; it must not run on the timer
// thread itself (inside `onTime`). A class derived from SharedTimer must stop the thread in its
// own destructor (`Thread::stop(1, 0)`), so that `onTime` never runs on a half-destroyed object;
// its constructor runs while the thread already waits for work.
//
// A timer expires first `interval` ms after it is started and then every `interval` ms. While the
// thread is busy, a timer keeps at most one expiry queued (two when run-on); further signals are
// dropped. A run-on timer keeps its POSIX timer running between expiries; any other timer is
// armed afresh after each delivered expiry, so its period counts from the delivery. A timer with
// a count limit stops by itself after that many expiries, and stays registered: `start` runs it
// again from a count of 0. A stop drops the timer's expiries that are still queued, so once
// `stop(id, 0)` has returned (or `stop` was called inside `onTime`) the timer's listener is not
// called again until the next start.
class SharedTimer : public Thread {
  public:
    // Control ids of the timer thread; the same 8 bytes as a control entry are the pipe token.
    static constexpr int MSG_ID_NONE = static_cast<int>(0x80000000);
    static constexpr int MSG_ID_START_TIMER = static_cast<int>(0x80000004);
    static constexpr int MSG_ID_STOP_TIMER = static_cast<int>(0x80000005);
    static constexpr int MSG_ID_ERASE_TIMER = static_cast<int>(0x80000006);
    static constexpr int MSG_ID_TIMEOUT = static_cast<int>(0x80000007);
    static constexpr int MSG_ID_STOP = static_cast<int>(0x80000008);
    static constexpr int MSG_ID_TIMER_SIGNAL = static_cast<int>(0x80000013);

    static constexpr unsigned int CTL_QUEUE_SIZE = 256;
    // getInterval of an unknown timer.
    static constexpr unsigned int UNKNOWN_INTERVAL = 0xFFFFFFFFu;

    // A control message: message id and parameter (a timer id, or -1).
    struct TimerCtlMsg {
        TimerCtlMsg() : mMsgId(MSG_ID_NONE), mParam(-1) {}
        TimerCtlMsg(int id, int param) : mMsgId(id), mParam(param) {}
        virtual ~TimerCtlMsg() = default;
        TimerCtlMsg(const TimerCtlMsg&) = default;
        TimerCtlMsg& operator=(const TimerCtlMsg&) = default;

        int32_t mMsgId;
        int32_t mParam;
    };

    // Makes the thread and starts it at once with `Thread::start(watchdog, aliveTime,
    // watchdogListener, 1, 0, NORMAL, 0)`, for up to `maxTimerCount` timers. A pipe that cannot
    // be made is logged and the thread is then not started.
    SharedTimer(int watchdog, unsigned int aliveTime, WatchdogTimerListener* watchdogListener,
                unsigned int maxTimerCount, const char* name);
    // Stops the thread and waits for its end (not from the timer thread; see the class comment).
    ~SharedTimer() override;

    // Registers a stopped timer of `interval` ms (1 ... 2147483647) for `listener` (may be null:
    // then only a derived `onTime` sees it) that stops by itself after `countLimit` expiries
    // (0: never); `runOn` non-zero keeps the POSIX timer running between expiries. The new
    // timer id (1 ... 2147483647, round-robin), or -1 when the thread does not run, the interval
    // is out of range, the table is full or no memory is left.
    int addTimer(TimerListener* listener, unsigned int interval, unsigned int countLimit,
                 int runOn);
    // Erases timer `timerId` (stopping it first); with `noWait` 0 blocks until that is done.
    // False for an unknown timer or when the message cannot be queued.
    bool eraseTimer(int timerId, int noWait);

    // Starts timer `timerId`; with `noWait` 0 blocks until the thread has armed it. True at once,
    // without a message, when it runs already (or a start is queued after any stop); false for
    // an unknown timer, when the message cannot be queued, or (after the wait) when the timer
    // could not be armed.
    bool start(int timerId, int noWait);
    // Stops timer `timerId`; with `noWait` 0 blocks until the thread has stopped it. True at
    // once when it is stopped already (or a stop is queued after any start); false for an
    // unknown timer or when the message cannot be queued.
    bool stop(int timerId, int noWait);
    // Stops timer `timerId` when it runs, then starts it: its first expiry comes one interval
    // after the restart, its count from 0. False for an unknown timer, else as `start`.
    bool restart(int timerId, int noWait);
    // start, stop or restart of every registered timer; true when each succeeded.
    bool startAll(int noWait);
    bool stopAll(int noWait);
    bool restartAll(int noWait);
    // Copies the ids of all registered timers, ascending, into `out` (emptied first). False when
    // `out` is null or cannot hold them.
    bool getTimerIdSet(Array<int>* out) const;

    // Sets the interval of timer `timerId` to `interval` ms (1 ... 2147483647). It takes effect
    // when the timer is next armed: at its next start, or from the next expiry of a running
    // timer on. False for an unknown timer or an interval out of range.
    bool setInterval(int timerId, unsigned int interval);
    // The interval in ms, or UNKNOWN_INTERVAL for an unknown timer.
    unsigned int getInterval(int timerId) const;
    // Whether timer `timerId` runs; false for an unknown timer.
    bool isRunning(int timerId) const;
    using Thread::isRunning;

    // Queues the stop message {MSG_ID_STOP, -1}; called by `Thread::stop`.
    void requestStop() override;
    // Queues the control message {msgId, param} and writes its token. False, without a log, when
    // the queue is full or the thread has ended; false, logged, when the token cannot be written
    // (the entry then stays queued and is handled at a later wake-up).
    bool postTimerCtlMsg(int msgId, int param);
    // Called in the timer thread for each delivered expiry: looks up the timer's listener and
    // calls it with no lock held; nothing for an unknown timer or a null listener. A derived
    // class may override it to see every expiry.
    virtual void onTime(int timerId);

  protected:
    // The loop; its result -1 when the pipe cannot be read, else 0.
    unsigned int execute() override;

  private:
    enum RequestResult { REQUEST_FAILED, REQUEST_NEEDLESS, REQUEST_QUEUED };

    bool isCallerLoop() const;
    // Under the table lock.
    TimerInfo* findTimer(int timerId) UTL_REQUIRES(mTableLock);
    const TimerInfo* findTimer(int timerId) const UTL_REQUIRES(mTableLock);
    bool postLocked(int msgId, int param, detail::DeferredLog& log) UTL_REQUIRES(mTableLock);
    ssize_t writeToken(int msgId, int param);
    // Whether the timer runs once the requests queued for it are handled.
    bool willRun(int timerId, const TimerInfo& info) const UTL_REQUIRES(mTableLock);
    void dropQueuedExpiries(int timerId, TimerInfo* info) UTL_REQUIRES(mTableLock);
    bool stopTimerByTimerInfo(int timerId, TimerInfo* info, detail::DeferredLog& log)
        UTL_REQUIRES(mTableLock);
    bool startTimerByTimerInfo(TimerInfo* info, detail::DeferredLog& log) UTL_REQUIRES(mTableLock);
    void finishUpdate(TimerInfo* info);

    // Requests (any thread); `function` names the operation in liveness reports.
    bool request(int msgId, int timerId, int noWait, const char* function);
    RequestResult queueRequest(int msgId, int timerId, bool await);
    bool requestOnLoop(int msgId, int timerId);
    // The last start, stop or erase message of the timer still queued, or null.
    const TimerCtlMsg* lastQueuedRequest(int timerId) const UTL_REQUIRES(mTableLock);
    bool forEachTimer(int noWait, bool (SharedTimer::*operation)(int, int));

    // The loop (timer thread only).
    void reportSignalWriteFailure();
    void executeTimeoutSignal(int sysTimerNumber, bool takesSignalTurn);
    bool takeFront(TimerCtlMsg* front);
    int dispatch(const TimerCtlMsg& front);
    int updateOnStart(int timerId, detail::DeferredLog& log);
    int updateOnStop(int timerId, bool erase, detail::DeferredLog& log);
    int handleExpiry(int timerId);
    int updateOnTimeout(int timerId, int32_t arming);
    void releaseWaiter(const TimerCtlMsg& handled);
    void eraseAllTimer();
    void closeLoop();

    Queue<TimerCtlMsg> mCtlQueue UTL_GUARDED_BY(mTableLock);
    Map<int, TimerInfo> mTimers UTL_GUARDED_BY(mTableLock);
    int32_t mNextUserTimerId UTL_GUARDED_BY(mTableLock);
    int32_t mNextSysTimerNumber UTL_GUARDED_BY(mTableLock);
    int mReadFd;
    int mWriteFd;
    // Guarded by mTableLock: entries the loop has taken from the queue so far, and the position
    // (in that count) of the entry a caller waits for, 0 when none; mAwaitedResult is its result.
    uint64_t mTaken;
    uint64_t mAwaitedPosition;
    bool mAwaitedResult;
    bool mClosed;                  // Guarded by mTableLock: the loop has ended or never ran.
    detail::LoopPipeReader mPipe;  // Timer thread only.
    // On while a caller waits for its message; the loop turns it off once it has handled it.
    Event mControlDone;
    SyncObject mControlLock;
    mutable SyncObject mTableLock;
};

// A single timer with its own timer thread.
//
// It expires `interval` ms after `start` and then as its count limit and run-on flag say (see
// `SharedTimer`), calling the listener given to the constructor, or, without one, its own
// `onTime`, which a derived class overrides. Every operation may be called from any thread and
// forwards to the `SharedTimer` with the timer's id; called inside `onTime` they never wait.
//
//   state            | start/stop/restart | setInterval | getInterval | isRunning
//   -----------------+--------------------+-------------+-------------+----------
//   constructed      | as SharedTimer     | true        | interval    | as it runs
//   destroyed, or no | false              | false       | 0xFFFFFFFF  | false
//   thread           |                    |             |             |
//
// `destroy()` ends the timer for good: it stops the timer thread and waits for its end (without
// waiting when called inside `onTime`: the thread then ends after that call), so that no
// listener is called afterwards. The destructor calls it; a class derived from Timer must call it
// in its own destructor.
class Timer : public TimerListener {
  public:
    // A timer of `interval` ms on its own thread, started with (`watchdog`, `aliveTime`,
    // `watchdogListener`) and named `name`, without a listener: only the `onTime` of a derived
    // class sees its expiries. Created stopped.
    Timer(unsigned int interval, int watchdog, unsigned int aliveTime,
          WatchdogTimerListener* watchdogListener, unsigned int countLimit, int runOn,
          const char* name);
    // The same, calling `listener` (may be null: then nothing is called).
    Timer(TimerListener* listener, unsigned int interval, int watchdog, unsigned int aliveTime,
          WatchdogTimerListener* watchdogListener, unsigned int countLimit, int runOn,
          const char* name);
    ~Timer() override;

    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // As the SharedTimer operations of the same names, for this timer.
    bool start(int noWait);
    bool restart(int noWait);
    bool stop(int noWait);
    bool setInterval(unsigned int interval);
    unsigned int getInterval() const;
    bool isRunning() const;
    // Ends the timer and its thread. True when it ended the timer; false after an earlier
    // destroy or when the timer could not be made.
    bool destroy();

    // Forwards to the listener when one was given.
    void onTime(int timerId) override;

  private:
    SharedTimer mSharedTimer;
    TimerListener* mListener;
    std::atomic<int> mTimerId;  // -1 before the timer is added and after destroy().
};

}  // namespace utl

#endif  // UTL_SHARED_TIMER_H
